// High memory and executable memory: the sources that pools with XM_HIMEM
// and XM_CODEGEN draw their puddles from, outside the account of xmgpage.
#include "hs/hsmem.h"
#include <cerrno>
#include <cstdlib>
#include <sys/mman.h>
#include <unistd.h>
#include "hs/hs.h"
#include "option/op.h"
#include "ssup/thr.h"

namespace vrta {

struct HSMEMGCB {
    int inited;
    int himemenable;  // -1 until the option has been read
    long pagesize;    // the page size less one: a mask
    mutex_t mlock;
};

namespace {

HSMEMGCB hsmem = {0, -1, 0, {}};

size_t pageround(size_t n) { return (n + hsmem.pagesize) & ~static_cast<size_t>(hsmem.pagesize); }

int readenable() {
    void* table = opgtgbl();
    if (!table) return 1;
    int value = 0;
    int len = sizeof(value);
    if (opgetop(table, "HIMEMENABLE", &value, &len) < 0) return 1;
    return value < 0 ? 0 : value;
}

}  // namespace

HSMEMGCB* hsmeminit() {
    if (hsmem.inited) return &hsmem;
    hsmem.himemenable = -1;
    hsmem.pagesize = sysconf(_SC_PAGESIZE) - 1;
    if (int rc = mutex_init(&hsmem.mlock)) {
        hsprint("mutex_init failed: %d file=%s line=%d: \n", rc, "hs/src/hsmem", __LINE__);
        abort();
    }
    hsmem.inited = 1;
    return &hsmem;
}

void hsmemterm(void* vgcb) {
    if (vgcb != &hsmem) {
        hsprint("Aborting from invalid hsmemterm request\n");
        abort();
    }
    if (!hsmem.inited) return;
    mutex_destroy(&hsmem.mlock);
    hsmem.inited = 0;
    hsmem.himemenable = -1;
}

int hshimemenabled() {
    hsmeminit();
    if (__atomic_load_n(&hsmem.himemenable, __ATOMIC_ACQUIRE) < 0) {
        MutexGuard hold(&hsmem.mlock);
        if (hsmem.himemenable < 0) __atomic_store_n(&hsmem.himemenable, readenable(), __ATOMIC_RELEASE);
    }
    return hsmem.himemenable;
}

void* hshimalloc(size_t msize) {
    int mode = hshimemenabled();
    if (mode == 0) return malloc(msize);
    size_t size = pageround(msize);
    void* m = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (m == MAP_FAILED) {
        if (mode == 2) hsprint("hshimalloc: allocation failed: msize=%ld error=%d\n", static_cast<long>(msize), errno);
        return nullptr;
    }
    if (mode == 2) hsprint("hshimalloc: maddr=0x%lx msize=%ld\n", reinterpret_cast<unsigned long>(m), static_cast<long>(msize));
    return m;
}

void hshifree(void* maddr, size_t msize) {
    int mode = hshimemenabled();
    if (mode == 0) {
        free(maddr);
        return;
    }
    if (munmap(maddr, pageround(msize)) != 0) {
        hsprint("hshifree: munmap error: maddr=0x%lx msize=%ld error=%d\n", reinterpret_cast<unsigned long>(maddr),
                static_cast<long>(msize), errno);
        abort();
    }
    if (mode == 2) hsprint("hshifree: maddr=0x%lx msize=%ld\n", reinterpret_cast<unsigned long>(maddr), static_cast<long>(msize));
}

// Never writable and executable at once: the code generator writes its code
// here and then makes those pages read+execute.
void* hscgmalloc(size_t size, int* zeroed) {
    hsmeminit();
    void* m = mmap(nullptr, pageround(size), PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (m == MAP_FAILED) {
        hsprint("hscgmalloc: mmap failed: size=%ld errno=%d\n", static_cast<long>(size), errno);
        return nullptr;
    }
    if (zeroed) *zeroed = 1;
    return m;
}

void hscgfree(void* addr, size_t size) {
    hsmeminit();
    if (munmap(addr, pageround(size)) != 0) {
        hsprint("hscgfree: munmap error: addr=0x%lx size=%ld error=%d\n", reinterpret_cast<unsigned long>(addr),
                static_cast<long>(size), errno);
        abort();
    }
}

}  // namespace vrta
