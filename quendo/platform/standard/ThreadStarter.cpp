#include "quendo/platform/standard/ThreadStarter.h"

#include <algorithm>
#include <pthread.h>
#include <thread>

namespace quendo::platform {

void startDetachedThread(UniqueFunction<void()> body) {
    std::thread(std::move(body)).detach();
}

void nameThisThread(const std::string& name) noexcept {
    constexpr std::size_t most = 15;
    char cut[most + 1] = {};
    std::size_t length = std::min(name.size(), most);
    // Back to the start of the character that does not fit.
    while (length < name.size() && length > 0 &&
           (static_cast<unsigned char>(name[length]) & 0xC0U) == 0x80)
        --length;
    std::copy_n(name.data(), length, cut);
    pthread_setname_np(pthread_self(), cut);
}

} // namespace quendo::platform
