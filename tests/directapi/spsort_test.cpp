// vrtasort through the API: an interrupt at any point leaves neither a new
// table nor a work file.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "hs/sr.h"
#include "option/op.h"
#include "testutil.h"
#include "vrta/directapi.h"

namespace {

std::vector<std::string> named(const std::string& dir, const std::string& prefix) {
    std::vector<std::string> v;
    for (auto& e : std::filesystem::directory_iterator(dir))
        if (e.path().filename().string().rfind(prefix, 0) == 0) v.push_back(e.path().filename().string());
    return v;
}

struct Stopper {
    volatile int* flag;
    int phase;
    int64_t at;
};
void stopAt(void* arg, int phase, int64_t done, int64_t) {
    auto* s = static_cast<Stopper*>(arg);
    if (phase == s->phase && done >= s->at) *s->flag = 1;
}

}  // namespace

TEST(DirectSort, InterruptedSortLeavesNoTableAndNoWorkFile) {
    vrtatest::TempDir dom, work;
    void* opt = vrta::opinitgbl();
    ASSERT_NE(nullptr, opt);
    std::string wp = work.path();
    ASSERT_EQ(0, vrta::opsetop(opt, "WORKPATH", wp.data(), static_cast<int>(wp.size())));
    void* lib = nullptr;
    ASSERT_EQ(0, splasgn(dom.path().c_str(), &lib));
    VRTACOLDEF cols[2] = {{"k", -1, nullptr, 0, 1, 8}, {"pad", -1, nullptr, 0, 2, 92}};
    VRTACREATE cr{};
    cr.ncols = 2;
    cr.cols = cols;
    void* fid = nullptr;
    ASSERT_EQ(0, vrtacreate(lib, "t", -1, &cr, &fid));
    std::vector<char> rows(100 * 5000, ' ');
    for (int i = 0; i < 5000; ++i) {
        double k = (i * 7919) % 5000;
        memcpy(rows.data() + i * 100, &k, 8);
    }
    void* wr = nullptr;
    ASSERT_EQ(0, spnewwr(fid, static_cast<long>(rows.size()), rows.data(), 0, &wr));
    ASSERT_EQ(0, spwritev(wr, 5000));
    ASSERT_EQ(0, spfreeio(wr));
    ASSERT_EQ(0, vrtaclose(fid));

    VRTASORTKEY key{1, 1};
    volatile int stop = 0;
    Stopper st{&stop, 0, 0};
    VRTASORT req{};
    req.nkeys = 1;
    req.keys = &key;
    req.memsize = 65536;  // spills
    req.interrupt = &stop;
    req.progress = stopAt;
    req.progress_arg = &st;
    // Stopped while reading, while writing, and before it starts.
    for (Stopper at : {Stopper{&stop, 1, 1000}, Stopper{&stop, 2, 1}, Stopper{&stop, 0, 0}}) {
        st = at;
        stop = at.phase == 0 ? 1 : 0;
        EXPECT_EQ(static_cast<int>(vrta::SR_RC_INTERRUPT), vrtasort(lib, "t", -1, "s", -1, &req)) << at.phase;
        EXPECT_TRUE(named(dom.path(), "s.").empty()) << at.phase;
        EXPECT_TRUE(named(work.path(), "vrtasr_").empty()) << at.phase;
    }
    // Left alone, the same sort completes, descending.
    st = Stopper{&stop, 9, 0};
    stop = 0;
    ASSERT_EQ(0, vrtasort(lib, "t", -1, "s", -1, &req));
    EXPECT_TRUE(named(work.path(), "vrtasr_").empty());
    ASSERT_EQ(0, vrtaopen(lib, "s", -1, nullptr, 0, nullptr, 0, nullptr, -1, 0, &fid));
    VRTASORTINFO si{};
    ASSERT_EQ(0, vrtainfo(fid, VRTAINFO_SORT, &si));
    EXPECT_EQ(1, si.nvars);
    EXPECT_EQ(-1, si.var[0]);
    void* rd = nullptr;
    std::vector<char> buf(100 * 700);
    ASSERT_EQ(0, spnewrd(fid, static_cast<long>(buf.size()), buf.data(), &rd));
    double last = 1e9;
    long total = 0, n = 0;
    void* p = nullptr;
    int64_t* obs = nullptr;
    while (spreadv(rd, &n, &p, &obs) == 0 && n > 0) {
        for (long i = 0; i < n; ++i) {
            double k;
            memcpy(&k, static_cast<char*>(p) + i * 100, 8);
            EXPECT_LE(k, last);
            last = k;
        }
        total += n;
    }
    EXPECT_EQ(5000, total);
    spfreerd(rd);
    vrtaclose(fid);
    // A key column the table does not have.
    VRTASORTKEY bad{3, 0};
    req.keys = &bad;
    EXPECT_LT(vrtasort(lib, "t", -1, "u", -1, &req), 0);
    EXPECT_TRUE(named(dom.path(), "u.").empty());
    spldeasgn(lib);
}
