// Preloaded into vrta by the end-to-end tests: the path VRTA_TEST_FULL (a
// prefix) fills up once VRTA_TEST_FULL_AFTER new bytes went there. The module
// writes its files with pwrite, so that is the one call taken over.
#include <dlfcn.h>

#include <cstdlib>

#include "fullbudget.h"

namespace {

using Pwrite = ssize_t (*)(int, const void*, size_t, off_t);
std::atomic<long> spent{0};

ssize_t realpwrite(int fd, const void* b, size_t n, off_t o) {
    static Pwrite next = reinterpret_cast<Pwrite>(dlsym(RTLD_NEXT, "pwrite"));
    if (!next) {
        errno = ENOSYS;
        return -1;
    }
    return next(fd, b, n, o);
}

}  // namespace

extern "C" __attribute__((visibility("default"))) ssize_t pwrite(int fd, const void* b, size_t n, off_t o) {
    const char* after = std::getenv("VRTA_TEST_FULL_AFTER");
    return vrtatest::budgetWrite(realpwrite, std::getenv("VRTA_TEST_FULL"), after ? std::atol(after) : 0, spent, fd, b,
                                 n, o);
}

extern "C" __attribute__((visibility("default"))) ssize_t pwrite64(int fd, const void* b, size_t n, off_t o) {
    return pwrite(fd, b, n, o);
}
