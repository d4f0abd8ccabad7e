#include "platform/sysroot.h"

#include <unistd.h>

#include <cstdlib>
#include <mutex>

namespace {

std::string NormalizeRoot(const std::string& path) {
    std::string root = path;
    if (root.empty()) {
        return "/";
    }
    if (root[0] != '/') {
        // A relative root would change meaning with the working directory.
        char cwd[4096];
        if (getcwd(cwd, sizeof(cwd)) != nullptr) {
            root = std::string(cwd) + "/" + root;
        }
    }
    while (root.size() > 1 && root.back() == '/') {
        root.pop_back();
    }
    return root;
}

struct RootState {
    std::once_flag once;
    std::string root = "/";
    bool explicitlySet = false;
};

RootState& State() {
    static RootState state;
    return state;
}

// The environment is read at first use, unless SetSystemRoot came first.
void EnsureInitialised() {
    RootState& state = State();
    std::call_once(state.once, [&state] {
        if (state.explicitlySet) {
            return;
        }
        const char* env = getenv("ZARNPKG_ROOT");
        if (env != nullptr && env[0] != '\0') {
            state.root = NormalizeRoot(env);
        }
    });
}

}  // namespace

namespace ZARNPackageCore {

void SetSystemRoot(const std::string& path) {
    RootState& state = State();
    state.explicitlySet = true;
    EnsureInitialised();
    state.root = NormalizeRoot(path);
    // The appliance's tools that run from inside the root (initctl, zarnpkgctl) find it so.
    if (state.root == "/") {
        unsetenv("ZARNPKG_ROOT");
    } else {
        setenv("ZARNPKG_ROOT", state.root.c_str(), 1);
    }
}

const std::string& GetSystemRoot() {
    EnsureInitialised();
    return State().root;
}

}  // namespace ZARNPackageCore

std::string ZARNPhysicalPath(const std::string& logical) {
    const std::string& root = ZARNPackageCore::GetSystemRoot();
    if (root == "/" || logical.empty() || logical[0] != '/') {
        return logical;
    }
    return root + logical;
}

std::string ZARNLogicalPath(const std::string& physical) {
    const std::string& root = ZARNPackageCore::GetSystemRoot();
    if (root == "/" || physical.size() < root.size() ||
        physical.compare(0, root.size(), root) != 0) {
        return physical;
    }
    if (physical.size() == root.size()) {
        return "/";
    }
    if (physical[root.size()] != '/') {
        return physical;
    }
    return physical.substr(root.size());
}

std::string ZARNCommandLinePath(const std::string& path) {
    const std::string& root = ZARNPackageCore::GetSystemRoot();
    if (root == "/" || path.empty() || path[0] != '/') {
        return path;  // relative paths mean the same to the library and to the tools it runs
    }
    const std::string logical = ZARNLogicalPath(path);
    if (logical != path || path == root) {
        return logical;
    }
    // A file outside the root: said relative to the working folder, which no mapping changes.
    char cwd[4096];
    if (getcwd(cwd, sizeof(cwd)) == nullptr) {
        return path;
    }
    std::string up;
    for (const char* p = cwd; *p != '\0'; ++p) {
        if (*p == '/' && p[1] != '\0') {
            up += "../";
        }
    }
    if (std::string(cwd) == "/") {
        up.clear();
    } else if (up.empty()) {
        up = "../";
    }
    return (up.empty() ? "./" : up) + path.substr(1);
}
