// vrtasort through the API: an interrupt at any point leaves neither a new
// table nor a work file.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <string>
#include <tuple>
#include <vector>

#include "directapi/sp.h"
#include "fullpath.h"
#include "hs/sr.h"
#include "sda/darc.h"
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

namespace {

// Every file of a table, its bytes run together.
std::string tableBytes(const std::string& dir, const std::string& table) {
    std::string all;
    for (const std::string& f : named(dir, table + "."))
        all += vrtatest::readFile(dir + "/" + f);
    return all;
}

// A table whose columns carry what VRTACOLDEF cannot say: formats,
// informats, their widths, a justification, statistics kept.
bool makeDressed(void* lib, const char* name, const VRTACREATE& how, int nrows) {
    std::vector<vrta::DA_NAMESTR> vars(2);
    memset(vars.data(), 0, sizeof(vrta::DA_NAMESTR) * 2);
    char kname[] = "k", klabel[] = "The key", kform[] = "COMMA", kiform[] = "BEST";
    char tname[] = "txt", tlabel[] = "Some text", tform[] = "$CHAR";
    vrta::DA_NAMESTR& k = vars[0];
    k.name = kname, k.name_l = 1, k.label = klabel, k.label_l = 7;
    k.nform = kform, k.nform_l = 5, k.nfl = 12, k.nfd = 2, k.niform = kiform, k.niform_l = 4, k.nifl = 10;
    k.type = 1, k.nlng = 8, k.npos = 20, k.flags = vrta::DA_NAMKEEPMM;
    vrta::DA_NAMESTR& t = vars[1];
    t.name = tname, t.name_l = 3, t.label = tlabel, t.label_l = 9, t.nform = tform, t.nform_l = 5, t.nfl = 20;
    t.type = 2, t.nlng = 20, t.npos = 0, t.justify = 1;
    void* fid = nullptr;
    EXPECT_EQ(0, vrta::spcreatev(lib, name, -1, &how, 2, vars.data(), &fid));
    if (!fid) return false;
    std::vector<char> rows(28 * nrows);
    for (int i = 0; i < nrows; ++i) {
        double kv = (i * 7919) % nrows;
        snprintf(rows.data() + i * 28, 21, "SECRET-ROW-%09d", i);
        memcpy(rows.data() + i * 28 + 20, &kv, 8);
    }
    void* wr = nullptr;
    EXPECT_EQ(0, spnewwr(fid, static_cast<long>(rows.size()), rows.data(), 0, &wr));
    EXPECT_EQ(0, spwritev(wr, nrows));
    EXPECT_EQ(0, spfreeio(wr));
    return vrtaclose(fid) == 0 && !::testing::Test::HasFailure();
}

// The copy's columns match the input's in every attribute a user gave.
void expectSameColumns(void* in, void* out) {
    for (int v = 1; v <= 2; ++v) {
        VRTA_NAMESTR *a = nullptr, *b = nullptr;
        ASSERT_EQ(0, vrtagetnpp(in, v, &a));
        ASSERT_EQ(0, vrtagetnpp(out, v, &b));
        auto str = [](const char* p, int l) { return p && l > 0 ? std::string(p, l) : std::string(); };
        EXPECT_EQ(str(a->name, a->n7.name_l), str(b->name, b->n7.name_l));
        EXPECT_EQ(str(a->label, a->n7.label_l), str(b->label, b->n7.label_l));
        EXPECT_EQ(str(a->nform, a->n7.nform_l), str(b->nform, b->n7.nform_l));
        EXPECT_EQ(str(a->niform, a->n7.niform_l), str(b->niform, b->n7.niform_l));
        const VRTA_NAME7 &x = a->n7, &y = b->n7;
        EXPECT_EQ(std::tie(x.npos, x.nlng, x.type, x.nfl, x.nfd, x.nifl, x.nifd, x.justify, x.nscale, x.nprec),
                  std::tie(y.npos, y.nlng, y.type, y.nfl, y.nfd, y.nifl, y.nifd, y.justify, y.nscale, y.nprec))
            << v;
        EXPECT_EQ(x.flags & vrta::DA_NAMKEEPMM, y.flags & vrta::DA_NAMKEEPMM) << v;
    }
}

// Sorted copy's keys ascending and its row count.
void expectSorted(void* fid, int nrows) {
    std::vector<char> buf(28 * 300);
    void* rd = nullptr;
    ASSERT_EQ(0, spnewrd(fid, static_cast<long>(buf.size()), buf.data(), &rd));
    double last = -1;
    long total = 0, n = 0;
    void* p = nullptr;
    int64_t* obs = nullptr;
    while (spreadv(rd, &n, &p, &obs) == 0 && n > 0) {
        for (long i = 0; i < n; ++i) {
            double k;
            memcpy(&k, static_cast<char*>(p) + i * 28 + 20, 8);
            EXPECT_GT(k, last);
            last = k;
        }
        total += n;
    }
    EXPECT_EQ(nrows, total);
    spfreerd(rd);
}

}  // namespace

