// The effect as the headless host sees it: one EntryPointFunc, found in a loaded module or
// handed over directly (unit tests link a fake effect into the test program).
#pragma once

#include <AE_Effect.h>

#include <string>

namespace quorvane::headless {

// The effect's entry point, with the host's argument list.
using EntryPoint = PF_Err (*)(PF_Cmd cmd, PF_InData* in_data, PF_OutData* out_data,
                              PF_ParamDef* params[], PF_LayerDef* output, void* extra);

class Plugin {
  public:
    // Loads the module at `path` (dlopen) and looks up EntryPointFunc. Throws
    // std::runtime_error naming the path and the loader's reason when either fails.
    static Plugin load(const std::string& path);
    // Wraps an entry point linked into this program; nothing is loaded or unloaded.
    static Plugin fromEntryPoint(EntryPoint entry, std::string name = "linked effect");
    // The module to load when none is named: $QUORVANE_PLUGIN when set and not empty, else the
    // build's module (QUORVANE_PLUGIN_DEFAULT_PATH).
    static std::string defaultPath();

    Plugin(Plugin&& other) noexcept;
    Plugin& operator=(Plugin&& other) noexcept;
    Plugin(const Plugin&) = delete;
    Plugin& operator=(const Plugin&) = delete;
    // Unloads the module. Every Session using it must have ended.
    ~Plugin();

    EntryPoint entry() const { return entry_; }
    // The module's path, or the name given to fromEntryPoint.
    const std::string& name() const { return name_; }

  private:
    Plugin(EntryPoint entry, void* module, std::string name);
    EntryPoint entry_ = nullptr;
    void* module_ = nullptr;
    std::string name_;
};

}  // namespace quorvane::headless
