// How the quorvane command reports a failure: one exception type carrying the message the user
// sees (naming the file and the reason) and the exit status.
#pragma once

#include <stdexcept>
#include <string>

namespace quorvane::cli {

// Exit statuses.
inline constexpr int kExitOk = 0;
inline constexpr int kExitFailure = 1;  // a file, the effect or the system failed
inline constexpr int kExitUsage = 2;    // the command line or a preset is wrong
inline constexpr int kExitInterrupted = 130;

class CliError : public std::runtime_error {
  public:
    CliError(const std::string& message, int status = kExitFailure)
        : std::runtime_error(message), status_(status) {}
    int status() const { return status_; }

  private:
    int status_;
};

// A mistake on the command line or in a preset (exit status 2).
inline CliError
usageError(const std::string& message) {
    return CliError(message, kExitUsage);
}

// A failure tied to one file: "<path>: <reason>".
inline CliError
fileError(const std::string& path, const std::string& reason) {
    return CliError(path + ": " + reason, kExitFailure);
}

}  // namespace quorvane::cli
