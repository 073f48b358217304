// Whether this program runs in valgrind, which is about thirty times slower.

#pragma once

#include <cstdlib>
#include <cstring>

namespace testing_support {

inline bool runs_in_valgrind() {
    const char *preloaded = std::getenv("LD_PRELOAD");
    return preloaded != nullptr && std::strstr(preloaded, "vgpreload") != nullptr;
}

} // namespace testing_support