TEST(DirectSort, CopyKeepsColumnsWholeAndTheInputsExitUnlessToldOtherwise) {
    vrtatest::TempDir dom, work;
    void* opt = vrta::opinitgbl();
    ASSERT_NE(nullptr, opt);
    std::string wp = work.path();
    ASSERT_EQ(0, vrta::opsetop(opt, "WORKPATH", wp.data(), static_cast<int>(wp.size())));
    void* lib = nullptr;
    ASSERT_EQ(0, splasgn(dom.path().c_str(), &lib));
    const int N = 3000;
    VRTACREATE enc{};
    enc.encrypt = "VRTACRYP";
    enc.ekey = "tiger7";
    enc.label = "secret table";
    ASSERT_TRUE(makeDressed(lib, "e", enc, N));
    VRTACREATE comp{};
    comp.compress = "VRTARLC2";
    comp.blocksize = 4096;
    ASSERT_TRUE(makeDressed(lib, "c", comp, N));
    ASSERT_NE(std::string::npos, tableBytes(dom.path(), "c").find("SECRET-ROW-"));  // rows show when not encrypted
    ASSERT_EQ(std::string::npos, tableBytes(dom.path(), "e").find("SECRET-ROW-"));

    VRTASORTKEY key{1, 0};
    VRTASORT req{};
    req.nkeys = 1;
    req.keys = &key;
    req.memsize = 65536;  // spills: the work file holds rows too

    struct Case {
        const char *in, *out, *compress, *encrypt, *ekey, *out_ekey;
        const char *wantcomp, *wantenc, *openkey;
    };
    const Case cases[] = {
        // As the input: encrypted with the same exit and key, compressed alike.
        {"e", "e1", nullptr, nullptr, "tiger7", nullptr, "", "VRTACRYP", "tiger7"},
        {"c", "c1", nullptr, nullptr, nullptr, nullptr, "VRTARLC2", "", nullptr},
        // Asked otherwise: another key, another exit, none at all.
        {"e", "e2", nullptr, nullptr, "tiger7", "lion9", "", "VRTACRYP", "lion9"},
        {"e", "e3", nullptr, "", "tiger7", nullptr, "", "", nullptr},
        {"e", "e4", "VRTALZWC", "", "tiger7", nullptr, "VRTALZWC", "", nullptr},
        {"c", "c2", "", nullptr, nullptr, nullptr, "", "", nullptr},
        {"c", "c3", "", "VRTACRYP", nullptr, "puma3", "", "VRTACRYP", "puma3"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.out);
        req.compress = c.compress;
        req.encrypt = c.encrypt;
        req.ekey = c.ekey;
        req.out_ekey = c.out_ekey;
        ASSERT_EQ(0, vrtasort(lib, c.in, -1, c.out, -1, &req));
        EXPECT_TRUE(named(work.path(), "vrtasr_").empty());
        void *in = nullptr, *out = nullptr;
        ASSERT_EQ(0, vrtaopen(lib, c.in, -1, nullptr, 0, c.ekey, 0, nullptr, -1, 0, &in));
        if (*c.wantenc) {
            // Encrypted: no row shows in any file, and no other key opens it.
            EXPECT_EQ(std::string::npos, tableBytes(dom.path(), c.out).find("SECRET-ROW-"));
            EXPECT_LT(vrtaopen(lib, c.out, -1, nullptr, 0, nullptr, 0, nullptr, -1, 0, &out), 0);
            EXPECT_LT(vrtaopen(lib, c.out, -1, nullptr, 0, "wrong", 0, nullptr, -1, 0, &out), 0);
        }
        ASSERT_EQ(0, vrtaopen(lib, c.out, -1, nullptr, 0, c.openkey, 0, nullptr, -1, 0, &out));
        VRTAINFO a, b;
        ASSERT_EQ(0, vrtainfo(in, VRTAINFO_ALL, &a));
        ASSERT_EQ(0, vrtainfo(out, VRTAINFO_ALL, &b));
        char want[8];
        memset(want, ' ', 8);
        memcpy(want, c.wantcomp, strlen(c.wantcomp));
        EXPECT_EQ(std::string(want, 8), std::string(b.diskcomp, 8));
        memset(want, ' ', 8);
        memcpy(want, c.wantenc, strlen(c.wantenc));
        EXPECT_EQ(std::string(want, 8), std::string(b.encrypt, 8));
        EXPECT_EQ(std::string(a.label, a.label_l), std::string(b.label, b.label_l));
        EXPECT_EQ(a.blocksize, b.blocksize);
        EXPECT_EQ(a.obslen, b.obslen);
        expectSameColumns(in, out);
        expectSorted(out, N);
        vrtaclose(in);
        vrtaclose(out);
    }

    // What cannot be done is refused before the sort, and nothing is left:
    // an encrypted input never turns into a plain copy by the way.
    struct Bad {
        const char *in, *compress, *encrypt, *ekey, *out_ekey;
        int rc;
    };
    for (const Bad& b : {Bad{"e", "VRTARLC2", nullptr, "tiger7", nullptr, vrta::DA_BADARG},
                         Bad{"c", nullptr, "VRTACRYP", nullptr, nullptr, vrta::DA_BADARG},
                         Bad{"e", nullptr, nullptr, "tiger7", "thirteenchars", vrta::DA_BADARG},
                         Bad{"c", "NOSUCHXC", nullptr, nullptr, nullptr, vrta::DA_NOEXIT},
                         Bad{"c", "VRTACRYP", nullptr, nullptr, nullptr, vrta::DA_NOCOMPRESS},
                         Bad{"c", nullptr, "VRTARLC2", nullptr, "k", vrta::DA_NOENCRYPT},
                         Bad{"c", ".HIDDEN", nullptr, nullptr, nullptr, vrta::DA_BADARG}}) {
        SCOPED_TRACE(std::string(b.in) + " " + (b.compress ? b.compress : "-") + " " + (b.encrypt ? b.encrypt : "-"));
        req.compress = b.compress;
        req.encrypt = b.encrypt;
        req.ekey = b.ekey;
        req.out_ekey = b.out_ekey;
        EXPECT_EQ(b.rc, vrtasort(lib, b.in, -1, "x", -1, &req));
        EXPECT_TRUE(named(dom.path(), "x.").empty());
        EXPECT_TRUE(named(work.path(), "vrtasr_").empty());
    }
    spldeasgn(lib);
}

