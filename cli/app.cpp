#include "cli/app.h"

#include <unistd.h>

#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <set>
#include <vector>

#include "cli/controls.h"
#include "cli/errors.h"
#include "cli/panel.h"
#include "cli/render_job.h"
#include "cli/sequence.h"
#include "headless/host.h"

namespace fs = std::filesystem;

namespace quorvane::cli {

namespace {

#ifndef QUORVANE_VERSION
#define QUORVANE_VERSION "unknown"
#endif

constexpr char kModuleName[] = "Quorvane.plugin.so";

// The command line split into a command, positional arguments and options (names without
// dashes, in the order given).
struct Arguments {
    std::string command;
    std::vector<std::string> positionals;
    std::vector<std::pair<std::string, std::string>> options;
    bool help = false;
};

// Options that take no value.
const std::set<std::string> kFlags = {"quiet", "skip-existing", "help", "version"};

// The options of each command other than the effect's controls.
const std::set<std::string> kRenderOptions = {"preset",        "save-preset",   "frames", "host",
                                              "downsample",    "depth",         "jobs",   "quiet",
                                              "skip-existing", "contact-sheet", "plugin"};
const std::set<std::string> kControlsOptions = {"preset", "save-preset", "host", "plugin"};
const std::set<std::string> kAboutOptions = {"host", "plugin"};

Arguments
splitArguments(int argc, char** argv) {
    Arguments args;
    bool onlyPositionals = false;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        if (onlyPositionals || arg.size() < 2 || arg[0] != '-') {
            if (args.command.empty()) {
                args.command = arg;
            } else {
                args.positionals.push_back(arg);
            }
            continue;
        }
        if (arg == "--") {
            onlyPositionals = true;
            continue;
        }
        std::string name;
        std::string value;
        bool hasValue = false;
        if (arg.rfind("--", 0) == 0) {
            name = arg.substr(2);
            const std::size_t eq = name.find('=');
            if (eq != std::string::npos) {
                value = name.substr(eq + 1);
                name = name.substr(0, eq);
                hasValue = true;
            }
        } else {
            // Short options: -j N (or -jN), -q, -h.
            const char letter = arg[1];
            name = letter == 'j' ? "jobs" : letter == 'q' ? "quiet" : letter == 'h' ? "help" : "";
            if (name.empty()) {
                throw usageError("unknown option " + arg + " (see quorvane --help)");
            }
            if (arg.size() > 2) {
                value = arg.substr(2);
                hasValue = true;
            }
        }
        if (name == "help") {
            args.help = true;
            continue;
        }
        if (kFlags.count(name) != 0) {
            if (hasValue) {
                throw usageError("--" + name + " takes no value");
            }
            args.options.emplace_back(name, "");
            continue;
        }
        if (!hasValue) {
            if (i + 1 >= argc) {
                throw usageError("--" + name + " needs a value");
            }
            value = argv[++i];
        }
        args.options.emplace_back(name, value);
    }
    return args;
}

// The last value given for `name`, or `fallback`.
std::string
optionValue(const Arguments& args, const std::string& name, const std::string& fallback = "") {
    std::string value = fallback;
    for (const auto& [n, v] : args.options) {
        if (n == name) {
            value = v;
        }
    }
    return value;
}

bool
hasOption(const Arguments& args, const std::string& name) {
    for (const auto& [n, v] : args.options) {
        if (n == name) {
            return true;
        }
    }
    return false;
}

int
integerOption(const Arguments& args, const std::string& name, int fallback, int min, int max,
              const std::string& range) {
    if (!hasOption(args, name)) {
        return fallback;
    }
    const std::string text = optionValue(args, name);
    int value = 0;
    const auto [ptr, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (ec != std::errc() || ptr != text.data() + text.size() || value < min || value > max) {
        throw usageError("--" + name + " " + text + ": takes " + range);
    }
    return value;
}

headless::HostFamily
hostOption(const Arguments& args) {
    const std::string host = optionValue(args, "host", "ae");
    if (host == "ae") {
        return headless::HostFamily::AfterEffects;
    }
    if (host == "premiere") {
        return headless::HostFamily::Premiere;
    }
    throw usageError("--host " + host + ": takes ae or premiere");
}

std::string
hostName(headless::HostFamily family) {
    return family == headless::HostFamily::Premiere ? "Premiere Pro" : "After Effects";
}

headless::Plugin
loadPlugin(const Arguments& args) {
    const std::string path = pluginPath(optionValue(args, "plugin"));
    try {
        return headless::Plugin::load(path);
    } catch (const std::exception& e) {
        throw CliError(std::string("cannot load the effect: ") + e.what() +
                       " (name the module with --plugin PATH or QUORVANE_PLUGIN)");
    }
}

// A session that has run global and parameter set-up, for the controls and the About text.
void
startSession(headless::Session& session) {
    const PF_Err err = session.start();
    if (err != PF_Err_NONE) {
        throw CliError("the effect's set-up failed (error " + std::to_string(err) + ")");
    }
}

// The controls' values: defaults, then the preset, then the options in the order given.
// Options that are neither the command's own nor a control's are refused.
ControlValues
controlValues(const Arguments& args, const ControlSet& controls, const std::set<std::string>& own) {
    ControlValues values = controls.defaults();
    if (hasOption(args, "preset")) {
        values = controls.readPreset(optionValue(args, "preset"), values);
    }
    for (const auto& [name, value] : args.options) {
        if (own.count(name) != 0) {
            continue;
        }
        const ControlInfo* control = controls.find(name);
        if (control == nullptr) {
            throw usageError("unknown option --" + name + " (see quorvane " + args.command +
                             " --help)");
        }
        values[control->index] = controls.parse(*control, value, "--" + name + " " + value);
    }
    return values;
}

void
checkOwnOptions(const Arguments& args, const std::set<std::string>& own) {
    for (const auto& [name, value] : args.options) {
        if (own.count(name) == 0) {
            throw usageError("unknown option --" + name + " (see quorvane " + args.command +
                             " --help)");
        }
    }
}

void
checkPositionals(const Arguments& args, std::size_t count, const std::string& usage) {
    if (args.positionals.size() != count) {
        throw usageError("usage: " + usage + " (see quorvane " + args.command + " --help)");
    }
}

void
savePresetIfAsked(const Arguments& args, const ControlSet& controls, const ControlValues& values) {
    if (hasOption(args, "save-preset")) {
        controls.writePreset(optionValue(args, "save-preset"), values);
    }
}

int
runRender(const Arguments& args) {
    checkPositionals(args, 2, "quorvane render INPUT OUTPUT [options]");
    RenderRequest request;
    request.input = args.positionals[0];
    request.output = args.positionals[1];
    request.frames = optionValue(args, "frames");
    request.family = hostOption(args);
    request.downsample = integerOption(args, "downsample", 1, 1, 4, "1, 2, 3 or 4");
    const std::string depth = optionValue(args, "depth", "auto");
    if (depth == "auto") {
        request.depth = Depth::Auto;
    } else if (depth == "8") {
        request.depth = Depth::Eight;
    } else if (depth == "16") {
        request.depth = Depth::Sixteen;
    } else {
        throw usageError("--depth " + depth + ": takes auto, 8 or 16");
    }
    request.jobs = integerOption(args, "jobs", 0, 1, 1024, "1 to 1024");
    request.quiet = hasOption(args, "quiet");
    request.skipExisting = hasOption(args, "skip-existing");
    request.contactSheet = optionValue(args, "contact-sheet");
    if (hasOption(args, "frames")) {
        parseFrameList(request.frames);  // refuse a malformed list before loading anything
    }

    headless::Plugin plugin = loadPlugin(args);
    std::unique_ptr<ControlSet> controls;
    {
        headless::Session probe(plugin, {.family = request.family});
        startSession(probe);
        controls = std::make_unique<ControlSet>(probe);
    }
    request.values = controlValues(args, *controls, kRenderOptions);
    savePresetIfAsked(args, *controls, request.values);

    installInterruptHandlers();
    const RenderSummary summary = renderSequence(plugin, *controls, request, stderr);
    if (!request.quiet) {
        if (summary.rendered == 0) {
            std::fprintf(stderr, "quorvane: nothing to render: %d output%s already exist%s\n",
                         summary.skipped, summary.skipped == 1 ? "" : "s",
                         summary.skipped == 1 ? "s" : "");
        } else {
            std::fprintf(stderr,
                         "quorvane: cleaned %d frame%s in %.1f s (%.1f frames/s, %d job%s) -> "
                         "%s (%s %s)\n",
                         summary.rendered, summary.rendered == 1 ? "" : "s", summary.seconds,
                         summary.seconds > 0 ? summary.rendered / summary.seconds : 0.0,
                         summary.jobs, summary.jobs == 1 ? "" : "s", request.output.c_str(),
                         summary.outputBits > 0
                             ? (std::to_string(summary.outputBits) + "-bit").c_str()
                             : pixelTypeName(summary.outputType),
                         summary.outputFormat.c_str());
            if (summary.skipped > 0) {
                std::fprintf(stderr, "quorvane: kept %d existing output%s (--skip-existing)\n",
                             summary.skipped, summary.skipped == 1 ? "" : "s");
            }
            if (!request.contactSheet.empty()) {
                std::fprintf(stderr, "quorvane: contact sheet %s\n", request.contactSheet.c_str());
            }
        }
    }
    return kExitOk;
}

int
runControls(const Arguments& args) {
    checkPositionals(args, 0, "quorvane controls [options]");
    const headless::HostFamily family = hostOption(args);
    headless::Plugin plugin = loadPlugin(args);
    headless::Session session(plugin, {.family = family});
    startSession(session);
    const ControlSet controls(session);
    const ControlValues values = controlValues(args, controls, kControlsOptions);
    savePresetIfAsked(args, controls, values);
    const std::string text = describePanel(session, controls, values, hostName(family));
    std::fputs(text.c_str(), stdout);
    return kExitOk;
}

int
runAbout(const Arguments& args) {
    checkPositionals(args, 0, "quorvane about [--host ae|premiere]");
    checkOwnOptions(args, kAboutOptions);
    headless::Plugin plugin = loadPlugin(args);
    headless::Session session(plugin, {.family = hostOption(args)});
    startSession(session);
    std::fputs(aboutText(session).c_str(), stdout);
    return kExitOk;
}

int
dispatch(const Arguments& args) {
    const std::string& command = args.command;
    if (command == "version" || (command.empty() && hasOption(args, "version"))) {
        std::printf("quorvane %s\n", QUORVANE_VERSION);
        return kExitOk;
    }
    if (command.empty() || command == "help") {
        const std::string topic = args.positionals.empty() ? "" : args.positionals[0];
        std::fputs((topic == "render"     ? renderHelp()
                    : topic == "controls" ? controlsHelp()
                    : topic == "about"    ? aboutHelp()
                                          : generalHelp())
                       .c_str(),
                   stdout);
        return command.empty() && !args.help ? kExitUsage : kExitOk;
    }
    if (command == "render") {
        if (args.help) {
            std::fputs(renderHelp().c_str(), stdout);
            return kExitOk;
        }
        return runRender(args);
    }
    if (command == "controls") {
        if (args.help) {
            std::fputs(controlsHelp().c_str(), stdout);
            return kExitOk;
        }
        return runControls(args);
    }
    if (command == "about") {
        if (args.help) {
            std::fputs(aboutHelp().c_str(), stdout);
            return kExitOk;
        }
        return runAbout(args);
    }
    throw usageError("unknown command " + command + " (see quorvane --help)");
}

}  // namespace

std::string
pluginPath(const std::string& fromOption) {
    if (!fromOption.empty()) {
        return fromOption;
    }
    const char* env = std::getenv("QUORVANE_PLUGIN");
    if (env != nullptr && *env != '\0') {
        return env;
    }
    std::error_code ec;
    const fs::path exe = fs::read_symlink("/proc/self/exe", ec);
    if (!ec) {
        for (const fs::path& candidate :
             {exe.parent_path() / kModuleName,
              exe.parent_path() / ".." / "lib" / "quorvane" / kModuleName}) {
            if (fs::exists(candidate, ec)) {
                return candidate.lexically_normal().string();
            }
        }
    }
#ifdef QUORVANE_PLUGIN_DEFAULT_PATH
    return QUORVANE_PLUGIN_DEFAULT_PATH;
#else
    return kModuleName;
#endif
}

int
run(int argc, char** argv) {
    try {
        return dispatch(splitArguments(argc, argv));
    } catch (const CliError& e) {
        std::fprintf(stderr, "quorvane: %s\n", e.what());
        return e.status();
    } catch (const std::exception& e) {
        std::fprintf(stderr, "quorvane: %s\n", e.what());
        return kExitFailure;
    }
}

}  // namespace quorvane::cli
