// An index of a table against the table itself: what the index must hold
// (every live row's key, made by the index's own key block, to its rows)
// and what its files hold, read by the independent reader.
#pragma once
#include <dirent.h>

#include <string>
#include <vector>

#include "../sda/lifeutil.h"
#include "hbxread.h"
#include "sda/dafid.h"
#include "sda/daidx.h"
#include "ssubs/skb.h"

namespace hbxtest {

using lifetest::ROWLEN;

inline std::string partition(const std::string& dir, const std::string& prefix) {
    std::string found;
    if (DIR* d = opendir(dir.c_str())) {
        while (dirent* e = readdir(d))
            if (std::string(e->d_name).rfind(prefix, 0) == 0) found = dir + "/" + e->d_name;
        closedir(d);
    }
    return found;
}

inline Model brute(DA_FID* fp, const char* name, bool nomiss, int64_t* nummiss) {
    DA_IDX* ip = nullptr;
    EXPECT_EQ(0, fp->mt->openidx(fp, name, DA_IDXFIDX, &ip));
    auto* skb = static_cast<SKB_KEY*>(ip->skb);
    Model m;
    *nummiss = 0;
    hs_obsno_t n = fp->xoehdr->numobs;
    std::vector<char> row(ROWLEN), rec(static_cast<size_t>(skb->info.reclen));
    DA_FCB* fcb = fcbof(fp);
    DA_DMPBM* bm = dadmnewbm(fcb);
    for (hs_obsno_t r = 1; r <= n; ++r) {
        if (fcb->dmpcb && dadmisdel(fcb, bm, r)) continue;
        long got = 0;
        EXPECT_EQ(0, dardobs(fp, r, row.data(), 1, &got));
        long nk = 0;
        int miss = 0;
        EXPECT_EQ(0, skb->mt.makekey(skb, row.data(), r, rec.data(), &nk, &miss));
        if (miss) ++*nummiss;
        if (miss && nomiss) continue;
        m[std::string(rec.data(), skb->info.colkeylen)].insert(r);
    }
    dadmfreebm(bm);
    EXPECT_GE(ip->mt->closeidx(ip, 0), 0);
    return m;
}

inline Model fromfiles(DA_FID* fp, const char* name, const std::string& dir, const std::string& table) {
    DA_IDX* ip = nullptr;
    EXPECT_EQ(0, fp->mt->openidx(fp, name, DA_IDXFIDX, &ip));
    Model m = readindex(ip, partition(dir, table + ".hbx" + name + "."));
    EXPECT_GE(ip->mt->closeidx(ip, 0), 0);
    return m;
}

}  // namespace hbxtest
