// A row list read back whole, checking on the way that rows come in rising
// order and that a batch promised more only when it gave some.
#pragma once
#include <gtest/gtest.h>

#include <set>
#include <vector>

#include "ix/ixlist.h"

namespace ixtest {

inline std::set<int64_t> readall(vrta::ix_list_t* l, int64_t batch = 37) {
    std::set<int64_t> out;
    if (!l) return out;
    vrta::ixrwndl(l);
    std::vector<vrta::hs_obsno_t> buf(static_cast<size_t>(batch));
    int64_t prev = 0;
    for (int guard = 0; guard < 1000000; ++guard) {
        int64_t n = batch;
        vrta::rctype rc = vrta::ixrtrve(l, buf.data(), &n);
        EXPECT_GE(rc, 0);
        EXPECT_LE(n, batch);
        for (int64_t i = 0; i < n; ++i) {
            EXPECT_GT(buf[i], prev) << "rows out of order";
            prev = buf[i];
            out.insert(buf[i]);
        }
        if (rc != 0) break;
        EXPECT_GT(n, 0) << "no rows while more were promised";
    }
    return out;
}

}  // namespace ixtest
