// quorvane_session: loads the plug-in module into the headless host, runs global set-up,
// parameter set-up and About, and prints the About text and the declared control panel.
//
//     quorvane_session [--host ae|premiere] [PLUGIN]
//
// PLUGIN defaults to $QUORVANE_PLUGIN, else the module of this build.
#include <cstdio>
#include <cstring>
#include <exception>
#include <string>

#include "headless/host.h"

namespace {

using namespace quorvane::headless;

const char*
typeName(PF_ParamType type) {
    switch (type) {
        case PF_Param_LAYER:
            return "layer";
        case PF_Param_SLIDER:
            return "slider";
        case PF_Param_COLOR:
            return "colour";
        case PF_Param_POPUP:
            return "popup";
        case PF_Param_GROUP_START:
            return "group start";
        case PF_Param_GROUP_END:
            return "group end";
        default:
            return "other";
    }
}

// The text with carriage returns shown as line breaks.
std::string
lines(std::string text) {
    for (char& c : text) {
        if (c == '\r') {
            c = '\n';
        }
    }
    return text;
}

void
printControl(PF_ParamIndex index, const Control& c) {
    const PF_ParamDef& d = c.declared;
    const std::string name = c.name();
    std::printf("%2d  %-12s \"%s\"%s  flags 0x%X  ui_flags 0x%X  id %d\n", index,
                typeName(d.param_type), name.c_str(),
                name.size() == sizeof d.name ? " (fills the name field)" : "",
                static_cast<unsigned>(d.flags), static_cast<unsigned>(d.ui_flags), d.uu.id);
    switch (d.param_type) {
        case PF_Param_POPUP: {
            std::printf("      %d choices declared, default %d\n", d.u.pd.num_choices,
                        d.u.pd.dephault);
            int item = 1;
            for (const std::string& choice : c.popupChoices()) {
                std::printf("      %c %d \"%s\"\n", item == d.u.pd.dephault ? '*' : ' ', item,
                            choice.c_str());
                ++item;
            }
            break;
        }
        case PF_Param_SLIDER:
            std::printf("      valid %d..%d, slider %d..%d, default %d\n", d.u.sd.valid_min,
                        d.u.sd.valid_max, d.u.sd.slider_min, d.u.sd.slider_max, d.u.sd.dephault);
            break;
        case PF_Param_COLOR: {
            const PF_Pixel& p = d.u.cd.dephault;
            std::printf("      default red %d green %d blue %d alpha %d\n", p.red, p.green, p.blue,
                        p.alpha);
            break;
        }
        default:
            break;
    }
}

int
usage() {
    std::fprintf(stderr, "usage: quorvane_session [--host ae|premiere] [PLUGIN]\n");
    return 2;
}

}  // namespace

int
main(int argc, char** argv) {
    HostFamily family = HostFamily::AfterEffects;
    std::string path;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--host" && i + 1 < argc) {
            const std::string host = argv[++i];
            if (host == "ae") {
                family = HostFamily::AfterEffects;
            } else if (host == "premiere") {
                family = HostFamily::Premiere;
            } else {
                return usage();
            }
        } else if (arg == "-h" || arg == "--help") {
            return usage();
        } else if (path.empty() && arg[0] != '-') {
            path = arg;
        } else {
            return usage();
        }
    }
    if (path.empty()) {
        path = Plugin::defaultPath();
    }

    try {
        Plugin plugin = Plugin::load(path);
        Session session(plugin, {.family = family});
        PF_Err err = session.globalSetup();
        if (err != PF_Err_NONE) {
            std::fprintf(stderr, "quorvane_session: global set-up failed with error %d\n", err);
            return 1;
        }
        const PF_OutData global = session.outData();
        err = session.paramsSetup();
        if (err != PF_Err_NONE) {
            std::fprintf(stderr, "quorvane_session: parameter set-up failed with error %d\n", err);
            return 1;
        }
        err = session.about();
        if (err != PF_Err_NONE) {
            std::fprintf(stderr, "quorvane_session: About failed with error %d\n", err);
            return 1;
        }

        std::printf("Plug-in  %s\n", plugin.name().c_str());
        std::printf("Host     %s\n",
                    family == HostFamily::Premiere ? "Premiere Pro" : "After Effects");
        std::printf("Version  0x%X, out_flags 0x%X, out_flags2 0x%X\n\n",
                    static_cast<unsigned>(global.my_version),
                    static_cast<unsigned>(global.out_flags),
                    static_cast<unsigned>(global.out_flags2));
        std::printf("About\n%s\n\n", lines(session.returnMessage()).c_str());
        std::printf("Controls (%d declared)\n", session.numParams() - 1);
        for (PF_ParamIndex i = 1; i < session.numParams(); ++i) {
            printControl(i, session.control(i));
        }
        session.finish();
        const Accounting& acc = session.accounting();
        if (acc.suitesHeld() != 0 || acc.worldsLeftUndisposed != 0 || acc.guardViolations != 0) {
            std::fprintf(stderr,
                         "quorvane_session: %d suites still held, %d worlds left, %d writes "
                         "outside worlds\n",
                         acc.suitesHeld(), acc.worldsLeftUndisposed, acc.guardViolations);
            return 1;
        }
    } catch (const std::exception& e) {
        std::fprintf(stderr, "quorvane_session: %s\n", e.what());
        return 1;
    }
    return 0;
}
