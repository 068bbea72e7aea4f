// `quorvane render`: a sequence (or one image) in, the cleaned frames out, each rendered by the
// effect through its EntryPointFunc in a headless-host session.
//
// Before anything is written, every frame the run needs is checked (present, readable, one
// size, within the effect's row limits) and so are the outputs (a format that holds the view,
// no input overwritten, folders writable). Then N workers, each with its own session, render
// frames in order of the frame list; each output is written to a temporary file beside it
// (".NAME.tmp.EXT") and renamed into place, so a frame is either complete or absent.
#pragma once

#include <atomic>
#include <cstdio>
#include <string>
#include <vector>

#include "cli/controls.h"
#include "cli/image_file.h"
#include "headless/host.h"

namespace quorvane::cli {

enum class Depth { Auto, Eight, Sixteen };

struct RenderRequest {
    std::string input;   // file name or pattern
    std::string output;  // file name or pattern
    std::string frames;  // frame list; empty: every frame from the first to the last on disk
    ControlValues values;
    headless::HostFamily family = headless::HostFamily::AfterEffects;
    int downsample = 1;
    Depth depth = Depth::Auto;
    int jobs = 0;  // 0: one per processor
    bool quiet = false;
    bool skipExisting = false;
    std::string contactSheet;  // empty: none
};

struct RenderSummary {
    int rendered = 0;
    int skipped = 0;  // outputs that existed (--skip-existing)
    int jobs = 0;
    int filesRead = 0;
    double seconds = 0;
    PixelType outputType = PixelType::U8;
    int outputBits = 0;  // 10 or 12 when the output keeps such an input's bits, else 0
    std::string outputFormat;
};

// Smallest and largest frame heights the effect renders in each host family.
int minimumRows(headless::HostFamily family);
inline constexpr int kMaximumRows = 4320;
inline constexpr int kMinimumColumns = 2;

// The temporary name an output is written under before it is renamed into place:
// "out/clean.0001.png" -> "out/.clean.0001.tmp.png".
std::string temporaryPathFor(const std::string& output);

// Set by SIGINT, SIGTERM or SIGHUP while a run is under way (see installInterruptHandlers):
// workers finish the frame in hand and take no more.
extern std::atomic<int> gInterruptSignal;
// Installs the handlers (a second signal ends the process at once).
void installInterruptHandlers();

// Runs the render. Progress goes to `messages` (stderr) as the request's mode says. Throws
// CliError: exit status 1 for a failure, 2 for a wrong request, 130 when interrupted.
RenderSummary renderSequence(const headless::Plugin& plugin, const ControlSet& controls,
                             const RenderRequest& request, std::FILE* messages);

}  // namespace quorvane::cli
