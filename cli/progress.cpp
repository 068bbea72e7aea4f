#include "cli/progress.h"

#include <unistd.h>

#include <cmath>

namespace quorvane::cli {

namespace {

constexpr int kBarWidth = 30;
// Redraws of the bar at most this often (and always for the last frame).
constexpr std::chrono::milliseconds kRedrawInterval(100);

}  // namespace

ProgressMode
progressModeFor(std::FILE* stream, bool quiet) {
    if (quiet) {
        return ProgressMode::Quiet;
    }
    return isatty(fileno(stream)) ? ProgressMode::Bar : ProgressMode::Lines;
}

std::string
formatDuration(double seconds) {
    const long total = std::lround(std::max(0.0, seconds));
    const long h = total / 3600;
    const long m = (total / 60) % 60;
    const long s = total % 60;
    char text[32];
    if (h > 0) {
        std::snprintf(text, sizeof text, "%ld:%02ld:%02ld", h, m, s);
    } else {
        std::snprintf(text, sizeof text, "%ld:%02ld", m, s);
    }
    return text;
}

std::string
Progress::barText(int done, int total, double seconds, int width) {
    const double fraction = total > 0 ? static_cast<double>(done) / total : 1.0;
    const int filled = static_cast<int>(fraction * width);
    std::string bar = "[";
    for (int i = 0; i < width; ++i) {
        bar += i < filled ? '=' : (i == filled ? '>' : ' ');
    }
    bar += "]";
    char text[160];
    const int digits = static_cast<int>(std::to_string(total).size());
    std::snprintf(text, sizeof text, " %*d/%d frames", digits, done, total);
    bar += text;
    if (done > 0 && seconds > 0) {
        const double rate = done / seconds;
        std::snprintf(text, sizeof text, "  %.1f frames/s  %s left", rate,
                      formatDuration((total - done) / rate).c_str());
        bar += text;
    }
    return bar;
}

Progress::Progress(std::FILE* stream, ProgressMode mode, int total)
    : stream_(stream),
      mode_(mode),
      total_(total),
      start_(std::chrono::steady_clock::now()),
      lastDraw_(start_) {
    if (mode_ == ProgressMode::Bar && total_ > 0) {
        draw(true);
    }
}

void
Progress::draw(bool force) {
    const auto now = std::chrono::steady_clock::now();
    if (!force && now - lastDraw_ < kRedrawInterval) {
        return;
    }
    lastDraw_ = now;
    const double seconds = std::chrono::duration<double>(now - start_).count();
    // \r and clear to the end of the line: the text may get shorter.
    std::fprintf(stream_, "\r%s\033[K", barText(done_, total_, seconds, kBarWidth).c_str());
    std::fflush(stream_);
    drawn_ = true;
}

void
Progress::frameDone(const std::string& path) {
    std::lock_guard lock(mutex_);
    ++done_;
    if (mode_ == ProgressMode::Bar) {
        draw(done_ == total_);
    } else if (mode_ == ProgressMode::Lines) {
        std::fprintf(stream_, "[%d/%d] %s\n", done_, total_, path.c_str());
        std::fflush(stream_);
    }
}

void
Progress::finish() {
    std::lock_guard lock(mutex_);
    if (mode_ == ProgressMode::Bar && drawn_) {
        draw(true);
        std::fputc('\n', stream_);
        std::fflush(stream_);
        drawn_ = false;
    }
}

int
Progress::done() const {
    std::lock_guard lock(mutex_);
    return done_;
}

double
Progress::elapsedSeconds() const {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
}

}  // namespace quorvane::cli
