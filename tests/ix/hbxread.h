// An independent reader of hybrid index files for the tests: it follows
// the file layout on its own (header, chunks, entries, the stored forms)
// and gives each value's rows, so that a build is checked against what the
// files say, not against the code that wrote them.
#pragma once
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <map>
#include <set>
#include <string>

#include "ix/bt.h"
#include "sda/daidx.h"
#include "testutil.h"

namespace hbxtest {

using namespace vrta;
using Rows = std::set<int64_t>;
using Model = std::map<std::string, Rows>;

template <class T>
T at(const std::string& f, int64_t off) {
    T v{};
    EXPECT_TRUE(off >= 0 && off + static_cast<int64_t>(sizeof v) <= static_cast<int64_t>(f.size())) << off;
    if (off >= 0 && off + static_cast<int64_t>(sizeof v) <= static_cast<int64_t>(f.size())) memcpy(&v, f.data() + off, sizeof v);
    return v;
}

struct Hbx {
    std::string f;
    int64_t segsize = 0;
    int32_t keylen = 0, maxlist = 0, bmsize = 0, state = 0, dstate = 0, unique = 0;
    int64_t nvalues = 0, nchunks = 0, nsegl = 0, nvdeletes = 0;
    // What the reader met: chunks, values with chunks, values marked deleted.
    int64_t seenchunks = 0, seensegl = 0, seendeleted = 0;
    explicit Hbx(const std::string& path) : f(vrtatest::readFile(path)) {
        EXPECT_GE(f.size(), 536u);
        EXPECT_EQ(1000, at<int32_t>(f, 0));
        EXPECT_EQ(5, at<int32_t>(f, 4));
        segsize = at<int64_t>(f, 8);
        keylen = at<int32_t>(f, 16);
        state = at<int32_t>(f, 20);
        maxlist = at<int32_t>(f, 28);
        unique = at<int32_t>(f, 48);
        EXPECT_EQ(1, at<int32_t>(f, 56));
        dstate = at<int32_t>(f, 60);
        nvalues = at<int64_t>(f, 72);
        nsegl = at<int64_t>(f, 32);
        nchunks = at<int64_t>(f, 40);
        nvdeletes = at<int64_t>(f, 288);
        bmsize = static_cast<int32_t>(((segsize + 7) / 8 + 3) / 4 * 4);
    }
    // The rows of one stored segment.
    void segrows(int32_t seg, int type, int64_t data, int64_t off, Rows* out) {
        int64_t base = static_cast<int64_t>(seg) * segsize + 1;
        std::string map;
        switch (type) {
        case 4:  // one bit
            EXPECT_TRUE(data >= base && data < base + segsize);
            out->insert(data);
            return;
        case 3:  // list
            EXPECT_EQ(0, data % 8);
            EXPECT_LE(data / 8, maxlist);
            EXPECT_GE(data / 8, 2);
            for (int64_t i = 0; i < data / 8; ++i) {
                int64_t r = at<int64_t>(f, off + 8 * i);
                EXPECT_TRUE(r >= base && r < base + segsize) << r;
                out->insert(r);
            }
            return;
        case 1:  // raw
            EXPECT_EQ(bmsize, data);
            map = f.substr(off, data);
            break;
        case 2: {  // pairs of count and byte
            EXPECT_EQ(0, data % 2);
            for (int64_t i = 0; i < data; i += 2) {
                int n = static_cast<unsigned char>(f[off + i]);
                EXPECT_GT(n, 0);
                map.append(n, f[off + i + 1]);
            }
            EXPECT_LE(static_cast<int64_t>(map.size()), bmsize);
            EXPECT_LT(data, bmsize);
            map.resize(bmsize, '\0');
            break;
        }
        default:
            ADD_FAILURE() << "form " << type;
            return;
        }
        int64_t n = 0;
        for (int64_t w = 0; w < bmsize / 4; ++w) {
            uint32_t x;
            memcpy(&x, map.data() + 4 * w, 4);
            for (int b = 0; b < 32; ++b)
                if (x & (0x80000000u >> b)) {
                    out->insert(base + 32 * w + b);
                    ++n;
                }
        }
        // A list holds up to maxlist rows; more make a map.
        EXPECT_GT(n, maxlist);
    }
    // The rows of a value from its B-tree record; none for a value marked
    // deleted (row 0 in a unique index's record, form 5 and nothing else in
    // the others).
    Rows rows(const void* btdata, size_t len) {
        Rows out;
        if (len == 8) {
            int64_t r = at<int64_t>(std::string(static_cast<const char*>(btdata), 8), 0);
            EXPECT_GE(r, 0);
            if (r == 0) ++seendeleted;
            else out.insert(r);
            return out;
        }
        std::string b(static_cast<const char*>(btdata), 24);
        int64_t loc = at<int64_t>(b, 0), obs = at<int64_t>(b, 8);
        int32_t segs = at<int32_t>(b, 16);
        uint32_t bits = at<uint32_t>(b, 20);
        int32_t high = bits & 0x7ffffff;
        int one = (bits >> 27) & 1, type = bits >> 29;
        if (type == 5) {
            EXPECT_EQ(std::string(20, '\0'), b.substr(0, 20));
            EXPECT_EQ(5u << 29, bits);
            ++seendeleted;
            return out;
        }
        if (one) {
            segrows(high, type, type == 4 ? obs : segs, loc, &out);
        } else {
            int64_t count = 0;
            int32_t below = high + 1;
            for (int64_t c = loc; c != 0;) {
                int32_t max = at<int32_t>(f, c + 8), n = at<int32_t>(f, c + 12);
                int32_t lo = at<int32_t>(f, c + 16), hi = at<int32_t>(f, c + 20);
                EXPECT_TRUE(n >= 1 && n <= max && hi < below && lo <= hi);
                if (!(n >= 1 && n <= max && hi < below)) break;
                int32_t prev = -1;
                for (int32_t i = 0; i < n; ++i) {
                    int64_t e = c + 24 + 24 * i;
                    uint32_t eb = at<uint32_t>(f, e);
                    int32_t s = eb & 0x7ffffff;
                    EXPECT_GT(s, prev);
                    EXPECT_TRUE(s >= lo && s <= hi);
                    prev = s;
                    segrows(s, eb >> 29, at<int64_t>(f, e + 8), at<int64_t>(f, e + 16), &out);
                }
                below = lo;
                count += n;
                ++seenchunks;
                c = at<int64_t>(f, c);
            }
            EXPECT_EQ(segs, count);
            EXPECT_GE(count, 2);
            ++seensegl;
        }
        if (one && type == 4) EXPECT_EQ(1u, out.size());
        else EXPECT_EQ(obs, static_cast<int64_t>(out.size())) << "row count";
        return out;
    }
};

// Every value of the index, from its B-tree (read through the tree's own
// code, tested elsewhere) and its .hbx file (read here).
inline Model readindex(DA_IDX* idx, const std::string& hbxpath, Hbx* seen = nullptr) {
    Model m;
    Hbx h(hbxpath);
    BTREEINFO info{};
    info.openmode = BT_OREAD;
    info.options_present = 1;
    DB* db = nullptr;
    EXPECT_EQ(0, __bt_open(idx, BT_OREAD, &info, nullptr, &db, 0));
    EXPECT_EQ(0, __bt_open(idx, BT_OREAD, &info, nullptr, &db, 1));
    DBT k, d;
    for (rctype rc = db->seq(db, &k, &d, R_FIRST); rc == 0; rc = db->seq(db, &k, &d, R_NEXT))
    {
        Rows r = h.rows(d.data, d.size);
        if (!r.empty()) m[std::string(static_cast<char*>(k.data), k.size)] = r;
    }
    db->close(db, -1, nullptr, 1);
    if (seen) *seen = h;
    return m;
}

}  // namespace hbxtest
