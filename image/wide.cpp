#include "image/wide.h"

#include <atomic>

namespace {

std::atomic<bool> allowed{true};

}  // namespace

bool
wideLoopsAllowed() {
#if defined(QUORVANE_WIDE)
    return allowed.load(std::memory_order_relaxed) && __builtin_cpu_supports("avx2");
#else
    return false;
#endif
}

void
allowWideLoops(bool value) {
    allowed.store(value, std::memory_order_relaxed);
}
