#include "host/CommandLine.h"
#include "host/Interrupts.h"
#include "host/LogSink.h"
#include "host/StandardStreams.h"

#include <exception>
#include <new>

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
        if (invocation.command)
            invocation.command->run();
        else
            writeOutput(invocation.notice);
        return done;
    } catch (const UsageError& error) {
        writeError(error.what());
        return wrongUsage;
    } catch (const std::bad_alloc&) {
        return failure("out of memory");
    } catch (const std::exception& error) {
        return failure(error.what());
    } catch (...) {
        return failure("an unknown error");
    }
}

} // namespace
} // namespace quendo::host

int main(int count, char** arguments) {
    return quendo::host::runProgram(count, arguments);
}
