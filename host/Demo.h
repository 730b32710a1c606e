#pragma once

// The snapshots and the table of the demo's summary, for the demo's users and tests.
#include "host/DeviceSnapshot.h"
#include "host/Table.h"
#include "platform/String.h"

// provctl demo: a whole provisioning of a new simulated device against the demo's own TFTP and
// HTTP servers on loopback, every job kind twice (the second round with --compare changes
// nothing), with a summary table of what each job did to the device.
namespace Provctl {

struct DemoOptions {
    int level = 3;  // highest monitor level written to standard error
};

// Runs the demo on the calling thread; returns the exit status: 0 when every job did what it
// should, 1 otherwise (a failed start of a server, an interruption by SIGINT or SIGTERM
// included). The servers are stopped on every path; the device directory stays.
int RUN_DEMO(const DemoOptions& options);

// The directory of the bundled sample files: the installed copy beside the program
// (<prefix>/share/provisioning/demo) when there is one, else the source tree's host/demo-files.
// Empty when neither holds the files.
String DEMO_FILES_DIRECTORY();

}  // namespace Provctl
