// Helpers of the table life-cycle suites: a library in a temporary
// directory, a two-column table, rows whose content says their number.
#pragma once
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "sda/da.h"
#include "sda/dafid.h"
#include "sda/darc.h"

namespace lifetest {

using namespace vrta;

constexpr int ROWLEN = 20;  // 8-byte number, 12 characters

inline DA_LIB* assign(const std::string& path) {
    EXPECT_GE(dainit(), 0);
    DA_LIBSTR ls{};
    memcpy(ls.name, "LIFELIB ", 8);
    ls.libpath = path.c_str();
    ls.libpath_l = static_cast<int>(path.size());
    ls.create = 1;
    DA_LIB* lp = nullptr;
    rctype rc = dagtlib(&ls, &lp);
    EXPECT_GE(rc, 0);
    return lp;
}

inline DA_OPNSTR request(const char* name, int mode) {
    DA_OPNSTR o{};
    o.name = name;
    o.name_l = static_cast<int>(strlen(name));
    o.mode = mode;
    o.encoding_cei = 20;
    memcpy(o.locale, "en_US", 5);
    memcpy(o.who_created, "tester  ", 8);
    return o;
}

inline std::vector<DA_NAMESTR> columns() {
    std::vector<DA_NAMESTR> v(2);
    memset(v.data(), 0, sizeof(DA_NAMESTR) * 2);
    static char n0[] = "ID", n1[] = "NAME", l1[] = "Name of the row";
    v[0].name = n0;
    v[0].name_l = 2;
    v[0].type = 1;
    v[0].nlng = 8;
    v[0].npos = 0;
    v[1].name = n1;
    v[1].name_l = 4;
    v[1].label = l1;
    v[1].label_l = static_cast<int16_t>(strlen(l1));
    v[1].type = 2;
    v[1].nlng = 12;
    v[1].npos = 8;
    return v;
}

inline void makerow(int64_t n, char* out) {
    double d = static_cast<double>(n);
    memcpy(out, &d, 8);
    char t[32];
    snprintf(t, sizeof t, "row%09lld", static_cast<long long>(n));
    memcpy(out + 8, t, 12);
}

inline std::vector<char> rows(int64_t first, long n) {
    std::vector<char> b(static_cast<size_t>(n) * ROWLEN);
    for (long i = 0; i < n; ++i) makerow(first + i, b.data() + i * ROWLEN);
    return b;
}

// Creates a table with the two columns; the handle stays open for output.
inline DA_FID* create(DA_LIB* lp, const char* name, int64_t segsize = 0, int64_t partsize = 0) {
    DA_OPNSTR o = request(name, DA_OMOUTPUT);
    o.idxsegsize = segsize;
    o.partsize = partsize;
    DA_FID* fp = nullptr;
    rctype rc = daopen(lp, &o, &fp);
    EXPECT_EQ(0, rc);
    if (rc < 0) return nullptr;
    auto cols = columns();
    EXPECT_EQ(0, fp->mt->defvars(fp, 2, cols.data()));
    return fp;
}

// Rows 1..numobs all hold their own number.
inline bool rowsintact(DA_FID* fp) {
    hs_obsno_t n = fp->xoehdr->numobs;
    std::vector<char> buf(static_cast<size_t>(n > 0 ? n : 1) * ROWLEN);
    long got = 0;
    if (n == 0) return true;
    if (dardobs(fp, 1, buf.data(), static_cast<long>(n), &got) != 0 || got != n) return false;
    char want[ROWLEN];
    for (hs_obsno_t i = 0; i < n; ++i) {
        makerow(i + 1, want);
        if (memcmp(want, buf.data() + i * ROWLEN, ROWLEN) != 0) return false;
    }
    return true;
}

}  // namespace lifetest
