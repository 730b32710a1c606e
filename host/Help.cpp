#include <map>

#include "host/CommandLine.h"
#include "host/JobKinds.h"

namespace Provctl {

namespace {

const char* const OVERVIEW = R"PAGE(NAME
    provctl - run provisioning jobs against a simulated device

SYNOPSIS
    provctl resolve [--device DIR] [--set NAME=VALUE]... TEXT
    provctl JOB [OPTIONS] LOCATION...
    provctl demo [-v LEVEL]
    provctl --version
    provctl [COMMAND] --help
    provctl help [COMMAND]

DESCRIPTION
    provctl plays the device's management process on an ordinary Linux host. It keeps the
    device's flash, configurations, image slots and status in a device directory, builds one
    provisioning job, runs it on an event loop until the job reports its result, and prints
    that result. Monitor lines go to standard error as "PROV <level> <text>",
    "XFER <level> <text>" and "EVENT <level> <text>". On a terminal a running download's size,
    rate and percentage are shown on one line below them, rewritten in place.

COMMANDS
    resolve       resolve the $(...) expressions of a text with the device values
    config        download a configuration; store it as startup-config (or execute it)
    upload        upload the stored startup configuration
    cdr-upload    upload call detail records (not implemented: always fails)
    dialplan      download a dial plan into flash/dialplan/
    key           download the key file into flash/preferences/key
    wizard        download a wizard into flash/wizard/
    firmware      download a firmware archive or manifest and upgrade an image slot
    script        download a script and have the update controller run it
    demo          provision a new simulated device from the demo's own servers

    help          print this page, or a command's page ("provctl help config")

    "provctl COMMAND --help" describes each command; "man provctl" holds every page.

DEVICE DIRECTORY
    --device DIR, default $XDG_STATE_HOME/provctl/device (or ~/.local/state/provctl/device),
    created when missing. It holds device.toml (device values, credentials, HTTPS settings,
    commands the simulated running system refuses), flash/, config/, running-config, slots/,
    status/ and the work directory tmp/provisioning/. See docs/PROVCTL.md. A device.toml that
    holds a password is refused unless it is yours and only you may read and write it (chmod 600).

EXIT STATUS
    0   the command succeeded
    1   the job failed, or the text could not be resolved
    2   usage error (bad option, unknown device value, a device.toml that is malformed,
        cannot be read or holds an unknown table, key or type, a device.toml or credentials
        file with passwords that others may read, a slots/state that the device cannot have)

EXAMPLES
    provctl demo
    provctl config --device /tmp/dev1 tftp://127.0.0.1:6969/unit.cfg
)PAGE";

const char* const DEMO = R"PAGE(NAME
    provctl demo - provision a new simulated device from the demo's own servers

SYNOPSIS
    provctl demo [-v LEVEL]

DESCRIPTION
    Starts a TFTP server (in.tftpd) and an HTTP server (lighttpd) on free loopback ports,
    serving the bundled sample files (share/provisioning/demo of the installation, or
    host/demo-files of the source tree): a configuration, a dial plan, a key, a wizard, a
    firmware archive (made with tar at start) and a script. The HTTP server asks for Basic
    credentials of the realm "provisioning" under /secure/ and answers /old/office.txt with a
    302 redirect.

    It creates a new device directory /tmp/provctl-demo-XXXXXX (with a device.toml holding the
    device values and the realm's credentials) and runs every job kind against it in this
    process: config, dialplan (through the redirect), key (authenticated), wizard, firmware
    (reload immediate), script, upload (the server's copy is checked) and cdr-upload (which
    must fail with "NOT IMPLEMENTED"). A second round runs the same jobs with --compare and
    must change nothing on the device.

    At the end it prints one table row per job: kind, location, result, what changed in the
    device directory (status/ left out) and whether the job did what it should. The servers
    are stopped on every path, SIGINT and SIGTERM included; the device directory stays for
    inspection. The TFTP server chroots into its directory, so the demo needs root.

OPTIONS
    -v LEVEL            highest monitor level shown on standard error (default 3: failures;
                        6 shows every step of every job)
    --help              this page

EXIT STATUS
    0   every job did what it should
    1   a job did not, a server could not be started, or the demo was interrupted

EXAMPLES
    provctl demo
    provctl demo -v 6 2>demo.log
)PAGE";

const char* const RESOLVE = R"PAGE(NAME
    provctl resolve - resolve the $(...) expressions of a text

SYNOPSIS
    provctl resolve [--device DIR] [--set NAME=VALUE]... TEXT

DESCRIPTION
    Replaces every $(...) expression of TEXT with the device's values, exactly as a job does
    with its locations, and prints the result on standard output. Values come from the
    [values] table of DIR/device.toml; --set overrides them. Nothing in the device directory
    is created or changed.

