// Stands in front of git on the PATH of a benchmark: appends a byte to the file that
// QUENDO_GIT_COUNT names, and becomes the git that QUENDO_REAL_GIT names.

#include <cstdlib>
#include <fcntl.h>
#include <unistd.h>

int main(int, char** arguments) {
    const char* count = std::getenv("QUENDO_GIT_COUNT");
    const int file = count != nullptr ? ::open(count, O_WRONLY | O_APPEND | O_CREAT, 0600) : -1;
    if (file < 0 || ::write(file, "g", 1) != 1 || ::close(file) != 0)
        return 127;
    ::execv(std::getenv("QUENDO_REAL_GIT"), arguments);
    return 127;
}
