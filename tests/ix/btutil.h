// Helpers of the B-tree suites: a tree on a plain file, opened and closed in
// one call, and keys and rows in the forms the tree takes them.
#pragma once
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "ix/bt.h"
#include "sda/daidx.h"

namespace bttest {

using namespace vrta;

struct Tree {
    DA_IDX* ip = nullptr;
    DB* db = nullptr;
    rctype rc = 0;  // of the open: 0, or the index code

    Tree() = default;
    Tree(const Tree&) = delete;
    Tree& operator=(const Tree&) = delete;
    ~Tree() { close(); }

    // mode BT_OCREATE, BT_OAPPEND or BT_OREAD; a create takes the key,
    // data, page size and segment size of info.
    bool open(const std::string& path, int mode, BTREEINFO info = {}) {
        close();
        rc = daopidxf(path.c_str(), mode == BT_OREAD ? 0 : (mode == BT_OCREATE ? 5 : 1), &ip);
        if (rc < 0) return false;
        info.openmode = mode;
        info.options_present = 1;
        IX_HEADER_D h{IX_VERSION, (info.flags & B_GLOBAL) ? IX_GLOBAL_BTREE : IX_CONTINUOUS, info.segsize,
                      static_cast<int32_t>(info.keylen), IX_CLEAN};
        int r = __bt_open(ip, mode, &info, &h, &db, 0);
        if (r == 0) r = __bt_open(ip, mode, &info, &h, &db, 1);
        if (r != 0) {
            rc = bt_openrc(r);
            if (db) {
                db->close(db, -1, nullptr, 1);
                db = nullptr;
            }
            EXPECT_GE(ip->mt->closeidx(ip, 0), 0);
            ip = nullptr;
            return false;
        }
        return true;
    }
    rctype close(int64_t rollback = -1) {
        rctype r = 0;
        if (db) r = db->close(db, rollback, nullptr, 1);
        db = nullptr;
        if (ip) {
            rctype c = ip->mt->closeidx(ip, 0);
            if (r == 0) r = c;
        }
        ip = nullptr;
        return r;
    }
    BTREE* t() const { return db->internal; }
};

inline BTREEINFO globalinfo(uint32_t psize, uint32_t keylen = 8, uint32_t datalen = 8) {
    BTREEINFO i{};
    i.flags = B_GLOBAL;
    i.noequals = 1;
    i.psize = psize;
    i.keylen = keylen;
    i.datalen = datalen;
    i.segsize = BT_GLOBALSEGSIZE;
    return i;
}

inline BTREEINFO seginfo(uint32_t psize, int64_t segsize, uint32_t keylen = 6) {
    BTREEINFO i{};
    i.psize = psize;
    i.keylen = keylen;
    i.datalen = 8;
    i.segsize = segsize;
    return i;
}

// An 8-byte key whose bytes order as the number does.
inline std::string key8(uint64_t v) {
    uint64_t b = __builtin_bswap64(v);
    return std::string(reinterpret_cast<const char*>(&b), 8);
}

inline DBT dbt(const std::string& s) { return DBT{const_cast<char*>(s.data()), s.size()}; }
inline std::string str(const DBT& d) { return std::string(static_cast<const char*>(d.data), d.size); }
inline std::string rowdata(int64_t row) {
    std::string s(8, '\0');
    bt_putrow(s.data(), row);
    return s;
}

}  // namespace bttest
