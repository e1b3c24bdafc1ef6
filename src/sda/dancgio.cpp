// Encoded rows: each record is scrambled with dancode under a key that
// changes with the row number, then spread 6 bits to a byte so the disk form
// is printable; odsreclen = (obslen + 5) / 3 x 4. The cursor is the plain
// one with the encoder in its path.
#include <cstring>
#include <vector>

#include "sda/daiocb.h"
#include "sda/darc.h"
#include "sda/daxc.h"

namespace vrta {

namespace {

uint32_t rowkey(hs_obsno_t obsno) { return 0x9E3779B9u ^ static_cast<uint32_t>(obsno * 0x85EBCA6Bu); }

// Room for the scrambled row: whole 3-byte groups covering obslen + 3.
long groups(int32_t obslen) { return (obslen + 5) / 3; }

}  // namespace

void daeniob(const DA_FCB* fcb, hs_obsno_t obsno, const char* rows, char* disk, long n) {
    const int32_t ol = fcb->xoe.obslen;
    const long g = groups(ol);
    std::vector<unsigned char> t(g * 3 + 4);
    for (long r = 0; r < n; ++r) {
        std::fill(t.begin(), t.end(), 0);
        memcpy(t.data(), rows + r * ol, ol);
        dancode(rowkey(obsno + r), t.data(), static_cast<long>(t.size()) & ~3L);
        char* d = disk + r * g * 4;
        for (long i = 0; i < g; ++i) {
            uint32_t v = (t[3 * i] << 16) | (t[3 * i + 1] << 8) | t[3 * i + 2];
            for (int k = 0; k < 4; ++k) d[4 * i + k] = static_cast<char>(0x30 + ((v >> (18 - 6 * k)) & 63));
        }
    }
}

void dadeiob(const DA_FCB* fcb, hs_obsno_t obsno, const char* disk, char* rows, long n) {
    const int32_t ol = fcb->xoe.obslen;
    const long g = groups(ol);
    std::vector<unsigned char> t(g * 3 + 4);
    for (long r = 0; r < n; ++r) {
        std::fill(t.begin(), t.end(), 0);
        const char* d = disk + r * g * 4;
        for (long i = 0; i < g; ++i) {
            uint32_t v = 0;
            for (int k = 0; k < 4; ++k) v = (v << 6) | ((static_cast<unsigned char>(d[4 * i + k]) - 0x30) & 63);
            t[3 * i] = static_cast<unsigned char>(v >> 16);
            t[3 * i + 1] = static_cast<unsigned char>(v >> 8);
            t[3 * i + 2] = static_cast<unsigned char>(v);
        }
        // The scramble is its own inverse.
        dancode(rowkey(obsno + r), t.data(), static_cast<long>(t.size()) & ~3L);
        memcpy(rows + r * ol, t.data(), ol);
    }
}

[[nodiscard]] rctype dancgio(DA_FID* fp, int iom, DA_IOCB** iocb) {
    const DA_FCB* fcb = fcbof(fp);
    if (fcb->xoe.odsreclen != groups(fcb->xoe.obslen) * 4) return DA_INTERNAL;
    return dasgioc(fp, iom, true, iocb);
}

}  // namespace vrta
