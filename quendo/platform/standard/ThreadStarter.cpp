#include "quendo/platform/standard/ThreadStarter.h"

#include <algorithm>
#include <pthread.h>
#include <system_error>
#include <thread>

namespace quendo::platform {

void startDetachedThread(UniqueFunction<void()> body) {
    try {
        std::thread(std::move(body)).detach();
    } catch (const std::system_error& error) {
        if (error.code() != std::errc::resource_unavailable_try_again)
            throw;
        throw std::system_error(error.code(),
                                "a thread cannot be started: the system allows no further one "
                                "(see ulimit -u, and pids.max of the control group)");
    }
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
