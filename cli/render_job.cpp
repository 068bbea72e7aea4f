#include "cli/render_job.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <thread>

#include "cli/contact_sheet.h"
#include "cli/errors.h"
#include "cli/frame_cache.h"
#include "cli/progress.h"
#include "cli/sequence.h"

namespace fs = std::filesystem;

namespace quorvane::cli {

std::atomic<int> gInterruptSignal{0};

namespace {

void
onInterrupt(int sig) {
    if (gInterruptSignal.exchange(sig) != 0) {
        // A second signal: stop now; stale temporary files are removed by the next run.
        ::signal(sig, SIG_DFL);
        ::raise(sig);
    }
}

std::string
hostName(headless::HostFamily family) {
    return family == headless::HostFamily::Premiere ? "Premiere Pro" : "After Effects";
}

// Flushes a written file to disk, so the rename publishes complete contents.
void
syncFile(const std::string& path) {
    const int fd = ::open(path.c_str(), O_RDONLY);
    if (fd >= 0) {
        ::fsync(fd);
        ::close(fd);
    }
}

void
removeQuietly(const std::string& path) {
    std::error_code ec;
    fs::remove(path, ec);
}

// Renames a finished temporary file into place; removes it when that fails.
void
publish(const std::string& temporary, const std::string& path) {
    syncFile(temporary);
    std::error_code ec;
    fs::rename(temporary, path, ec);
    if (ec) {
        removeQuietly(temporary);
        throw fileError(path, "cannot write: " + ec.message());
    }
}

// Identity of an existing file (device and inode), so that two names of one file match.
std::optional<std::pair<dev_t, ino_t>>
fileIdentity(const std::string& path) {
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0) {
        return std::nullopt;
    }
    return std::make_pair(st.st_dev, st.st_ino);
}

// Creates `folder` when missing and checks that files can be made in it.
void
prepareFolder(const std::string& folder) {
    std::error_code ec;
    fs::create_directories(folder, ec);
    if (ec) {
        throw fileError(folder, "cannot create the output folder: " + ec.message());
    }
    if (!fs::is_directory(folder, ec)) {
        throw fileError(folder, "cannot write into the output folder: it is not a folder");
    }
    const std::string probe =
        (fs::path(folder) / (".quorvane-write-test." + std::to_string(::getpid()))).string();
    const int fd = ::open(probe.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0644);
    if (fd < 0) {
        throw fileError(
            folder, std::string("cannot write into the output folder: ") + std::strerror(errno));
    }
    ::close(fd);
    ::unlink(probe.c_str());
}

std::string
folderOf(const std::string& path) {
    const fs::path parent = fs::path(path).parent_path();
    return parent.empty() ? std::string(".") : parent.string();
}

// Everything a run needs, worked out and checked before the first frame is rendered.
struct Plan {
    FramePattern input{""};
    FramePattern output{""};
    long first = 0;  // the sequence's first and last frame on disk
    long last = 0;
    std::vector<long> renders;  // frames to render, in order
    int skipped = 0;
    ImageHeader header;  // of the first frame the run reads
    int width = 0;       // the effect's frame size (after --downsample)
    int height = 0;
    bool deep = true;
    OutputFormat format;
    PixelType outputType = PixelType::U8;
    int outputBits = 0;  // bits of a 10- or 12-bit input kept in the same format
    bool writeBackColours = false;
};

std::vector<long>
neighbourhoodOf(long frame, long first, long last) {
    return {std::clamp(frame - 1, first, last), std::clamp(frame, first, last),
            std::clamp(frame + 1, first, last)};
}

Plan
makePlan(const ControlSet& controls, const RenderRequest& request) {
    Plan plan;
    plan.input = FramePattern(request.input);
    plan.output = FramePattern(request.output);
    const FramePattern& in = plan.input;
    const FramePattern& out = plan.output;

    // Frames on disk and frames to render.
    const std::vector<long> disk = in.framesOnDisk();
    if (!in.isSequence()) {
        if (disk.empty()) {
            throw fileError(in.text(), "no such file");
        }
        if (!request.frames.empty()) {
            throw usageError("--frames " + request.frames + ": INPUT " + in.text() +
                             " is a single image, not a sequence (name it like plate.####.exr)");
        }
        if (out.isSequence()) {
            throw usageError("OUTPUT " + out.text() +
                             " has a frame field but INPUT is a single image; name one file");
        }
        plan.renders = {0};
    } else {
        if (disk.empty()) {
            throw fileError(in.text(),
                            "no frames on disk match this name (looked in " + in.folder() + ")");
        }
        plan.first = disk.front();
        plan.last = disk.back();
        if (request.frames.empty()) {
            for (long f = plan.first; f <= plan.last; ++f) {
                plan.renders.push_back(f);
            }
        } else {
            plan.renders = parseFrameList(request.frames);
        }
        if (!out.isSequence() && plan.renders.size() > 1) {
            throw usageError("OUTPUT " + out.text() + " names one file but " +
                             std::to_string(plan.renders.size()) +
                             " frames are rendered; give it a frame field (clean.####.png)");
        }
    }

    // The output format and the views it can hold.
    plan.format = outputFormatFor(out.pathFor(plan.renders.front()));
    const std::string process = controls.word(request.values, "process");
    if (!plan.format.alpha && process != "show-color-info") {
        throw usageError(out.text() + ": " + plan.format.name +
                         " files hold no alpha; write --process " + process +
                         " to PNG, TIFF, OpenEXR, DPX or TGA");
    }

    // No output may overwrite an input (by name or by a second link to the same file).
    std::set<std::pair<dev_t, ino_t>> inputs;
    for (long f : disk) {
        if (auto id = fileIdentity(in.pathFor(f))) {
            inputs.insert(*id);
        }
    }
    std::vector<std::string> outputs;
    for (long r : plan.renders) {
        outputs.push_back(out.pathFor(r));
    }
    if (!request.contactSheet.empty()) {
        outputs.push_back(request.contactSheet);
    }
    for (const std::string& path : outputs) {
        auto id = fileIdentity(path);
        if (id && inputs.count(*id) != 0) {
            throw fileError(path, "the output would overwrite an input frame");
        }
    }

    // --skip-existing: outputs already in place are kept.
    if (request.skipExisting) {
        std::vector<long> remaining;
        std::error_code ec;
        for (long r : plan.renders) {
            if (fs::exists(out.pathFor(r), ec)) {
                ++plan.skipped;
            } else {
                remaining.push_back(r);
            }
        }
        plan.renders = std::move(remaining);
    }
    if (plan.renders.empty()) {
        return plan;
    }

    // Every frame the renders read: present, readable, one size, within the row limits.
    std::set<long> needed;
    for (long r : plan.renders) {
        needed.insert(r);
        for (long f : neighbourhoodOf(r, plan.first, plan.last)) {
            needed.insert(f);
        }
    }
    std::string headerPath;
    for (long f : needed) {
        const std::string path = in.pathFor(f);
        std::error_code ec;
        if (!fs::exists(path, ec)) {
            throw fileError(path, "missing frame (the sequence on disk runs from frame " +
                                      std::to_string(plan.first) + " to " +
                                      std::to_string(plan.last) + ")");
        }
        const ImageHeader header = probeImage(path);
        if (headerPath.empty()) {
            plan.header = header;
            headerPath = path;
        } else if (header.width != plan.header.width || header.height != plan.header.height) {
            throw fileError(path, "the frame is " + std::to_string(header.width) + " x " +
                                      std::to_string(header.height) + " pixels but " + headerPath +
                                      " is " + std::to_string(plan.header.width) + " x " +
                                      std::to_string(plan.header.height));
        }
    }
    const int n = std::max(1, request.downsample);
    plan.width = (plan.header.width + n - 1) / n;
    plan.height = (plan.header.height + n - 1) / n;
    const std::string atDownsample = n > 1 ? " (at --downsample " + std::to_string(n) + " it is " +
                                                 std::to_string(plan.width) + " x " +
                                                 std::to_string(plan.height) + ")"
                                           : std::string();
    const int minRows = minimumRows(request.family);
    if (plan.height < minRows) {
        throw fileError(headerPath,
                        "the frame is " + std::to_string(plan.header.height) + " rows tall" +
                            atDownsample + "; the effect renders frames of at least " +
                            std::to_string(minRows) + " rows in " + hostName(request.family));
    }
    if (plan.header.height > kMaximumRows) {
        throw fileError(headerPath, "the frame is " + std::to_string(plan.header.height) +
                                        " rows tall; the effect renders frames of at most " +
                                        std::to_string(kMaximumRows) + " rows");
    }
    if (plan.width < kMinimumColumns) {
        throw fileError(headerPath, "the frame is " + std::to_string(plan.header.width) +
                                        " columns wide" + atDownsample +
                                        "; the effect renders frames of at least " +
                                        std::to_string(kMinimumColumns) + " columns");
    }

    // Depth of the project, type of the output files.
    const PixelType inputType = plan.header.type;
    plan.deep = request.depth == Depth::Sixteen ||
                (request.depth == Depth::Auto && inputType != PixelType::U8);
    const PixelType wanted = request.depth == Depth::Auto    ? inputType
                             : request.depth == Depth::Eight ? PixelType::U8
                                                             : PixelType::U16;
    plan.outputType = outputTypeFor(plan.format, wanted);
    if (plan.outputType == PixelType::U16 && request.depth == Depth::Auto &&
        plan.format.name == plan.header.format) {
        plan.outputBits = plan.header.bitsPerSample;
    }
    // "Show result" returns the input's colours; from a 16-bit or float file they are written
    // back at the file's precision rather than the world's 15 bits.
    plan.writeBackColours =
        process == "show-result" && inputType != PixelType::U8 && plan.outputType != PixelType::U8;
    return plan;
}

// The memory available to new work, from /proc/meminfo; 0 when unknown.
std::uint64_t
availableMemory() {
    std::ifstream meminfo("/proc/meminfo");
    std::string key;
    std::uint64_t kilobytes = 0;
    std::string unit;
    while (meminfo >> key >> kilobytes >> unit) {
        if (key == "MemAvailable:") {
            return kilobytes * 1024;
        }
    }
    return 0;
}

// One job per processor, fewer when the memory would not hold them: a render holds about a
// dozen 16-bit frames (its working worlds, check-outs and output) plus cached input frames.
int
defaultJobs(int width, int height) {
    const int processors = static_cast<int>(std::max(1u, std::thread::hardware_concurrency()));
    const std::uint64_t frame = static_cast<std::uint64_t>(width) * height * sizeof(PF_Pixel16);
    const std::uint64_t perJob = frame * 16;
    const std::uint64_t available = availableMemory();
    if (available == 0 || perJob == 0) {
        return processors;
    }
    const std::uint64_t fit = available * 3 / 4 / perJob;
    return static_cast<int>(std::clamp<std::uint64_t>(fit, 1, processors));
}

}  // namespace