    NAME is an expression name: system.mac, system.serial, dhcp.66, dhcp.67, system.hw.major,
    system.hw.minor, system.sw.major, system.sw.minor, system.sw.build, system.sw.date,
    system.product.name, system.product.basename, cli.major, cli.minor; or one of the values
    without an expression name: model, oem, hw.version, hw.revision, sw.version.

OPTIONS
    --device DIR        the simulated device directory
    --set NAME=VALUE    a device value (repeatable; the last one of a name wins); a value may
                        not hold "$(" (it would be resolved as an expression again)
    --help              this page

EXIT STATUS
    0   resolved; the text is printed
    1   an expression could not be resolved; standard output stays empty and standard error
        gets a message beginning with "CANNOT RESOLVE ALL EXPRESSIONS"
    2   usage error: unknown NAME, --set without '=', a value holding "$(", a device.toml
        that is malformed, cannot be read or holds an unknown table, key or type

EXAMPLES
    provctl resolve --set system.mac=00a0ba0b0c0d 'tftp://10.0.0.1/$(system.mac).cfg'
    provctl resolve --set system.hw.major=2 '/fw/$(system.hw.major>=2|new|old)/image.tar'
)PAGE";

const char* const JOB_OPTIONS_HEAD = R"PAGE(OPTIONS
    --device DIR        the simulated device directory (default: per-user, created when
                        missing, and named on standard error when it is created); not empty
    --name NAME         job name (default: the command's name); one file name (not "." or
                        "..", no "/"): it names the work file tmp/provisioning/NAME and the
                        script's fingerprint file flash/provisioning/NAME
)PAGE";

const char* const COMPARE_OPTION =
    "    --compare           compare with the stored copy (or running version) before acting\n";

const char* const RELOAD_OPTION =
    "    --reload WORD       reload type after the upgrade: none (the default), immediate,\n"
    "                        graceful or deferred; any other word is refused\n";

const char* const JOB_OPTIONS_TAIL =
    R"PAGE(    --set NAME=VALUE    device value for $(...) in locations (repeatable), as for resolve
    --credentials-file FILE
                        HTTP credentials, one REALM:USER:PASSWORD per line (empty lines and
                        lines starting with '#' are skipped); FILE "-" is standard input.
                        A FILE that others may read or write (mode other than 0600 or
                        0400, or not yours) is refused. This keeps passwords off the
                        command line; they win over device.toml
    --credential REALM:USER:PASSWORD
                        HTTP credentials of a realm (repeatable; wins over the file); an
                        empty REALM is the wild-card; the password is everything after the
                        second ':'. Unsafe on a shared host: every user can read a command
                        line (ps, /proc/PID/cmdline); use --credentials-file instead
    --ca-certificate FILE
                        the CA certificate that must have issued the HTTPS server's
                        certificate
    --certificate FILE  the client certificate offered to an HTTPS server
    --private-key FILE  the client certificate's key; each FILE is read before the job
                        starts (missing or unreadable: exit 2); "/flash/..." is a device path
%s    --json              print the outcome as one JSON object on standard output
    -q, --quiet         print the result line only (or the JSON object), no monitor lines
    -v [LEVEL]          the engine's whole log on standard error: every line up to LEVEL
                        (0 to 7; without LEVEL 6, every step)
    --help              this page

OUTPUT
    Standard error shows the transfer-log lines (XFER) and failures (level 3 and below);
    -v shows every step, -q nothing. Standard output holds "key: value" lines: the job, one
    "tried: LOCATION[ -> REDIRECT TARGET]: OUTCOME[: REASON]" line per location tried, the
    job's flags, the status location, on failure "reason: " with the tool's own last error
    line (such as "tftp: server error: (1) File not found"), and last "result: OK" or
    "result: <message> (<code>)". With --json exactly one object, whose layout
    share/provisioning/provctl-result.schema.json gives ("schemaVersion" 1):
    {"ok", "value", "message", "text", "imageAction", "activation", "postUpgrade",
     "followUp": {"pending", "mode", "command", "arguments"}, "statusLocation",
     "schemaVersion", "kind", "name", "reason",
     "locations": [{"location", "outcome", "redirectedTo", "reason", "toolLine"}]}.
    When standard error is a terminal, a download that runs longer than 200 ms shows its
    size so far, its rate and (when the HTTP server sent Content-Length) its percentage on one
    line below the monitor lines, rewritten in place; it is erased before the result is
    written.

EXIT STATUS
    0   the job succeeded
    1   the job failed, or the result could not be written to standard output
    2   usage error, found before anything in the device directory is created or changed:
        an unknown option or value, an option this job does not take, a file of
        --ca-certificate, --certificate or --private-key that cannot be read, a device.toml
        that is malformed, cannot be read or holds an unknown table, key or type, a
        device.toml with passwords or a credentials file that others may read or write, a
        slots/state that the device cannot have
    128+N  interrupted by signal N (any catchable signal that ends a process: SIGINT 130,
        SIGTERM 143, SIGHUP, SIGQUIT, SIGUSR1, SIGUSR2, SIGALRM, ..., and SIGPIPE 141, also
        when standard output or standard error is a closed pipe): the job's child process
        was ended and reaped, its work file and private files removed, the status set idle
)PAGE";

struct JobPage {
    const char* summary;
    const char* synopsisExtra;
    const char* extraOptions;
    const char* description;
    const char* examples;
};

