// The quorvane command line: `render`, `controls`, `about` and the help texts.
#pragma once

#include <string>

namespace quorvane::cli {

// Runs the command with the process's arguments; returns the exit status. Messages go to
// stderr, the `controls`, `about` and help texts to stdout.
int run(int argc, char** argv);

// The help texts (`quorvane --help`, `quorvane render --help`, ...).
std::string generalHelp();
std::string renderHelp();
std::string controlsHelp();
std::string aboutHelp();

// The plug-in module to load: `fromOption` when given, else $QUORVANE_PLUGIN, else the module
// beside the executable (its build folder) or in ../lib/quorvane (its install), else the
// module of the build this command came from.
std::string pluginPath(const std::string& fromOption);

}  // namespace quorvane::cli
