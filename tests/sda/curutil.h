// Helpers of the cursor suites: tables of each storage form, cursors with
// their own buffers, rows whose bytes say their number and a variant.
#pragma once
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "lifeutil.h"
#include "sda/daiocb.h"

namespace curtest {

using namespace vrta;
using lifetest::ROWLEN;

// Storage forms a suite runs over.
struct Kind {
    const char* exit;   // null: rows
    bool crypt;
    int semtype = 0;            // encoded rows when DA_SEMZCRYPT
    int32_t transfersize = 0;   // transfer format when > 0
};

inline DA_OPNSTR kindreq(const char* name, int mode, const Kind& k) {
    DA_OPNSTR o = lifetest::request(name, mode);
    o.semtype = k.semtype;
    o.transfersize = k.transfersize;
    if (k.exit) {
        o.flags = k.crypt ? DA_OFENCRYPT : DA_OFCOMPRESS;
        memcpy(o.diskcomp, k.exit, 8);
        if (k.crypt) {
            memcpy(o.encrypt_key, "opensesame", 10);
            o.keylen = 10;
            if (mode != DA_OMOUTPUT) o.flags = DA_OFKEYGIVEN;
        }
    }
    return o;
}

inline DA_FID* make(DA_LIB* lp, const char* name, const Kind& k, int blocksize = 0, int64_t partsize = 0,
                    int blockgrow = 0, int reuse = 0) {
    DA_OPNSTR o = kindreq(name, DA_OMOUTPUT, k);
    o.blocksize = blocksize;
    o.partsize = partsize;
    o.blockgrow = blockgrow;
    o.reuse = reuse;
    DA_FID* fp = nullptr;
    rctype rc = daopen(lp, &o, &fp);
    EXPECT_EQ(0, rc);
    if (rc < 0) return nullptr;
    auto cols = lifetest::columns();
    EXPECT_EQ(0, fp->mt->defvars(fp, 2, cols.data()));
    return fp;
}

inline DA_FID* reopen(DA_LIB* lp, const char* name, int mode, const Kind& k) {
    DA_OPNSTR o = kindreq(name, mode, k);
    o.blockgrow = -1;
    DA_FID* fp = nullptr;
    rctype rc = daopen(lp, &o, &fp);
    EXPECT_EQ(0, rc) << name << " mode " << mode;
    return rc < 0 ? nullptr : fp;
}

// Row n, variant v: v 0 compresses well, other variants are noise after the
// number, and from 100 on the number too (nothing to compress at all).
inline void makerow(int64_t n, uint32_t v, char* out) {
    double d = static_cast<double>(n);
    memcpy(out, &d, 8);
    if (v >= 100) {
        uint64_t x = static_cast<uint64_t>(n) * 0xD6E8FEB86659FD93ull + v;
        for (int i = 0; i < ROWLEN; ++i) {
            x ^= x >> 31;
            x *= 0x9E3779B97F4A7C15ull;
            out[i] = static_cast<char>(x >> 56);
        }
        return;
    }
    if (v == 0) {
        memset(out + 8, 'a' + static_cast<int>(n % 3), 12);
        return;
    }
    uint64_t x = static_cast<uint64_t>(n) * 0x9E3779B97F4A7C15ull ^ (static_cast<uint64_t>(v) << 32) ^ v;
    for (int i = 8; i < ROWLEN; ++i) {
        x ^= x >> 29;
        x *= 0xBF58476D1CE4E5B9ull;
        x ^= x >> 32;
        out[i] = static_cast<char>(x);
    }
}

// A cursor with numbuf buffers of rows rows each (obsvec included).
struct Cur {
    DA_IOCB* c = nullptr;
    DA_IOB* iob = nullptr;
    long bufsize = 0;
    long rows = 0;
    Cur(DA_FID* fp, int iom, long nrows, int numbuf = 1) : rows(nrows) {
        rctype rc = getiocb(fp, iom, &c);
        EXPECT_EQ(0, rc);
        if (rc < 0) return;
        EXPECT_EQ(0, damdiob(ROWLEN, static_cast<int>(nrows), 1, numbuf, &iob, &bufsize));
        EXPECT_EQ(0, c->mt->setbuf(c, iob, bufsize));
    }
    ~Cur() {
        if (c) {
            EXPECT_GE(c->mt->freeiocb(c), 0);
        }
        dafriob(iob);
    }
    char* row(int b, long i) { return static_cast<char*>(iob[b].bufptr) + i * ROWLEN; }
    rctype read(int numbuf = 1) { return c->mt->dareadv(c, numbuf); }
    // Writes n rows of variant v from row first (numbering what is written).
    rctype write(int64_t first, long n, uint32_t v, hs_obsno_t locator = -1) {
        for (long i = 0; i < n; ++i) makerow(first + i, v, row(0, i));
        iob[0].numobs = n;
        iob[0].locator = locator;
        rctype rc = c->mt->dawritev(c, 1);
        iob[0].locator = -1;
        return rc;
    }
};

}  // namespace curtest