// A full work path while runs spill, and a full domain path while the merge
// feeds the copy: a clear code and text, no copy, no work file. The sort
// reads its input whole before it makes the copy, so with room again the
// same request succeeds.
TEST(DirectSort, AFullWorkOrDomainPathLeavesNoCopyAndNoWorkFile) {
    vrtatest::TempDir dom, work;
    void* opt = vrta::opinitgbl();
    ASSERT_NE(nullptr, opt);
    std::string wp = work.path();
    ASSERT_EQ(0, vrta::opsetop(opt, "WORKPATH", wp.data(), static_cast<int>(wp.size())));
    void* lib = nullptr;
    ASSERT_EQ(0, splasgn(dom.path().c_str(), &lib));
    const int N = 3000;
    ASSERT_TRUE(makeDressed(lib, "t", VRTACREATE{}, N));
    VRTASORTKEY key{1, 0};
    VRTASORT req{};
    req.nkeys = 1;
    req.keys = &key;
    req.memsize = 65536;  // about 8 runs of the keyed rows
    char text[600];
    for (long budget : {0L, 40000L, 100000L}) {
        SCOPED_TRACE(budget);
        vrtatest::FullPath full(wp + "/", budget);
        int rc = vrtasort(lib, "t", -1, "s", -1, &req);
        ASSERT_EQ(VRTA_RC_WRAPPED, rc);
        vrtaerrtext(rc, text, sizeof text);
        EXPECT_NE(nullptr, strstr(text, ("no space left on the work path " + wp).c_str())) << text;
        EXPECT_TRUE(named(dom.path(), "s.").empty());
        EXPECT_TRUE(std::filesystem::is_empty(wp));
    }
    // The copy's rows fill the domain while the merge runs, with and without
    // its reader thread.
    for (const char* mt : {"NOMTMERGE", "MTMERGE"}) {
        SCOPED_TRACE(mt);
        ASSERT_EQ(0, vrta::opbinst(opt, mt));
        std::string before = tableBytes(dom.path(), "t");
        for (long budget : {0L, 30000L, 60000L}) {
            vrtatest::FullPath full(dom.path() + "/", budget);
            int rc = vrtasort(lib, "t", -1, "s", -1, &req);
            EXPECT_LT(rc, 0);
            vrtaerrtext(rc, text, sizeof text);
            EXPECT_NE(nullptr, strstr(text, "Member=s Reason=No space left")) << text;
            EXPECT_TRUE(named(dom.path(), "s.").empty());
            EXPECT_TRUE(std::filesystem::is_empty(wp));
        }
        EXPECT_EQ(before, tableBytes(dom.path(), "t"));
    }
    ASSERT_EQ(0, vrtasort(lib, "t", -1, "s", -1, &req));
    void* out = nullptr;
    ASSERT_EQ(0, vrtaopen(lib, "s", -1, nullptr, 0, nullptr, 0, nullptr, -1, 0, &out));
    expectSorted(out, N);
    vrtaclose(out);
    spldeasgn(lib);
}