const std::map<String, JobPage>& jobPages() {
    static const std::map<String, JobPage> pages = {
        {"config",
         {"download a configuration and store or execute it", "", "",
          "    Downloads a configuration from the first LOCATION that delivers it, checks it and\n"
          "    stores it as DIR/config/startup-config. With --compare an unchanged configuration\n"
          "    is not stored again (and no XFER line is written). After an HTTP 201 answer the\n"
          "    configuration is executed on the simulated running system (DIR/running-config)\n"
          "    instead; a line that matches a pattern of device.toml's [cli] reject list fails\n"
          "    it with \"EXECUTION FAILED AT LINE <n>: <line>\".\n",
          "    provctl config tftp://127.0.0.1:6969/unit.cfg\n"
          "    provctl config --compare 'http://127.0.0.1:8080/$(system.mac).cfg'\n"}},
        {"upload",
         {"upload the stored startup configuration", "", "",
          "    Uploads DIR/config/startup-config to LOCATION (TFTP only; HTTP and HTTPS uploads\n"
          "    are refused by the engine). A failed upload retries the same location.\n",
          "    provctl upload tftp://127.0.0.1:6969/backup/unit.cfg\n"}},
        {"cdr-upload",
         {"upload call detail records (not implemented)", " [--source NAME]",
          "    --source NAME       the source name recorded as the job's source (default cdr)\n",
          "    The reserved call-record upload: it always fails with \"NOT IMPLEMENTED\" before\n"
          "    any transfer.\n",
          "    provctl cdr-upload --source cdr tftp://127.0.0.1:6969/cdr.txt\n"}},
        {"dialplan",
         {"download a dial plan into flash", " [--dialplan NAME]",
          "    --dialplan NAME     the dial plan's name (default dialplan); the part after its\n"
          "                        last ':' names the file flash/dialplan/<part>\n",
          "    Downloads a dial plan and stores it as DIR/flash/dialplan/<name>.\n",
          "    provctl dialplan --dialplan flash:plan1 tftp://127.0.0.1:6969/plan1.txt\n"}},
        {"key",
         {"download the key file into flash", "", "",
          "    Downloads a key file and stores it as DIR/flash/preferences/key.\n",
          "    provctl key --compare https://127.0.0.1:8443/keys/unit.key\n"}},
        {"wizard",
         {"download a wizard into flash", "", "",
          "    Downloads a wizard and stores it as DIR/flash/wizard/<file name of the location>;\n"
          "    the outcome then asks for the CLI command \"add wizard\" (followUp).\n",
          "    provctl wizard --json tftp://127.0.0.1:6969/w/intro.wiz\n"}},
        {"firmware",
         {"download a firmware archive or manifest and upgrade an image slot", "", "",
          "    Downloads a tar archive (location ending in .tar) holding a manifest and an image,\n"
          "    or a bare manifest (location ending in manifest), compares the manifest's version\n"
          "    with the device's image slots (DIR/slots/state) and has the simulated update\n"
          "    controller write the image. Afterwards provctl applies the job's image action to\n"
          "    the slot state and, when --reload is not none and the job asks for activation,\n"
          "    restarts the simulated device into the next slot.\n",
          "    provctl firmware --compare --reload immediate tftp://127.0.0.1:6969/fw.tar\n"}},
        {"script",
         {"download a script and run it through the update controller", "", "",
          "    Downloads a script (a tar archive holding \"manifest\", or a location ending in\n"
          "    manifest) and has the simulated update controller run it. With --compare a script\n"
          "    whose last 20 characters equal DIR/flash/provisioning/NAME is not run again.\n",
          "    provctl script --compare --name boot tftp://127.0.0.1:6969/boot.manifest\n"}},
    };
    return pages;
}

String jobPage(const String& command, const JobPage& page) {
    String text = String::format(
        "NAME\n    provctl %s - %s\n\nSYNOPSIS\n    provctl %s [OPTIONS]%s LOCATION...\n\n"
        "DESCRIPTION\n%s\n    Each LOCATION is tftp://HOST[:PORT]/PATH, http://... or https://...\n"
        "    and may hold $(...) expressions; the locations are tried in order.\n\n",
        command.c_str(), page.summary, command.c_str(), page.synopsisExtra, page.description);
    const JobKind* kind = FIND_JOB_KIND(command);
    text += JOB_OPTIONS_HEAD;
    if (kind->usesCompare) {
        text += COMPARE_OPTION;
    }
    if (kind->usesReload) {
        text += RELOAD_OPTION;
    }
    text += String::format(JOB_OPTIONS_TAIL, page.extraOptions);
    text += String::format("\nEXAMPLES\n%s", page.examples);
    return text;
}

}  // namespace

String MANUAL_PAGE(const String& command) {
    if (command == "provctl" || command.isEmpty()) {
        return OVERVIEW;
    }
    if (command == "resolve") {
        return RESOLVE;
    }
    if (command == "demo") {
        return DEMO;
    }
    auto found = jobPages().find(command);
    return found == jobPages().end() ? String() : jobPage(command, found->second);
}

}  // namespace Provctl
