// Both files of a hybrid index in a temporary directory, and rows fed to
// its writer, for the suites that drive the writer directly.
#pragma once
#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "hbxread.h"
#include "ix/ixhy.h"
#include "testutil.h"

namespace hbxtest {

constexpr int32_t KEYLEN = 6;

struct Files {
    vrtatest::TempDir tmp;
    std::string idxpath = tmp.file("t.idx"), hbxpath = tmp.file("t.hbx");
    DA_IDX* idx = nullptr;
    DA_IDX* hbx = nullptr;
    SKB_KEY skb{};
    Files() { EXPECT_EQ(0, skbmeminit(&skb, KEYLEN, KEYLEN)); }
    void open(bool create) {
        EXPECT_EQ(0, daopidxf(idxpath.c_str(), create ? 5 : 1, &idx));
        EXPECT_EQ(0, daopidxf(hbxpath.c_str(), create ? 5 : 1, &hbx));
    }
    void close() {
        if (idx) {
            EXPECT_GE(idx->mt->closeidx(idx, 0), 0);
        }
        if (hbx) {
            EXPECT_GE(hbx->mt->closeidx(hbx, 0), 0);
        }
        idx = hbx = nullptr;
    }
    ~Files() { close(); }
    Model read(Hbx* seen = nullptr) {
        DA_IDX* i = nullptr;
        EXPECT_EQ(0, daopidxf(idxpath.c_str(), 0, &i));
        Model m = readindex(i, hbxpath, seen);
        EXPECT_GE(i->mt->closeidx(i, 0), 0);
        return m;
    }
};

inline std::string keyof(int v) {
    char b[16];
    snprintf(b, sizeof b, "v%05d", v);
    return std::string(b, KEYLEN);
}

inline std::string record(const std::string& key, int64_t row) {
    std::string r = key;
    uint64_t be = __builtin_bswap64(static_cast<uint64_t>(row));
    r.append(reinterpret_cast<const char*>(&be), 8);
    return r;
}

// Rows first..last of keys, in key then row order, into a sorted build.
inline rctype addsorted(IXH_HEADER_B* h, const std::vector<std::string>& keys, int64_t first, int64_t last) {
    std::vector<std::string> recs;
    for (int64_t r = first; r <= last; ++r)
        if (!keys[r - 1].empty()) recs.push_back(record(keys[r - 1], r));
    std::sort(recs.begin(), recs.end());
    for (auto& r : recs) {
        rctype rc = ixhysrtadd(h, r.data(), 0, 0);
        if (rc < 0) return rc;
    }
    return 0;
}

inline rctype addunsorted(IXH_HEADER_B* h, const std::vector<std::string>& keys, int64_t first, int64_t last) {
    for (int64_t r = first; r <= last; ++r) {
        if (keys[r - 1].empty()) continue;
        rctype rc = ixhyadd(h, keys[r - 1].data(), r, 0);
        if (rc < 0) return rc;
    }
    return 0;
}

inline Model modelof(const std::vector<std::string>& keys, int64_t last) {
    Model m;
    for (int64_t r = 1; r <= last; ++r)
        if (!keys[r - 1].empty()) m[keys[r - 1]].insert(r);
    return m;
}

}  // namespace hbxtest
