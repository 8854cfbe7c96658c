#include "quendo/cache/CMStatusCache.h"
#include "quendo/cache/CacheTask.h"
#include "quendo/factory/InjectedCMAdapterFactories.h"
#include "quendo/git/GitAdapterFactory.h"
#include "quendo/platform/Logging.h"
#include "quendo/pool/ManagedFolder.h"
#include "quendo/pool/ManagedFolderProvider.h"

#include <boost/log/core/core.hpp>
#include <boost/log/sinks/sink.hpp>
#include <boost/smart_ptr/make_shared_object.hpp>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <poll.h>
#include <sys/eventfd.h>
#include <thread>
#include <unistd.h>

// A host that ends while its threads use the library: quendo_late_work FOLDER. When everything that
// is destroyed at the end of a process has been, shared libraries' own included, it waits until
// each thread has gone on for some rounds. Ends with 0 then, with 3 when a thread stands still, and
// with 4 when a state is wrong; with 5 when the injected factory is still there.

extern "C" int __cxa_atexit(void (*function)(void*), void* argument, void* library);

namespace {

using namespace quendo;

constexpr int logging = 0, asking = 1, kinds = 2;
constexpr std::uint64_t lateRounds = 20;
int rounds[kinds]; // an event file each, which counts those done
bool isEnding = false;

struct TakingSink final : boost::log::sinks::sink {
    TakingSink() : sink(false) {}
    bool will_consume(const boost::log::attribute_value_set&) override { return true; }
    void consume(const boost::log::record_view&) override {}
    void flush() override {}
};

bool awaitRounds(int kind, std::uint64_t wanted) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    for (std::uint64_t seen = 0, more = 0; seen < wanted; seen += more) {
        pollfd file{rounds[kind], POLLIN, 0};
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
        if (left.count() <= 0 || ::poll(&file, 1, static_cast<int>(left.count())) <= 0 ||
            ::read(file.fd, &more, sizeof more) != sizeof more)
            return false;
    }
    return true;
}

std::atomic<bool> isReleased{false};

struct InjectedFactory : git::GitAdapterFactory {
    ~InjectedFactory() override { isReleased = true; }
};

template <class Work>
void keepDoing(int kind, Work work) {
    std::thread([kind, work] {
        for (;;) {
            work();
            ::eventfd_write(rounds[kind], 1);
        }
    }).detach();
}

void ask(const Path& folder) {
    const auto managed = getSingletonManagedFolderProvider().provideFor(folder);
    auto& cache = managed->getCache();
    cache.refreshFolder(folder)->wait();
    if (cache.getModifiedFiles().empty())
        ::_exit(4);
}

// Runs before shared libraries are set up, so that what it registers runs after they have been
// taken down.
void registerFirst(int, char**, char**) {
    __cxa_atexit(
        [](void*) {
            // The first count may be of rounds that were done before.
            for (int kind = 0; isEnding && kind < kinds; ++kind)
                if (!awaitRounds(kind, 1) || !awaitRounds(kind, lateRounds))
                    ::_exit(3);
            if (isEnding && !isReleased)
                ::_exit(5);
        },
        nullptr, nullptr);
}
[[gnu::section(".preinit_array"), gnu::used]] auto* const beforeAll = &registerFirst;

} // namespace

int main(int, char** arguments) {
    const auto folder = Path::fromNative(arguments[1]);
    boost::log::core::get()->add_sink(boost::make_shared<TakingSink>());
    getInjectedCMAdapterFactoriesInstance().inject(std::make_shared<InjectedFactory>());
    for (int& file : rounds)
        file = ::eventfd(0, EFD_CLOEXEC);
    keepDoing(logging, [] { QUENDO_LOG(Severity::Notice) << "still here"; });
    keepDoing(asking, [folder] { ask(folder); });
    for (int kind = 0; kind < kinds; ++kind)
        if (!awaitRounds(kind, 1))
            return 3;
    isEnding = true;
}
