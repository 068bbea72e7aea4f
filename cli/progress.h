// Progress of a render run: a bar with frame count, rate and time left on a terminal, one plain
// line per frame otherwise, nothing when quiet. Safe to call from every worker.
#pragma once

#include <chrono>
#include <cstdio>
#include <mutex>
#include <string>

namespace quorvane::cli {

enum class ProgressMode { Bar, Lines, Quiet };

// Bar when `stream` is a terminal, else lines; Quiet when `quiet`.
ProgressMode progressModeFor(std::FILE* stream, bool quiet);

class Progress {
  public:
    Progress(std::FILE* stream, ProgressMode mode, int total);

    // One more frame written to `path`.
    void frameDone(const std::string& path);
    // Ends the bar's line (before any other message is printed).
    void finish();

    int done() const;
    double elapsedSeconds() const;

    // "[=======>      ]  12/100 frames  3.4 frames/s  0:25 left" for the given numbers.
    static std::string barText(int done, int total, double seconds, int width);

  private:
    void draw(bool force);

    std::FILE* stream_;
    ProgressMode mode_;
    int total_;
    int done_ = 0;
    bool drawn_ = false;
    std::chrono::steady_clock::time_point start_;
    std::chrono::steady_clock::time_point lastDraw_;
    mutable std::mutex mutex_;
};

// "1:05" or "1:02:03" for a number of seconds.
std::string formatDuration(double seconds);

}  // namespace quorvane::cli