int
minimumRows(headless::HostFamily family) {
    return family == headless::HostFamily::Premiere ? 200 : 50;
}

std::string
temporaryPathFor(const std::string& output) {
    const fs::path path(output);
    std::string name(1, '.');
    name += path.stem().string();
    name += ".tmp";
    name += path.extension().string();
    return (path.parent_path() / name).string();
}

void
installInterruptHandlers() {
    struct sigaction action {};
    action.sa_handler = onInterrupt;
    sigemptyset(&action.sa_mask);
    for (int sig : {SIGINT, SIGTERM, SIGHUP}) {
        ::sigaction(sig, &action, nullptr);
    }
}

RenderSummary
renderSequence(const headless::Plugin& plugin, const ControlSet& controls,
               const RenderRequest& request, std::FILE* messages) {
    const Plan plan = makePlan(controls, request);
    RenderSummary summary;
    summary.skipped = plan.skipped;
    summary.outputType = plan.outputType;
    summary.outputBits = plan.outputBits;
    summary.outputFormat = plan.format.name;
    if (plan.renders.empty()) {
        return summary;
    }

    // Folders, then stale temporary files of this run's frames from an interrupted run.
    std::set<std::string> folders;
    for (long r : plan.renders) {
        folders.insert(folderOf(plan.output.pathFor(r)));
    }
    if (!request.contactSheet.empty()) {
        folders.insert(folderOf(request.contactSheet));
    }
    for (const std::string& folder : folders) {
        prepareFolder(folder);
    }
    for (long r : plan.renders) {
        removeQuietly(temporaryPathFor(plan.output.pathFor(r)));
    }

    SequenceSource source(plan.input, plan.first, plan.last, plan.header.width, plan.header.height,
                          request.downsample);
    source.planRenders(plan.renders);
    std::unique_ptr<ContactSheet> sheet;
    if (!request.contactSheet.empty()) {
        sheet = std::make_unique<ContactSheet>(plan.renders, plan.width, plan.height);
    }

    int jobs = request.jobs > 0 ? request.jobs : defaultJobs(plan.width, plan.height);
    jobs = std::min<int>(jobs, static_cast<int>(plan.renders.size()));
    summary.jobs = jobs;

    Progress progress(messages, progressModeFor(messages, request.quiet),
                      static_cast<int>(plan.renders.size()));
    std::atomic<std::size_t> next{0};
    std::atomic<bool> stop{false};
    std::mutex errorMutex;
    std::optional<CliError> firstError;
    auto fail = [&](const CliError& error) {
        std::lock_guard lock(errorMutex);
        if (!firstError) {
            firstError = error;
        }
        stop = true;
    };

    auto worker = [&]() {
        try {
            // No copy of the input layer per command: that check is for tests of the effect.
            headless::Session session(plugin, {.family = request.family,
                                               .deep = plan.deep,
                                               .source = &source,
                                               .checkInputWrites = false});
            const PF_Err started = session.start();
            if (started != PF_Err_NONE) {
                throw CliError("the effect's set-up failed (error " + std::to_string(started) +
                               ")");
            }
            controls.apply(request.values, session);
            if (request.downsample > 1) {
                session.setDownsample(static_cast<A_u_long>(request.downsample));
            }
            while (!stop && gInterruptSignal == 0) {
                const std::size_t i = next++;
                if (i >= plan.renders.size()) {
                    break;
                }
                const long frame = plan.renders[i];
                const std::string path = plan.output.pathFor(frame);
                const std::string temporary = temporaryPathFor(path);
                try {
                    for (long f : neighbourhoodOf(frame, plan.first, plan.last)) {
                        source.frame(f);  // read errors name the file here
                    }
                    headless::World world(plan.width, plan.height, plan.deep);
                    const PF_Err err = session.runFrame(static_cast<A_long>(frame), world);
                    if (err != PF_Err_NONE) {
                        std::string reason = source.fillError();
                        if (reason.empty()) {
                            reason = plan.input.pathFor(frame) +
                                     ": the effect could not render the frame (error " +
                                     std::to_string(err) + ")";
                            const std::string said = session.returnMessage();
                            if (!said.empty()) {
                                reason += ": " + said;
                            }
                        }
                        throw CliError(reason);
                    }
                    const std::shared_ptr<const Image> input = source.frame(frame);
                    writeWorld(temporary, path, world.layer(), plan.outputType, plan.format.alpha,
                               plan.writeBackColours ? input.get() : nullptr, plan.outputBits);
                    publish(temporary, path);
                    if (sheet) {
                        sheet->add(frame, *input, world.layer());
                    }
                    source.renderDone(frame);
                    progress.frameDone(path);
                } catch (...) {
                    removeQuietly(temporary);
                    throw;
                }
            }
        } catch (const CliError& error) {
            fail(error);
        } catch (const std::exception& error) {
            fail(CliError(error.what()));
        }
    };

    std::vector<std::thread> threads;
    for (int j = 1; j < jobs; ++j) {
        threads.emplace_back(worker);
    }
    worker();
    for (std::thread& thread : threads) {
        thread.join();
    }
    progress.finish();

    summary.rendered = progress.done();
    summary.filesRead = source.filesRead();
    summary.seconds = progress.elapsedSeconds();
    if (firstError) {
        throw *firstError;
    }
    if (gInterruptSignal != 0 && summary.rendered < static_cast<int>(plan.renders.size())) {
        throw CliError("interrupted: " + std::to_string(summary.rendered) + " of " +
                           std::to_string(plan.renders.size()) +
                           " frames written; run the same command with --skip-existing to "
                           "finish",
                       kExitInterrupted);
    }
    if (sheet) {
        const std::string temporary = temporaryPathFor(request.contactSheet);
        try {
            sheet->write(temporary, request.contactSheet);
            publish(temporary, request.contactSheet);
        } catch (...) {
            removeQuietly(temporary);
            throw;
        }
    }
    return summary;
}

}  // namespace quorvane::cli
