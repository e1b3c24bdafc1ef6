// A process that dies at the k-th change it makes to a file: every write,
// rename, truncation and removal of the file layer is counted through its
// system call table, and the k-th is never made.
#pragma once
#include <signal.h>
#include <sys/types.h>

#include "sda/dafd.h"

namespace killtest {

inline vrta::DA_UIODT killiot;
inline const vrta::DA_UIODT* realiot = nullptr;
inline long syskill = 0, syscount = 0;

inline void tick() {
    if (++syscount == syskill) raise(SIGKILL);
}
inline ssize_t kpwrite(int fd, const void* b, size_t n, off_t o) {
    tick();
    return realiot->pwrite(fd, b, n, o);
}
inline int krename(const char* a, const char* b) {
    tick();
    return realiot->rename(a, b);
}
inline int kftruncate(int fd, off_t l) {
    tick();
    return realiot->ftruncate(fd, l);
}
inline int kunlink(const char* p) {
    tick();
    return realiot->unlink(p);
}

inline void armkiller(long k) {
    realiot = vrta::_UIODT;
    killiot = *realiot;
    killiot.pwrite = kpwrite;
    killiot.rename = krename;
    killiot.ftruncate = kftruncate;
    killiot.unlink = kunlink;
    syskill = k;
    vrta::_UIODT = &killiot;
}

}  // namespace killtest
