// Sequential read of a table of 100-byte rows through a read cursor. Prints
// rows, bytes and seconds, so that bench_rowread.sh can set the read against
// cat of the same table's data file in the same run.
//
//   bench_rowread make DIR NAME NROWS [EXIT]
//   bench_rowread read DIR NAME [BUFROWS]
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "benchsda.h"
#include "sda/da.h"
#include "sda/daiocb.h"
#include "sda/darc.h"

using namespace vrta;

namespace {

constexpr int ROWLEN = 100;

// A number and a text that repeats itself in part, as real tables do.
void fillrow(long long n, char* out) {
    double d = static_cast<double>(n);
    memcpy(out, &d, 8);
    memset(out + 8, ' ', ROWLEN - 8);
    int l = snprintf(out + 8, ROWLEN - 8, "customer %lld region %lld", n % 100000, n % 17);
    out[8 + l] = ' ';
}

double secs(std::chrono::steady_clock::time_point t0) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 4) {
        fprintf(stderr, "usage: %s make DIR NAME NROWS [EXIT] | read DIR NAME [BUFROWS]\n", argv[0]);
        return 2;
    }
    std::string mode = argv[1];
    DA_LIB* lp = benchsda::assign(argv[2]);
    if (!lp) {
        fprintf(stderr, "cannot assign %s\n", argv[2]);
        return 1;
    }
    const char* name = argv[3];
    if (mode == "make") {
        long long nrows = argc > 4 ? atoll(argv[4]) : 0;
        DA_OPNSTR o = benchsda::request(name, DA_OMOUTPUT);
        o.blockgrow = 0;
        if (argc > 5) {
            o.flags = DA_OFCOMPRESS;
            char ex[9];
            snprintf(ex, sizeof ex, "%-8s", argv[5]);
            memcpy(o.diskcomp, ex, 8);
        }
        DA_FID* fp = nullptr;
        rctype rc = daopen(lp, &o, &fp);
        if (rc < 0) {
            fprintf(stderr, "create failed: %#x\n", static_cast<unsigned>(rc));
            return 1;
        }
        DA_NAMESTR v[2];
        memset(v, 0, sizeof v);
        static char n0[] = "ID", n1[] = "TEXT";
        v[0].name = n0;
        v[0].name_l = 2;
        v[0].type = 1;
        v[0].nlng = 8;
        v[1].name = n1;
        v[1].name_l = 4;
        v[1].type = 2;
        v[1].nlng = ROWLEN - 8;
        v[1].npos = 8;
        if ((rc = fp->mt->defvars(fp, 2, v)) < 0) {
            fprintf(stderr, "defvars failed: %#x\n", static_cast<unsigned>(rc));
            return 1;
        }
        DA_IOCB* c = nullptr;
        if ((rc = getiocb(fp, DA_IOMBYROW, &c)) < 0) return 1;
        const long bufrows = 10000;
        std::vector<char> buf(bufrows * ROWLEN);
        DA_IOB iob{buf.data(), nullptr, 0, -1};
        if ((rc = c->mt->setbuf(c, &iob, bufrows * ROWLEN)) < 0) return 1;
        for (long long at = 1; at <= nrows; at += bufrows) {
            long n = static_cast<long>(std::min<long long>(bufrows, nrows - at + 1));
            for (long i = 0; i < n; ++i) fillrow(at + i, buf.data() + i * ROWLEN);
            iob.numobs = n;
            if ((rc = c->mt->dawritev(c, 1)) < 0) {
                fprintf(stderr, "write failed: %#x\n", static_cast<unsigned>(rc));
                return 1;
            }
        }
        rc = c->mt->freeiocb(c);
        if (int crc = fp->mt->closefid(fp); rc >= 0) rc = crc;
        if (int lrc = dafrlib(lp); rc >= 0) rc = lrc;
        return rc < 0 ? 1 : 0;
    }
    if (mode != "read") return 2;
    long bufrows = argc > 4 ? atol(argv[4]) : 10000;
    DA_OPNSTR o = benchsda::request(name, DA_OMINPUT);
    DA_FID* fp = nullptr;
    rctype rc = daopen(lp, &o, &fp);
    if (rc < 0) {
        fprintf(stderr, "open failed: %#x\n", static_cast<unsigned>(rc));
        return 1;
    }
    DA_IOCB* c = nullptr;
    if ((rc = getiocb(fp, DA_IOMBYROW | DA_IOMSEQ, &c)) < 0) return 1;
    std::vector<char> buf(static_cast<size_t>(bufrows) * ROWLEN);
    DA_IOB iob{buf.data(), nullptr, 0, -1};
    if ((rc = c->mt->setbuf(c, &iob, bufrows * ROWLEN)) < 0) return 1;
    auto t0 = std::chrono::steady_clock::now();
    long long rows = 0;
    double sum = 0;
    while ((rc = c->mt->dareadv(c, 1)) == 0) {
        rows += iob.numobs;
        // Touch each row, as a caller would.
        for (long i = 0; i < iob.numobs; ++i) {
            double d;
            memcpy(&d, buf.data() + i * ROWLEN, 8);
            sum += d;
        }
    }
    double t = secs(t0);
    if (rc != DA_EOF) {
        fprintf(stderr, "read failed: %#x\n", static_cast<unsigned>(rc));
        return 1;
    }
    double want = static_cast<double>(rows) * (rows + 1) / 2;
    printf("rows=%lld bytes=%lld seconds=%.6f check=%s\n", rows, rows * ROWLEN, t, sum == want ? "ok" : "BAD");
    rc = c->mt->freeiocb(c);
    if (int crc = fp->mt->closefid(fp); rc >= 0) rc = crc;
    if (int lrc = dafrlib(lp); rc >= 0) rc = lrc;
    return sum == want && rc >= 0 ? 0 : 1;
}
