#include "headless/plugin.h"

#include <dlfcn.h>

#include <cstdlib>
#include <stdexcept>
#include <utility>

namespace quorvane::headless {

Plugin::Plugin(EntryPoint entry, void* module, std::string name)
    : entry_(entry), module_(module), name_(std::move(name)) {}

Plugin
Plugin::load(const std::string& path) {
    // RTLD_LOCAL: the module's symbols stay its own, as when the application loads a plug-in.
    void* module = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (module == nullptr) {
        const char* why = dlerror();
        throw std::runtime_error("cannot load plug-in module " + path + ": " +
                                 (why ? why : "unknown reason"));
    }
    dlerror();
    void* symbol = dlsym(module, "EntryPointFunc");
    if (symbol == nullptr) {
        // The loader's message may go with the module: copy it first.
        const char* why = dlerror();
        const std::string reason = why ? why : "symbol is null";
        dlclose(module);
        throw std::runtime_error("plug-in module " + path + " has no EntryPointFunc: " + reason);
    }
    return Plugin(reinterpret_cast<EntryPoint>(symbol), module, path);
}

Plugin
Plugin::fromEntryPoint(EntryPoint entry, std::string name) {
    if (entry == nullptr) {
        throw std::invalid_argument("Plugin::fromEntryPoint: null entry point");
    }
    return Plugin(entry, nullptr, std::move(name));
}

std::string
Plugin::defaultPath() {
    const char* env = std::getenv("QUORVANE_PLUGIN");
    if (env != nullptr && env[0] != '\0') {
        return env;
    }
#ifdef QUORVANE_PLUGIN_DEFAULT_PATH
    return QUORVANE_PLUGIN_DEFAULT_PATH;
#else
    return {};
#endif
}

Plugin::Plugin(Plugin&& other) noexcept
    : entry_(std::exchange(other.entry_, nullptr)),
      module_(std::exchange(other.module_, nullptr)),
      name_(std::move(other.name_)) {}

Plugin&
Plugin::operator=(Plugin&& other) noexcept {
    if (this != &other) {
        if (module_ != nullptr) {
            dlclose(module_);
        }
        entry_ = std::exchange(other.entry_, nullptr);
        module_ = std::exchange(other.module_, nullptr);
        name_ = std::move(other.name_);
    }
    return *this;
}

Plugin::~Plugin() {
    if (module_ != nullptr) {
        dlclose(module_);
    }
}

}  // namespace quorvane::headless
