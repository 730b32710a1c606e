#pragma once

// The host program: plays the device's management process against a simulated device directory.
namespace Provctl {

// Parses the command line, runs the subcommand, returns the exit status (0 ok, 1 failed,
// 2 usage error). Runs everything on the calling thread; one call at a time per process.
int MAIN(int argc, char** argv);

}  // namespace Provctl
