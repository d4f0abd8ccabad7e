#pragma once

#include <utility>

namespace ZARNUtils {

// Runs a clean-up when the scope ends, on every path out of it, unless dismissed.
//   ScopeGuard removeTemp([&] { ZARNRemoveTree(tmpDir); });
template <typename F>
class ScopeGuard {
public:
    explicit ScopeGuard(F fn) : fn_(std::move(fn)) {}
    ScopeGuard(ScopeGuard&& other) noexcept : fn_(std::move(other.fn_)), active_(other.active_) {
        other.active_ = false;
    }
    ScopeGuard(const ScopeGuard&) = delete;
    ScopeGuard& operator=(const ScopeGuard&) = delete;
    ScopeGuard& operator=(ScopeGuard&&) = delete;
    ~ScopeGuard() {
        if (active_) {
            fn_();
        }
    }
    // Keeps what the scope made: the clean-up will not run.
    void dismiss() { active_ = false; }

private:
    F fn_;
    bool active_ = true;
};

template <typename F>
ScopeGuard<F> MakeScopeGuard(F fn) {
    return ScopeGuard<F>(std::move(fn));
}

}  // namespace ZARNUtils

#define ZARN_SCOPE_CAT_INNER(a, b) a##b
#define ZARN_SCOPE_CAT(a, b) ZARN_SCOPE_CAT_INNER(a, b)
// ZARN_SCOPE_EXIT { close(fd); };
#define ZARN_SCOPE_EXIT \
    auto ZARN_SCOPE_CAT(zarnScopeExit_, __LINE__) = ::ZARNUtils::ScopeExitTag() + [&]()

namespace ZARNUtils {
struct ScopeExitTag {};
template <typename F>
ScopeGuard<F> operator+(ScopeExitTag, F fn) {
    return ScopeGuard<F>(std::move(fn));
}
}  // namespace ZARNUtils
