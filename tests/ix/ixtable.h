// A table with an index on its first column, built as a B-tree with one
// tree per segment of rows, for the suites that need a real index file.
#pragma once
#include <string>
#include <vector>

#include "../sda/lifeutil.h"
#include "ix/bt.h"
#include "sda/daidx.h"

namespace ixtest {

using namespace vrta;
using namespace lifetest;

constexpr int64_t SEGSIZE = 64;

inline std::string keyof(const char* row) { return std::string(row, 8); }

// Builds the index "ix" on the first column: one tree per segment of rows.
inline rctype buildindex(DA_FID* fp) {
    DA_IDX* ip = nullptr;
    rctype rc = fp->mt->openidx(fp, "ix", DA_IDXFIDX | DA_IDXOWRITE, &ip);
    if (rc < 0) return rc;
    rc = dasetstate(ip, DA_IDXDIRTY);
    BTREEINFO info{};
    info.psize = 512;
    info.keylen = 8;
    info.datalen = 8;
    info.segsize = fp->segsize;
    info.openmode = BT_OCREATE;
    info.options_present = 1;
    IX_HEADER_D h{IX_VERSION, IX_CONTINUOUS, fp->segsize, 8, IX_DIRTY};
    DB* db = nullptr;
    if (rc == 0) rc = bt_openrc(__bt_open(ip, BT_OCREATE, &info, &h, &db, 0));
    if (rc == 0) rc = bt_openrc(__bt_open(ip, BT_OCREATE, &info, &h, &db, 1));
    hs_obsno_t n = fp->xoehdr->numobs;
    std::vector<char> row(ROWLEN);
    for (hs_obsno_t r = 1; rc == 0 && r <= n; ++r) {
        long got = 0;
        rc = dardobs(fp, r, row.data(), 1, &got);
        std::string key = keyof(row.data()), d(8, '\0');
        bt_putrow(d.data(), r);
        DBT k{key.data(), 8}, dd{d.data(), 8};
        if (rc == 0) rc = db->put(db, &k, &dd, 0);
    }
    if (db) {
        db->ds_numobs = n;
        db->internal->header.state = rc == 0 ? IX_CLEAN : IX_DIRTY;
        rctype crc = db->close(db, -1, nullptr, 1);
        if (rc == 0) rc = crc;
    }
    rctype crc = ip->mt->closeidx(ip, rc == 0 ? DA_IDXCLEAN : DA_IDXDIRTY);
    if (rc == 0) rc = crc;
    if (rc < 0) return rc;
    DA_KEYSTAT ks{};
    ks.highobs = n;
    return fp->mt->setkeystat(fp, "ix", &ks);
}

// Every row's key leads to its row in its segment's tree.
inline bool indexright(DA_FID* fp) {
    DA_IDX* ip = nullptr;
    if (fp->mt->openidx(fp, "ix", DA_IDXFIDX, &ip) != 0) return false;
    BTREEINFO info{};
    info.openmode = BT_OREAD;
    info.options_present = 1;
    DB* db = nullptr;
    bool ok = __bt_open(ip, BT_OREAD, &info, nullptr, &db, 0) == 0 && __bt_open(ip, BT_OREAD, &info, nullptr, &db, 1) == 0;
    hs_obsno_t n = fp->xoehdr->numobs;
    std::vector<char> row(ROWLEN);
    int64_t seg = fp->segsize;
    ok = ok && __bt_ntrees(db) == (n + seg - 1) / seg;
    for (hs_obsno_t r = 1; ok && r <= n; ++r) {
        long got = 0;
        ok = dardobs(fp, r, row.data(), 1, &got) == 0;
        std::string key = keyof(row.data());
        DBT k{key.data(), 8}, out{};
        ok = ok && __bt_settree(db, (r - 1) / seg) == 0 && db->get(db, &k, &out, 0) == 0 && bt_rowof(out.data) == r;
    }
    if (db) db->close(db, -1, nullptr, 1);
    EXPECT_GE(ip->mt->closeidx(ip, 0), 0);
    return ok;
}

}  // namespace ixtest
