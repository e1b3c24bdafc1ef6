// Sequential write and read of one logical file spread over partitions on
// several paths, through DA_FD. Prints the bytes and seconds of the run so
// that bench_fileio.sh can set it against dd and cat on the same sizes.
//
//   bench_fileio write|read|delete SIZE NPART BUFSIZE DIR...
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>
#include "sda/dafd.h"
#include "sda/darc.h"

using namespace vrta;

int main(int argc, char** argv) {
    if (argc < 6) {
        fprintf(stderr, "usage: %s write|read|delete SIZE NPART BUFSIZE DIR...\n", argv[0]);
        return 2;
    }
    std::string mode = argv[1];
    long long size = atoll(argv[2]);
    int npart = atoi(argv[3]);
    long bufsize = atol(argv[4]);
    std::vector<const char*> paths(argv + 5, argv + argc);
    if (size <= 0 || npart <= 0 || bufsize <= 0) return 2;
    if (daioini() < 0) return 1;
    daiogcb.minpartsize = 1;

    DA_FDSTR s{};
    s.name = "bench.dat";
    s.namelen = 9;
    s.numpath = static_cast<int>(paths.size());
    s.paths = paths.data();
    s.perms = -1;
    s.minfree = -1;
    s.fiboff = -1;
    // Room for the FIB in the first partition, so that there are npart of them.
    s.maxpar = (size + (1 << 20) + npart - 1) / npart;
    s.flags = mode == "write" ? (DA_FDCREATE | DA_FDPARTSIZE) : (mode == "read" ? DA_FDRDONLY : DA_FDWRITE);
    DA_FD* fd = nullptr;
    rctype rc = dafdopn(&s, &fd);
    if (rc < 0) {
        fprintf(stderr, "open failed: %#x\n", static_cast<unsigned>(rc));
        return 1;
    }
    if (mode == "delete") {
        rc = fd->fddelete(fd, -1);
        int crc = fd->fdclose(fd);
        return rc < 0 || crc < 0 ? 1 : 0;
    }
    // Page-aligned buffer so that nothing but the layer itself differs from dd.
    char* buf = static_cast<char*>(aligned_alloc(4096, (bufsize + 4095) / 4096 * 4096));
    for (long i = 0; i < bufsize; ++i) buf[i] = static_cast<char>(i * 31);
    auto t0 = std::chrono::steady_clock::now();
    long long done = 0;
    if (mode == "write") {
        while (done < size) {
            long n = static_cast<long>(std::min<long long>(bufsize, size - done));
            da_off_t off = -1;
            rc = fd->fdwrite(fd, buf, n, &off);
            if (rc < 0) {
                fprintf(stderr, "write failed at %lld: %#x\n", done, static_cast<unsigned>(rc));
                return 1;
            }
            done += n;
        }
    } else {
        da_off_t off = fd->baseoff;
        for (;;) {
            long got = 0;
            rc = fd->fdread(fd, buf, bufsize, off, &got);
            if (rc == DA_EOF || got == 0) break;
            if (rc < 0) {
                fprintf(stderr, "read failed at %lld: %#x\n", static_cast<long long>(off), static_cast<unsigned>(rc));
                return 1;
            }
            off += got;
            done += got;
        }
    }
    double secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    int parts = 0;
    DA_FDPSTAT ps;
    while (fd->fdpstat(fd, parts, &ps) == 0) ++parts;
    rc = fd->fdclose(fd);
    free(buf);
    if (rc < 0) {
        fprintf(stderr, "close failed: %#x\n", static_cast<unsigned>(rc));
        return 1;
    }
    printf("%s bytes=%lld seconds=%.4f partitions=%d\n", mode.c_str(), done, secs, parts);
    return 0;
}
