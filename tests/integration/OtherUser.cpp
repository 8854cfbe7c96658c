#include <unistd.h>

// Loaded before the C library's own into a program that is to take itself for another user's.
extern "C" uid_t geteuid() noexcept {
    return 4242;
}
