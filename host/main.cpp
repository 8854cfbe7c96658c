#include "host/CommandLine.h"
#include "host/HostError.h"
#include "host/Interrupts.h"
#include "host/LogSink.h"
#include "host/StandardStreams.h"
#include "host/WorkingCopy.h"

#include <cstdlib>
#include <exception>
#include <new>
#ifdef __SANITIZE_ADDRESS__
#include <sanitizer/lsan_interface.h>
#endif

namespace quendo::host {
namespace {

constexpr int done = 0;
constexpr int failed = 1;
constexpr int wrongUsage = 2;
constexpr int signalBase = 128;

int failure(const char* message) {
    // Whatever the work says about being stopped, it was stopped because the user asked for it.
    if (const int signal = Interrupts::received())
        return signalBase + signal;
    writeError(message);
    return failed;
}

int runProgram(int count, char** arguments) {
    try {
        prepareStandardStreams();
        const auto invocation = parseCommandLine(count, arguments);
        setUpLog(invocation.logLevel);
        setColours(invocation.colours);
        for (const auto& folder : invocation.folders)
            changeFolder(folder);
        if (invocation.command)
            invocation.command->run();
        else
            writeOutput(invocation.notice);
        return done;
    } catch (const UsageError& error) {
        writeError(error.what());
        return wrongUsage;
    } catch (const OutputClosed&) {
        endByBrokenPipe();
    } catch (const std::bad_alloc&) {
        return failure("out of memory");
    } catch (const std::exception& error) {
        return failure(error.what());
    } catch (...) {
        return failure("an unknown error");
    }
}

// The library's threads may be at work still, and all that was to be written has been: so nothing
// is destroyed beneath them, and nobody waits for them.
[[noreturn]] void end(int code) {
#ifdef __SANITIZE_ADDRESS__
    __lsan_do_leak_check();
#endif
    std::_Exit(code);
}

} // namespace
} // namespace quendo::host

int main(int count, char** arguments) {
    quendo::host::end(quendo::host::runProgram(count, arguments));
}
