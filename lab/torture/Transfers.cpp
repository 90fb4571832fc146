// SPDX-License-Identifier: Apache-2.0
// A route that ends while its poke is under way does not release it: that is so by its contract, and no leak. Here such
// transfers stay reachable, and are counted.
#include "torture/Failures.h"

#include <curl/multi.h>
#include <dlfcn.h>

#include <algorithm>
#include <array>
#include <mutex>

namespace {

std::mutex mutex;
std::array<CURLM*, 32> alive{};

template <typename Function>
Function* Real(Function*, const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

void Replace(const CURLM* one, CURLM* other) {
    const std::lock_guard<std::mutex> lock(mutex);
    const auto place = std::find(alive.begin(), alive.end(), one);
    if (place != alive.end())
        *place = other;
}

} // namespace

long OrvLab::TransfersLeft() {
    return std::count_if(alive.begin(), alive.end(), [](const CURLM* one) { return one != nullptr; });
}

// NOLINTBEGIN
extern "C" __attribute__((visibility("default"))) CURLM* curl_multi_init() {
    static const auto real = Real(&::curl_multi_init, "curl_multi_init");
    CURLM* made = real();
    if (made != nullptr)
        Replace(nullptr, made);
    return made;
}

extern "C" __attribute__((visibility("default"))) CURLMcode curl_multi_cleanup(CURLM* multi) {
    static const auto real = Real(&::curl_multi_cleanup, "curl_multi_cleanup");
    if (multi != nullptr)
        Replace(multi, nullptr);
    return real(multi);
}
// NOLINTEND
