// The plug-in property list (resources/Quorvane_PiPL.r) against the built module: the host
// reads the list before loading the module, so its entry-point name, version and out-flags
// must be what the module answers at global set-up.

#include <gtest/gtest.h>

#include <dlfcn.h>

#include <cctype>
#include <cstdio>
#include <fstream>
#include <set>
#include <sstream>
#include <string>

#include "headless/host.h"

namespace {

using quorvane::headless::EntryPoint;
using quorvane::headless::HostFamily;
using quorvane::headless::Plugin;
using quorvane::headless::Session;

// The resource text without its line comments.
std::string
propertyListSource() {
    std::ifstream file(std::string(QUORVANE_SOURCE_DIR) + "/resources/Quorvane_PiPL.r");
    std::string source, line;
    while (std::getline(file, line)) {
        source += line.substr(0, line.find("//")) + '\n';
    }
    return source;
}

bool
isNameChar(char c) {
    return std::isalnum(static_cast<unsigned char>(c)) || c == '_';
}

// The single value of a property written `Property { value }`, quotes removed; empty when
// absent.
std::string
propertyValue(const std::string& source, const std::string& property) {
    for (std::size_t at = source.find(property); at != std::string::npos;
         at = source.find(property, at + 1)) {
        const std::size_t after = at + property.size();
        if ((at > 0 && isNameChar(source[at - 1])) ||
            (after < source.size() && isNameChar(source[after]))) {
            continue;
        }
        const std::size_t open = source.find_first_not_of(" \t\r\n", after);
        if (open == std::string::npos || source[open] != '{') {
            continue;
        }
        const std::size_t close = source.find('}', open);
        const std::size_t first = source.find_first_not_of(" \t\r\n", open + 1);
        const std::size_t last = source.find_last_not_of(" \t\r\n", close - 1);
        std::string value = source.substr(first, last - first + 1);
        if (value.size() >= 2 && value.front() == '"' && value.back() == '"') {
            value = value.substr(1, value.size() - 2);
        }
        return value;
    }
    return {};
}

A_u_long
number(const std::string& text) {
    return static_cast<A_u_long>(std::stoul(text, nullptr, 0));
}

struct Module {
    void* handle = nullptr;
    explicit Module(const std::string& path) : handle(dlopen(path.c_str(), RTLD_NOW)) {}
    ~Module() {
        if (handle != nullptr) {
            dlclose(handle);
        }
    }
};

TEST(PropertyList, declares_the_modules_entry_point_version_and_out_flags) {
    const std::string source = propertyListSource();
    ASSERT_FALSE(source.empty());
    const std::string entryName = propertyValue(source, "CodeMacIntel64");
    const std::string version = propertyValue(source, "AE_Effect_Version");
    const std::string outFlags = propertyValue(source, "AE_Effect_Global_OutFlags");
    const std::string outFlags2 = propertyValue(source, "AE_Effect_Global_OutFlags_2");
    for (const std::string* value : {&entryName, &version, &outFlags, &outFlags2}) {
        ASSERT_FALSE(value->empty());
    }
    EXPECT_EQ(propertyValue(source, "Name"), "Quorvane");

    const std::string path = Plugin::defaultPath();
    Module module(path);
    ASSERT_NE(module.handle, nullptr) << path << ": " << dlerror();
    auto entry = reinterpret_cast<EntryPoint>(dlsym(module.handle, entryName.c_str()));
    ASSERT_NE(entry, nullptr) << entryName << " not found in " << path;

    for (HostFamily family : {HostFamily::AfterEffects, HostFamily::Premiere}) {
        Session session(entry, {.family = family});
        ASSERT_EQ(session.globalSetup(), PF_Err_NONE);
        EXPECT_EQ(session.outData().my_version, number(version));
        EXPECT_EQ(static_cast<A_u_long>(session.outData().out_flags), number(outFlags));
        EXPECT_EQ(static_cast<A_u_long>(session.outData().out_flags2), number(outFlags2));
    }
}

TEST(PropertyList, module_exports_its_entry_point_and_nothing_else) {
    const std::string command = "nm -D --defined-only '" + Plugin::defaultPath() + "' 2>/dev/null";
    FILE* pipe = popen(command.c_str(), "r");
    ASSERT_NE(pipe, nullptr);
    std::set<std::string> exported;
    char line[512];
    while (std::fgets(line, sizeof line, pipe) != nullptr) {
        std::istringstream fields(line);
        std::string address, kind, name;
        if (fields >> address >> kind >> name) {
            exported.insert(name);
        }
    }
    if (pclose(pipe) != 0 && exported.empty()) {
        GTEST_SKIP() << "nm is not available";
    }
    const std::string entryName = propertyValue(propertyListSource(), "CodeMacIntel64");
    EXPECT_EQ(exported, std::set<std::string>{entryName});
}

}  // namespace
