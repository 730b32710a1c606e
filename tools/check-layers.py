#!/usr/bin/env python3
"""Refuses every #include that goes up a layer.

Reads the layers of tools/layers.txt, resolves each #include of each file of a layer as the
compiler would (next to the including file first, then from the top of the source tree) and
reports the includes of files that belong to a layer the including one may not use.

    tools/check-layers.py [SOURCE_DIR]     check the tree (default: the one holding this script)
    tools/check-layers.py --self-test      check the tree, then plant upward includes in copies
                                           of it and make sure that each one is refused
"""

import os
import re
import shutil
import sys
import tempfile

INCLUDE = re.compile(r'^\s*#\s*include\s*([<"])([^>"]+)[>"]')
SUFFIXES = ('.h', '.inl', '.cpp')


def read_table(source_dir):
    layers = {}
    with open(os.path.join(source_dir, 'tools', 'layers.txt')) as table:
        for number, line in enumerate(table, 1):
            if not re.match(r'[a-z]', line):
                continue
            match = re.match(r'^([a-z]+) *:([^:]*):(.*)$', line.rstrip('\n'))
            if not match:
                sys.exit('tools/layers.txt:%d: cannot read %r' % (number, line))
            layers[match.group(1)] = (match.group(2).split(), match.group(3).split())
    for layer, (_, uses) in layers.items():
        for used in uses:
            if used not in layers:
                sys.exit('tools/layers.txt: %s uses an unknown layer %s' % (layer, used))
    return layers


def owner_of(layers, path):
    owner, longest = None, 0
    for layer, (paths, _) in layers.items():
        for entry in paths:
            matches = path.startswith(entry) if entry.endswith('/') else path == entry
            if matches and len(entry) > longest:
                owner, longest = layer, len(entry)
    return owner


def layer_files(source_dir, layers):
    seen = set()
    for paths, _ in layers.values():
        for entry in paths:
            if not entry.endswith('/'):
                seen.add(entry)
                continue
            for directory, _, names in os.walk(os.path.join(source_dir, entry)):
                for name in names:
                    if name.endswith(SUFFIXES):
                        seen.add(os.path.relpath(os.path.join(directory, name), source_dir))
    return sorted(path for path in seen if os.path.isfile(os.path.join(source_dir, path)))


def resolve(source_dir, including, name, quoted):
    """The source-tree path an include names, or None for a file outside the tree."""
    candidates = []
    if quoted:
        candidates.append(os.path.join(os.path.dirname(including), name))
    candidates.append(name)
    for candidate in candidates:
        path = os.path.normpath(candidate)
        if path.startswith('..'):
            continue
        if os.path.isfile(os.path.join(source_dir, path)):
            return path
    return None


def violations(source_dir):
    layers = read_table(source_dir)
    found = []
    for path in layer_files(source_dir, layers):
        layer = owner_of(layers, path)
        allowed = set(layers[layer][1]) | {layer}
        with open(os.path.join(source_dir, path), errors='replace') as source:
            for number, line in enumerate(source, 1):
                match = INCLUDE.match(line)
                if not match:
                    continue
                target = resolve(source_dir, path, match.group(2), match.group(1) == '"')
                used = owner_of(layers, target) if target else None
                if used and used not in allowed:
                    found.append('%s:%d: includes %s of layer %s; layer %s may use: %s' % (
                        path, number, target, used, layer, ' '.join(layers[layer][1]) or 'nothing'))
    return found


def check(source_dir):
    found = violations(source_dir)
    for message in found:
        print(message, file=sys.stderr)
    if found:
        print('%d include(s) go up a layer (see tools/layers.txt)' % len(found), file=sys.stderr)
    return 1 if found else 0


# Upward includes that must be refused: (file, line to add).
PLANTS = [
    ('transfer/ProvisioningHttpClient.cpp', '#include "engine/ProvisioningJob.h"'),
    ('engine/WorkFile.cpp', '#include "../jobs/content/FlashFile.h"'),
    ('engine/Monitors.cpp', '#include "engine/ProvisioningJob.h"'),
    ('expression/ExpressionResolver.cpp', '#include <transfer/ProvisioningCredentials.h>'),
    ('jobs/content/FlashFile.cpp', '#include "host/JobRunner.h"'),
    ('jobs/content/FlashFile.cpp', '#include "platform/simulated/DeviceDirectory.h"'),
    ('platform/String.h', '#include "posix/DevicePaths.h"'),
    ('platform/simulated/Mgmt.cpp', '#include "engine/Monitors.h"'),
    ('host/Report.cpp', '#include "platform/testing/ShellHooks.h"'),
]


def copy_tree(source_dir, target_dir):
    layers = read_table(source_dir)
    os.makedirs(os.path.join(target_dir, 'tools'))
    shutil.copy(os.path.join(source_dir, 'tools', 'layers.txt'), os.path.join(target_dir, 'tools'))
    for path in layer_files(source_dir, layers):
        os.makedirs(os.path.join(target_dir, os.path.dirname(path)), exist_ok=True)
        shutil.copy(os.path.join(source_dir, path), os.path.join(target_dir, path))


def self_test(source_dir):
    if check(source_dir) != 0:
        return 1
    failed = 0
    for path, line in PLANTS:
        with tempfile.TemporaryDirectory(prefix='check-layers-') as copy:
            copy_tree(source_dir, copy)
            with open(os.path.join(copy, path), 'a') as planted:
                planted.write('\n' + line + '\n')
            found = [message for message in violations(copy) if message.startswith(path + ':')]
            if found:
                print('refused as it should: %s' % found[0])
            else:
                print('NOT refused: %s in %s' % (line, path), file=sys.stderr)
                failed = 1
    return failed


def main(arguments):
    here = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
    if arguments and arguments[0] == '--self-test':
        return self_test(arguments[1] if len(arguments) > 1 else here)
    return check(arguments[0] if arguments else here)


if __name__ == '__main__':
    sys.exit(main(sys.argv[1:]))
