#pragma once

// The host program: plays the device's management process against a simulated device directory.
namespace Provctl {
// Parses the command line, runs the subcommand, returns the exit status (0 ok, 1 failed,
// 2 usage error).
int MAIN(int argc, char** argv);
}  // namespace Provctl
