// The rule of a path that fills up, for the tests that fake one: a write to
// a file under the prefix past the file's present size takes new room, and
// once the budget of new bytes is spent it fails with ENOSPC (the write that
// crosses the budget goes in part). Rewrites need no room.
#pragma once
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>

namespace vrtatest {

inline bool fdUnder(int fd, const char* prefix) {
    char link[64], target[PATH_MAX];
    snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
    ssize_t n = readlink(link, target, sizeof target - 1);
    if (n <= 0 || !prefix || !*prefix) return false;
    target[n] = 0;
    return strncmp(target, prefix, strlen(prefix)) == 0;
}

template <class Write>
ssize_t budgetWrite(Write real, const char* prefix, long budget, std::atomic<long>& spent, int fd, const void* b,
                    size_t n, off_t o) {
    struct stat st;
    if (!fdUnder(fd, prefix) || (fstat(fd, &st) == 0 && o + static_cast<off_t>(n) <= st.st_size))
        return real(fd, b, n, o);
    long left = budget - spent.load();
    if (left <= 0) {
        errno = ENOSPC;
        return -1;
    }
    if (static_cast<long>(n) > left) n = static_cast<size_t>(left);
    ssize_t r = real(fd, b, n, o);
    if (r > 0) spent.fetch_add(r);
    return r;
}

}  // namespace vrtatest
