#include "sda/daods.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "sda/dafd.h"
#include "sda/darc.h"
#include "testutil.h"

using namespace vrta;

namespace {

// An in-memory file; reads past the end behave like the file layer's.
struct MemFile {
    std::string data;
    DA_ODSIO io() { return DA_ODSIO{rd, wr, this, "memfile"}; }
    static rctype rd(void* c, void* buf, long size, da_off_t off, long* nread) {
        auto* m = static_cast<MemFile*>(c);
        *nread = 0;
        if (off >= static_cast<da_off_t>(m->data.size())) return DA_EOF;
        long n = std::min<long>(size, m->data.size() - off);
        std::memcpy(buf, m->data.data() + off, n);
        *nread = n;
        return 0;
    }
    static rctype wr(void* c, const void* buf, long size, da_off_t* off) {
        auto* m = static_cast<MemFile*>(c);
        if (*off < 0) *off = m->data.size();
        if (m->data.size() < static_cast<size_t>(*off + size)) m->data.resize(*off + size);
        std::memcpy(m->data.data() + *off, buf, size);
        return 0;
    }
};

constexpr int kKeylen = 8;

// Writes a table's MDF the way create and later definitions lay it out:
// FIB, header, description, sort/owner/backup records, the DPF's FIB, then
// string pool, names, statistics, one index with its FIB, a delete map and a
// constraint. Returns the FIB allocation.
int32_t buildTable(const DA_ODSIO& io) {
    const char* mdpath = "/data/meta";
    int32_t fibsize = dagetfibsize(0x400, true, 1, &mdpath, mdpath, 5, 0, 4096);
    std::vector<char> fibbuf(fibsize);
    auto* fib = reinterpret_cast<DA_FIB*>(fibbuf.data());
    uint8_t rv[120];
    for (int i = 0; i < 120; i++) rv[i] = static_cast<uint8_t>(i + 1);
    dainitfib(fib, fibsize, 0x300104 | 0x400 | 0x80, 5, rv, 1, 1700000000);
    EXPECT_EQ(dapdeadd(fib, "t.mdf.0.0.0.vrta9", 17), 0);
    fib->filesize = fibsize;
    EXPECT_EQ(dawrfibd(io, fib), 0);

    DA_DSFHEAD h;
    dainitdsfh(&h);
    h.origtime = 1700000000;
    da_off_t hoff = fibsize;
    EXPECT_EQ(dawrods(io, &h, &hoff), 0);
    auto append = [&](const void* r) {
        da_off_t o = -1;
        EXPECT_EQ(dawrods(io, r, &o), 0);
        return o;
    };
    DA_XOEODS x;
    dainitxoe(&x);
    x.numobs = 10;
    x.nvar = 2;
    x.obslen = 16;
    x.nindexes = 1;
    std::memcpy(x.locale, "en_US", 5);
    x.encoding_cei = 20;
    h.links[DA_LNKXOE] = append(&x);
    DA_SINODS s;
    dainitsin(&s);
    h.links[DA_LNKSIN] = append(&s);
    DA_OWNODS ow;
    dainitown(&ow);
    h.links[DA_LNKOWN] = append(&ow);
    DA_BACKUPODS b;
    dainitbkup(&b);
    h.links[DA_LNKBACKUP] = append(&b);

    std::vector<char> dfib(4096);
    auto* df = reinterpret_cast<DA_FIB*>(dfib.data());
    dainitfib(df, 4096, 0x302000 | 0x40, 5, rv, 1, 1700000000);
    EXPECT_EQ(dapdeadd(df, "t.dpf._data_meta.0.1.vrta9", 26), 0);
    da_off_t dfo = -1;
    EXPECT_EQ(dawrfib(io, df, &dfo), 0);
    h.links[DA_LNKDPFFIB] = dfo;

    // One string pool section holding the names "price" and "qty".
    DA_STRP sect{};
    std::memcpy(sect.pool, "price", 5);
    std::memcpy(sect.pool + 8, "qty", 3);
    sect.freeOffset = 16;
    sect.freeSpace = DA_STRPSECTSIZE - 16;
    da_off_t so = -1;
    EXPECT_EQ(io.write(io.ctx, &sect, sizeof sect, &so), 0);
    std::vector<char> sp(dastrphlen(8));
    auto* sh = reinterpret_cast<DA_STRPHEAD*>(sp.data());
    dainitstrph(sh, 8);
    sh->numsects = 1;
    dastrpoffs(sh)[0] = so;
    h.links[DA_LNKSTRP] = append(sp.data());
    DA_NAME7ODS nv[2] = {};
    for (int i = 0; i < 2; i++) {
        nv[i].nvar0 = i + 1;
        nv[i].npos = 8 * i;
        nv[i].nlng = 8;
        nv[i].type = 1;
        nv[i].namepid = 8 * i;
        nv[i].name_l = i == 0 ? 5 : 3;
        nv[i].labelpid = nv[i].nformpid = nv[i].niformpid = -1;
    }
    da_off_t no = -1;
    EXPECT_EQ(io.write(io.ctx, nv, sizeof nv, &no), 0);
    h.links[DA_LNKNAMES] = no;
    std::vector<char> vs(davarslen(2));
    auto* vp = reinterpret_cast<DA_VARSODS*>(vs.data());
    vp->ods = {DA_VARSODS_VER, davarslen(2)};
    vp->vstat[0] = {1, 16, 16, {}};
    DA_VARSTAT second{0, -1, 0, {}};
    std::memcpy(vs.data() + 8 + 12, &second, sizeof second);
    h.links[DA_LNKVARS] = append(vs.data());

    std::vector<char> ib(daidxlen(kKeylen, 1));
    auto* ip = reinterpret_cast<DA_IDXODS*>(ib.data());
    dainitidx(ip, kKeylen, 1);
    ip->keyFlags = DA_KEYHASIDX;
    ip->name_l = 1;
    ip->name[0] = 'x';
    daidxnvar0(ip)[0] = 1;
    std::vector<char> ifib(4096);
    auto* xf = reinterpret_cast<DA_FIB*>(ifib.data());
    dainitfib(xf, 4096, 0x300000 | 0x40, 5, rv, 1, 1700000000);
    EXPECT_EQ(dapdeadd(xf, "t.idxx._data_meta.0.1.vrta9", 27), 0);
    da_off_t xfo = -1;
    EXPECT_EQ(dawrfib(io, xf, &xfo), 0);
    ip->idxFibOff = xfo;
    h.links[DA_LNKIDX] = append(ip);

    DA_DMPDIR dd;
    dainitdmpd(&dd);
    dd.nument = 1;
    dd.ents[0] = DA_DMPENT{12345, 1};
    da_off_t ddo = append(&dd);
    DA_DMPHEAD dh;
    dainitdmph(&dh, 1024);
    dh.numdmpdir = 1;
    dh.dmpdirOff = ddo;
    h.links[DA_LNKDMP] = append(&dh);
    DA_CONSTODS c;
    dainitcons(&c);
    h.links[DA_LNKCONST] = append(&c);

    hoff = fibsize;
    EXPECT_EQ(dawrods(io, &h, &hoff), 0);
    return fibsize;
}

struct Seen {
    std::vector<int> kinds;
};
rctype collect(void* ctx, int kind, da_off_t, const void*, int) {
    static_cast<Seen*>(ctx)->kinds.push_back(kind);
    return 0;
}

}  // namespace

TEST(Daods, EveryRecordRoundTripsThroughItsReader) {
    MemFile m;
    auto io = m.io();
    auto roundtrip = [&](auto rec, auto reader, const char* what) {
        using T = decltype(rec);
        // Fill every byte past the head so a field lost on the way shows.
        for (size_t i = sizeof(DA_ODSHEAD); i < sizeof rec; i++)
            reinterpret_cast<uint8_t*>(&rec)[i] = static_cast<uint8_t>(i * 7 + 3);
        da_off_t off = -1;
        ASSERT_EQ(dawrods(io, &rec, &off), 0);
        T back{};
        ASSERT_EQ(reader(io, &back, off), 0) << what;
        EXPECT_EQ(std::memcmp(&rec, &back, sizeof rec), 0) << what;
    };
    DA_DSFHEAD h;
    dainitdsfh(&h);
    roundtrip(h, dardsfh, "header");
    DA_SINODS s;
    dainitsin(&s);
    // nvars is checked, so give it a legal value after the fill.
    {
        for (size_t i = 8; i < sizeof s; i++) reinterpret_cast<uint8_t*>(&s)[i] = static_cast<uint8_t>(i);
        s.sortinfo.nvars = 128;
        da_off_t off = -1;
        ASSERT_EQ(dawrods(io, &s, &off), 0);
        DA_SINODS back{};
        ASSERT_EQ(dardsin(io, &back, off), 0);
        EXPECT_EQ(std::memcmp(&s, &back, sizeof s), 0);
    }
    DA_BACKUPODS b;
    dainitbkup(&b);
    roundtrip(b, dardbkup, "backup");
    DA_VBHEAD v;
    dainitvbh(&v);
    v.vbvspan = 512;
    {
        da_off_t off = -1;
        ASSERT_EQ(dawrods(io, &v, &off), 0);
        DA_VBHEAD back{};
        ASSERT_EQ(dardvbh(io, &back, off), 0);
        EXPECT_EQ(std::memcmp(&v, &back, sizeof v), 0);
        EXPECT_EQ(back.stat.minovflsize, 0x7fffffff);
    }
    DA_XOEODS x;
    dainitxoe(&x);
    x.numobs = 1234567890123LL;
    x.semtype = DA_SEMXCFBS;
    x.credate = 1.5e9;
    {
        da_off_t off = 4096;
        ASSERT_EQ(dawrxoe(io, &x, off), 0);
        DA_XOEODS back{};
        ASSERT_EQ(dardxoe(io, &back, off), 0);
        EXPECT_EQ(std::memcmp(&x, &back, sizeof x), 0);
        EXPECT_EQ(std::memcmp(back.dstype, "DATA    ", 8), 0);
    }
    DA_DMPHEAD dh;
    dainitdmph(&dh, 1000);
    EXPECT_EQ(dh.bmapsize, 128);  // 125 bytes of bits, rounded up to 4
    dainitdmph(&dh, 32768);
    EXPECT_EQ(dh.bmapsize, 4096);
    DA_CONSTODS c;
    dainitcons(&c);
    c.cid.numpids = 2;
    {
        da_off_t off = -1;
        ASSERT_EQ(dawrods(io, &c, &off), 0);
        DA_CONSTODS back{};
        ASSERT_EQ(dardcons(io, &back, off), 0);
        EXPECT_EQ(back.ods.version, 2);
        EXPECT_EQ(back.ods.length, 2068);
    }
    // Index record with a key of odd length: the variable numbers sit
    // 4-aligned behind the key statistics.
    std::vector<char> ib(daidxlen(5, 3));
    auto* ip = reinterpret_cast<DA_IDXODS*>(ib.data());
    dainitidx(ip, 5, 3);
    EXPECT_EQ(ip->ods.length, 336 + 12 + 12);
    EXPECT_EQ(ip->nvar0Off % 4, 0);
    for (int i = 0; i < 3; i++) daidxnvar0(ip)[i] = 10 + i;
    std::memcpy(daidxkst(ip)->minmax, "aaaaazzzzz", 10);
    da_off_t off = -1;
    ASSERT_EQ(dawrods(io, ip, &off), 0);
    std::vector<char> back(ib.size());
    ASSERT_EQ(dardidx(io, reinterpret_cast<DA_IDXODS*>(back.data()), back.size(), off), 0);
    EXPECT_EQ(back, ib);
}

TEST(Daods, ShorterRecordKeepsTailAndLongerOneIsRefused) {
    MemFile m;
    auto io = m.io();
    DA_XOEODS x;
    dainitxoe(&x);
    x.numobs = 77;
    x.ods.length = 600;  // written before the last fields were added
    da_off_t off = -1;
    ASSERT_EQ(dawrods(io, &x, &off), 0);
    ASSERT_EQ(m.data.size(), 600u);
    DA_XOEODS r;
    std::memset(&r, 0x5a, sizeof r);
    ASSERT_EQ(dardxoe(io, &r, off), 0);
    EXPECT_EQ(r.numobs, 77);
    for (size_t i = 600; i < sizeof r; i++) ASSERT_EQ(reinterpret_cast<uint8_t*>(&r)[i], 0x5a) << i;

    // A newer minor revision that grew the record: refused, buffer untouched.
    MemFile n;
    auto nio = n.io();
    std::vector<char> big(700, 0);
    DA_ODSHEAD hd{0x04010003, 700};
    std::memcpy(big.data(), &hd, sizeof hd);
    off = -1;
    ASSERT_EQ(nio.write(nio.ctx, big.data(), big.size(), &off), 0);
    std::memset(&r, 0x5a, sizeof r);
    EXPECT_EQ(dardxoe(nio, &r, 0), DA_TOOLONG);
    for (size_t i = 0; i < sizeof r; i++) ASSERT_EQ(reinterpret_cast<uint8_t*>(&r)[i], 0x5a) << i;
    std::vector<char> roomy(700);
    EXPECT_EQ(dardods(nio, roomy.data(), roomy.size(), 0), 0);
    EXPECT_EQ(roomy, big);

    // A length that cannot hold even its own head.
    DA_ODSHEAD bad{DA_XOEODS_VER, 3};
    off = 0;
    ASSERT_EQ(nio.write(nio.ctx, &bad, sizeof bad, &off), 0);
    EXPECT_EQ(dardxoe(nio, &r, 0), DA_INTERNAL);
    bad.length = -100;
    ASSERT_EQ(nio.write(nio.ctx, &bad, sizeof bad, &off), 0);
    EXPECT_EQ(dardxoe(nio, &r, 0), DA_INTERNAL);
    // Reading at or past the end is a short read, not end of data.
    EXPECT_EQ(dardxoe(nio, &r, 100000), DA_SHORTREAD);
}

TEST(Daods, VersionWordsAndFirstLayouts) {
    MemFile m;
    auto io = m.io();
    auto put = [&](const void* r) {
        da_off_t o = -1;
        EXPECT_EQ(dawrods(io, r, &o), 0);
        return o;
    };
    DA_DSFHEAD h;
    dainitdsfh(&h);
    h.ods.version = DA_DSFHEAD_VERC;
    DA_DSFHEAD r{};
    EXPECT_EQ(dardsfh(io, &r, put(&h)), 0);
    h.ods.version = 0x04020003;
    EXPECT_EQ(dardsfh(io, &r, put(&h)), DA_BADVERSION);
    h.ods.version = 0x03000003;
    EXPECT_EQ(dardsfh(io, &r, put(&h)), DA_BADVERSION);

    DA_XOEODS x;
    dainitxoe(&x);
    DA_XOEODS xr{};
    x.semtype = 5;
    EXPECT_EQ(dardxoe(io, &xr, put(&x)), DA_BADSEMTYPE);
    x.semtype = 0;
    x.ods.version = 0x05000003;
    EXPECT_EQ(dardxoe(io, &xr, put(&x)), DA_BADVERSION);

    DA_CONSTODS c;
    dainitcons(&c);
    c.ods.version = DA_XOEODS_VER;  // a constraint record has no major byte
    DA_CONSTODS cr{};
    EXPECT_EQ(dardcons(io, &cr, put(&c)), DA_BADVERSION);

    // First-layout block vector head: span fixed at 2048.
    DA_VBHEAD v;
    dainitvbh(&v);
    v.ods.version = 0x04000001;
    v.vbvspan = 0;
    DA_VBHEAD vr{};
    EXPECT_EQ(dardvbh(io, &vr, put(&v)), 0);
    EXPECT_EQ(vr.vbvspan, 2048);

    // Old string pool head: refused only when it outgrew the old limits.
    std::vector<char> sp(dastrphlen(8));
    auto* sh = reinterpret_cast<DA_STRPHEAD*>(sp.data());
    dainitstrph(sh, 8);
    sh->ods.version = 0x04000001;
    sh->numsects = 1;
    std::vector<char> back(sp.size());
    auto* sb = reinterpret_cast<DA_STRPHEAD*>(back.data());
    EXPECT_EQ(dardstrph(io, sb, back.size(), put(sh)), 0);
    sh->numsects = 2;
    EXPECT_EQ(dardstrph(io, sb, back.size(), put(sh)), DA_BADVERSION);
    // numoffsets claiming more slots than the record holds.
    sh->ods.version = DA_STRPHEAD_VER;
    sh->numoffsets = 9;
    EXPECT_EQ(dardstrph(io, sb, back.size(), put(sh)), DA_INTERNAL);

    // The old utility head is read as the current one.
    DA_UTLHEAD1 u1{};
    u1.ods = {DA_UTLHEAD1_VER, 156};
    std::memcpy(u1.owner_token, "0123456789abcdef", 16);
    u1.flags = 0x42;
    DA_UTLHEAD2 u{};
    EXPECT_EQ(dardutlh(io, &u, put(&u1)), 0);
    EXPECT_EQ(u.flags, 0x42);
    EXPECT_EQ(u.tokenLen, 16);
    EXPECT_EQ(std::memcmp(u.owner_token, "0123456789abcdef", 16), 0);
    DA_UTLHEAD2 u2;
    dainitutlh(&u2);
    u2.flags = 9;
    EXPECT_EQ(dardutlh(io, &u, put(&u2)), 0);
    EXPECT_EQ(u.tokenLen, 28);
    EXPECT_EQ(u.flags, 9);

    // An index record whose offsets point outside itself.
    std::vector<char> ib(daidxlen(4, 1));
    auto* ip = reinterpret_cast<DA_IDXODS*>(ib.data());
    dainitidx(ip, 4, 1);
    ip->nvar = 1000;
    std::vector<char> ibk(ib.size());
    EXPECT_EQ(dardidx(io, reinterpret_cast<DA_IDXODS*>(ibk.data()), ibk.size(), put(ip)), DA_INTERNAL);
}

TEST(Daods, DirectoryFillsToTheLastByteThenReportsFull) {
    std::vector<char> buf(1024);
    auto* fib = reinterpret_cast<DA_FIB*>(buf.data());
    dainitfib(fib, 1024, 0x80, 1, nullptr, 1, 0);
    EXPECT_EQ(fib->pdesize, 752);
    EXPECT_EQ(fib->ds_rv_wr.dsrvver[1], 1);
    EXPECT_EQ(fib->ds_rv_wr.dsrvlen[1], 0x80);
    // Room between 272 and pdesize: 480 bytes; each entry takes 8 + 15 + 1.
    std::vector<std::string> names;
    rctype rc;
    for (int i = 0;; i++) {
        char name[32];
        std::snprintf(name, sizeof name, "t.dpf.%d.1.vrta9", i % 10);
        rc = dapdeadd(fib, name, 15);
        if (rc < 0) break;
        EXPECT_EQ(rc, i);
        names.push_back(name);
    }
    EXPECT_EQ(rc, DA_FIBFULL);
    EXPECT_EQ(names.size(), 480u / 24);
    EXPECT_EQ(fib->numpde, 20);
    EXPECT_EQ(fib->topused, 160);
    EXPECT_EQ(dachkpde(fib, 1024), 0);
    for (int i = 0; i < fib->numpde; i++) {
        const char* n;
        int32_t l;
        ASSERT_EQ(dapdenam(fib, i, &n, &l), 0);
        EXPECT_EQ(std::string(n, l), names[i]);
    }
    // The top 272 bytes of the allocation are never touched by names.
    for (int i = 752; i < 1024; i++) ASSERT_EQ(buf[i], 0) << i;
    // A damaged entry is caught.
    DA_PDE bad{15, 1000};
    std::memcpy(buf.data() + 272, &bad, sizeof bad);
    EXPECT_EQ(dachkpde(fib, 1024), DA_INTERNAL);
    EXPECT_EQ(dapdenam(fib, 0, nullptr, nullptr), DA_INTERNAL);
}

TEST(Daods, PartitionPathsFollowTheFirstMetapath) {
    std::vector<char> buf(4096);
    auto* fib = reinterpret_cast<DA_FIB*>(buf.data());
    dainitfib(fib, 4096, 0x40, 1, nullptr, 1, 0);
    const char* rel;
    int32_t rl;
    std::string inmeta = "/data/meta/t.dpf._data_meta.1.1.vrta9";
    darelpn("/data/meta/", 11, inmeta.c_str(), inmeta.size(), &rel, &rl);
    EXPECT_EQ(std::string(rel, rl), "t.dpf._data_meta.1.1.vrta9");
    ASSERT_GE(dapdeadd(fib, rel, rl), 0);
    std::string other = "/data/metaX/t.dpf._data_meta.2.1.vrta9";
    darelpn("/data/meta", 10, other.c_str(), other.size(), &rel, &rl);
    EXPECT_EQ(std::string(rel, rl), other);  // a prefix is not the same directory
    ASSERT_GE(dapdeadd(fib, rel, rl), 0);
    char out[256];
    ASSERT_EQ(dapdefn(fib, 0, "/moved/meta/", 12, out, sizeof out), 0);
    EXPECT_STREQ(out, "/moved/meta/t.dpf._data_meta.1.1.vrta9");
    ASSERT_EQ(dapdefn(fib, 1, "/moved/meta", 11, out, sizeof out), 0);
    EXPECT_EQ(out, other);
    EXPECT_EQ(dapdefn(fib, 0, "/moved/meta", 11, out, 20), DA_BADARG);
    EXPECT_EQ(dapdefn(fib, 2, "/moved/meta", 11, out, sizeof out), DA_BADARG);
}

TEST(Daods, FibAllocationRevisionAndOverflowChain) {
    const char* meta = "/m";
    const char* two[] = {"/d1", "/d22"};
    EXPECT_EQ(dagetfibsize(0, true, 1, &meta, "/m/", 5, 0, 4096), 4096);  // (1+2)*80+272, doubled
    EXPECT_EQ(dagetfibsize(0, true, 1, &meta, "/m/", 5, 10000, 4096), 12288);
    // Two paths: (5+8+3+8) + (5+8+4+8) + 2064 + 272 = 2385, doubled, to 512.
    EXPECT_EQ(dagetfibsize(0, true, 2, two, "/m", 5, 0, 512), 5120);
    // By size: capped at 8192 before doubling.
    EXPECT_EQ(dagetfibsize(0x4000, false, 2, two, nullptr, 5, 0, 4096), 16384);
    EXPECT_EQ(danextrev(1), 2);
    EXPECT_EQ(danextrev(9998), 9999);
    EXPECT_EQ(danextrev(9999), 1);

    MemFile m;
    auto io = m.io();
    m.data.assign(100, '\0');
    std::vector<char> a(1024), b(2048);
    auto* fa = reinterpret_cast<DA_FIB*>(a.data());
    auto* fb = reinterpret_cast<DA_FIB*>(b.data());
    dainitfib(fa, 1024, 0x40, 1, nullptr, 3, 0);
    dainitfib(fb, 2048, 0x40, 1, nullptr, 3, 0);
    EXPECT_GE(dapdeadd(fb, "new", 3), 0);
    da_off_t ao = -1, bo = -1;
    ASSERT_EQ(dawrfib(io, fa, &ao), 0);
    ASSERT_EQ(dawrfib(io, fb, &bo), 0);
    fa->overflow = bo;
    ASSERT_EQ(dawrfib(io, fa, &ao), 0);
    std::vector<char> out(4096);
    int32_t fsz = 0;
    da_off_t at = 0;
    ASSERT_EQ(dardfib(io, 0, ao, reinterpret_cast<DA_FIB*>(out.data()), 4096, &fsz, &at), 0);
    EXPECT_EQ(at, bo);
    EXPECT_EQ(fsz, 2048);
    EXPECT_EQ(std::memcmp(out.data(), b.data(), 2048), 0);
    // Too small a buffer says how much is needed.
    EXPECT_EQ(dardfib(io, 0, ao, reinterpret_cast<DA_FIB*>(out.data()), 1024, &fsz, &at), DA_TOOLONG);
    EXPECT_EQ(fsz, 2048);
    // A chain that points back on itself.
    fb->overflow = ao;
    ASSERT_EQ(dawrfib(io, fb, &bo), 0);
    EXPECT_EQ(dardfib(io, 0, ao, reinterpret_cast<DA_FIB*>(out.data()), 4096, &fsz, &at), DA_INTERNAL);
    // Length above 272 and a wrong version.
    fb->overflow = 0;
    fb->length = 280;
    ASSERT_EQ(dawrfib(io, fb, &bo), 0);
    EXPECT_EQ(dardfib(io, 0, bo, reinterpret_cast<DA_FIB*>(out.data()), 4096, &fsz, &at), DA_TOOLONG);
    fb->length = 272;
    fb->version = 0x100;
    ASSERT_EQ(dawrfib(io, fb, &bo), 0);
    EXPECT_EQ(dardfib(io, 0, bo, reinterpret_cast<DA_FIB*>(out.data()), 4096, &fsz, &at), DA_BADVERSION);
    EXPECT_EQ(dardfib(io, 0x10000, bo, reinterpret_cast<DA_FIB*>(out.data()), 4096, &fsz, &at), 0);
}

TEST(Daods, DirectFibLeavesLockRegionAndNeedsZeroHead) {
    vrtatest::TempDir dir;
    std::string path = dir.file("t.mdf.0.0.0.vrta9");
    vrtatest::writeFile(path, std::string(4096, '\xee'));
    int fd = ::open(path.c_str(), O_RDWR);
    ASSERT_GE(fd, 0);
    auto io = daodspfd(&fd, path.c_str());
    std::vector<char> buf(4096);
    auto* fib = reinterpret_cast<DA_FIB*>(buf.data());
    dainitfib(fib, 4096, 0x480, 1, nullptr, 1, 0);
    ASSERT_GE(dapdeadd(fib, "t.mdf.0.0.0.vrta9", 17), 0);
    std::memset(fib->lockrgn, 0x11, 4);
    ASSERT_EQ(dawrfibd(io, fib), 0);
    std::string bytes = vrtatest::readFile(path);
    EXPECT_EQ(bytes.substr(268, 4), std::string(4, '\xee'));
    std::vector<char> back(4096);
    int32_t fsz = 0;
    ASSERT_EQ(dardfibd(io, 0, reinterpret_cast<DA_FIB*>(back.data()), 4096, &fsz), 0);
    EXPECT_EQ(fsz, 4096);
    EXPECT_EQ(std::memcmp(back.data(), buf.data(), 268), 0);
    EXPECT_EQ(std::memcmp(back.data() + 272, buf.data() + 272, 4096 - 272), 0);
    // The requirement head must be zero in a current file, not in an old one.
    char one = 1;
    ASSERT_EQ(::pwrite(fd, &one, 1, 2), 1);
    EXPECT_EQ(dardfibd(io, 0, reinterpret_cast<DA_FIB*>(back.data()), 4096, &fsz), DA_BADVERSION);
    fib->version = 0x101;
    ASSERT_EQ(dawrfibd(io, fib), 0);
    ASSERT_EQ(::pwrite(fd, &one, 1, 2), 1);
    EXPECT_EQ(dardfibd(io, 0x10000, reinterpret_cast<DA_FIB*>(back.data()), 4096, &fsz), 0);
    ::close(fd);
}

TEST(Daods, WalkReachesEveryRecordOfATable) {
    MemFile m;
    auto io = m.io();
    int32_t fibsize = buildTable(io);
    EXPECT_EQ(fibsize, 4096);
    {
        // A name whose string pool id points past the pool is refused.
        MemFile bad = m;
        DA_DSFHEAD h;
        std::memcpy(&h, bad.data.data() + 4096, sizeof h);
        int32_t pid = 1 << 12;  // section 1 of a pool with one section
        std::memcpy(bad.data.data() + h.links[DA_LNKNAMES] + 76 + 32, &pid, 4);
        Seen s;
        int fk = -1;
        EXPECT_EQ(damdfwalk(bad.io(), 0, collect, &s, &fk, nullptr), DA_INTERNAL);
        EXPECT_EQ(fk, DA_MRNAMES);
        pid = 4094;  // inside the section, but the text would run past it
        std::memcpy(bad.data.data() + h.links[DA_LNKNAMES] + 76 + 32, &pid, 4);
        EXPECT_EQ(damdfwalk(bad.io(), 0, collect, &s, &fk, nullptr), DA_INTERNAL);
    }
    Seen seen;
    int fk = -1;
    da_off_t fo = 0;
    ASSERT_EQ(damdfwalk(io, 0, collect, &seen, &fk, &fo), 0);
    std::vector<int> want = {DA_MRFIB,  DA_MRDSFH,  DA_MRXOE,    DA_MRSIN,   DA_MROWN,  DA_MRBACKUP,
                             DA_MRSTRPH, DA_MRSTRP, DA_MRVARS, DA_MRNAMES, DA_MRIDX,   DA_MRIDXFIB, DA_MRDPFFIB,
                             DA_MRDMPH, DA_MRDMPD,  DA_MRCONST};
    EXPECT_EQ(seen.kinds, want);
    // The first bytes of every table.
    EXPECT_EQ(m.data.substr(0, 8), std::string("\0\0\0\0\0\x01\0\x80", 8));
}

// Every cut and every flipped byte must end in a clean code, and (under
// AddressSanitizer) never read outside the buffers the walker sized.
TEST(Daods, DamagedFilesGiveCodesNotCrashes) {
    MemFile whole;
    buildTable(whole.io());
    const std::string image = whole.data;
    Seen full;
    ASSERT_EQ(damdfwalk(whole.io(), 0, collect, &full, nullptr, nullptr), 0);

    auto allowed = [](rctype rc) {
        return rc == 0 || rc == DA_SHORTREAD || rc == DA_TOOLONG || rc == DA_BADVERSION || rc == DA_INTERNAL ||
               rc == DA_BADSEMTYPE;
    };
    for (size_t cut = 0; cut < image.size(); cut++) {
        MemFile m;
        m.data = image.substr(0, cut);
        Seen s;
        int fk = -1;
        rctype rc = damdfwalk(m.io(), 0, collect, &s, &fk, nullptr);
        // Records lie in the file up to its end: a cut always loses one.
        ASSERT_NE(rc, 0) << "cut " << cut;
        ASSERT_TRUE(allowed(rc)) << "cut " << cut << " rc " << std::hex << rc;
    }
    for (size_t pos = 0; pos < image.size(); pos++) {
        MemFile m;
        m.data = image;
        m.data[pos] = static_cast<char>(m.data[pos] ^ 0xff);
        Seen s;
        rctype rc = damdfwalk(m.io(), 0, collect, &s, nullptr, nullptr);
        ASSERT_TRUE(allowed(rc)) << "flip " << pos << " rc " << std::hex << rc;
    }
    // A flipped version byte of the description is reported as such.
    Seen s;
    MemFile m;
    m.data = image;
    DA_DSFHEAD h;
    std::memcpy(&h, image.data() + 4096, sizeof h);
    m.data[h.links[DA_LNKXOE] + 3] ^= 0x0f;
    int fk = -1;
    da_off_t fo = 0;
    EXPECT_EQ(damdfwalk(m.io(), 0, collect, &s, &fk, &fo), DA_BADVERSION);
    EXPECT_EQ(fk, DA_MRXOE);
    EXPECT_EQ(fo, h.links[DA_LNKXOE]);
}

TEST(Daods, HeaderFlagsRewriteTouchesOnlyTheirBytes) {
    MemFile m;
    buildTable(m.io());
    std::string before = m.data;
    ASSERT_EQ(dawrdsfflags(m.io(), 4096, 0), 0);
    ASSERT_EQ(m.data.size(), before.size());
    for (size_t i = 0; i < before.size(); i++)
        if (i < 4096 + 16 || i >= 4096 + 20) {
            ASSERT_EQ(m.data[i], before[i]) << i;
        }
    DA_DSFHEAD h{};
    ASSERT_EQ(dardsfh(m.io(), &h, 4096), 0);
    EXPECT_EQ(h.flags, 0);
    EXPECT_EQ(h.korver, 7);
}

// The inspection command on a whole table, a cut one and a missing one.
TEST(Daods, MdfCommandPrintsTableAndFailsCleanlyOnDamage) {
    std::string tool = std::string(VRTA_TOOLS_DIR) + "/vrta";
    struct stat st;
    ASSERT_EQ(0, ::stat(tool.c_str(), &st)) << "the vrta tool is not built";
    vrtatest::TempDir dir;
    std::string path = dir.file("t.mdf.0.0.0.vrta9");
    vrtatest::writeFile(path, "");
    int fd = ::open(path.c_str(), O_RDWR);
    ASSERT_GE(fd, 0);
    buildTable(daodspfd(&fd, path.c_str()));
    ::close(fd);
    auto run = [&](const std::string& arg, std::string* out) {
        vrtatest::CmdResult r = vrtatest::runCommand(tool + " mdf '" + arg + "' 2>&1");
        *out = std::move(r.out);
        return r.status;
    };
    std::string out;
    ASSERT_EQ(run(dir.file("t"), &out), 0) << out;
    EXPECT_NE(out.find("partition 0: t.mdf.0.0.0.vrta9"), std::string::npos) << out;
    EXPECT_NE(out.find("numobs 10"), std::string::npos) << out;
    EXPECT_NE(out.find("partition 0: t.dpf._data_meta.0.1.vrta9"), std::string::npos) << out;
    EXPECT_NE(out.find("index \"x\""), std::string::npos) << out;
    EXPECT_NE(out.find("key of 8 bytes"), std::string::npos) << out;
    EXPECT_NE(out.find("\"qty\""), std::string::npos) << out;

    std::string image = vrtatest::readFile(path);
    vrtatest::writeFile(dir.file("c.mdf.0.0.0.vrta9"), image.substr(0, 5000));
    EXPECT_EQ(run(dir.file("c.mdf"), &out), 1);
    EXPECT_NE(out.find("cannot read DA_XOEODS at offset 4440"), std::string::npos) << out;
    vrtatest::writeFile(dir.file("z.mdf.0.0.0.vrta9"), std::string(100, 'z'));
    EXPECT_EQ(run(dir.file("z"), &out), 1);
    EXPECT_NE(out.find("cannot read FIB"), std::string::npos) << out;
    EXPECT_EQ(run(dir.file("none"), &out), 1);
    EXPECT_EQ(run("--help", &out), 0);
}

// Records written through the partitioned file layer read back through it,
// and the walker finds the direct FIB at logical offset 0.
TEST(Daods, RecordsThroughTheLogicalFile) {
    vrtatest::TempDir dir;
    const char* paths[] = {dir.path().c_str()};
    DA_FDSTR fs{};
    fs.name = "t.mdf";
    fs.namelen = 5;
    fs.numpath = 1;
    fs.paths = paths;
    fs.flags = 0x4 | 0x100;
    fs.perms = -1;
    fs.minfree = -1;
    fs.fiboff = -1;
    DA_FD* fd = nullptr;
    ASSERT_EQ(dafdopn(&fs, &fd), 0);
    ASSERT_GT(fd->baseoff, 0);
    DA_DSFHEAD h;
    dainitdsfh(&h);
    da_off_t hoff = fd->baseoff;
    ASSERT_EQ(dawrods(fd, &h, &hoff), 0);
    DA_XOEODS x;
    dainitxoe(&x);
    x.numobs = 5;
    da_off_t xoff = -1;
    ASSERT_EQ(dawrods(fd, &x, &xoff), 0);
    EXPECT_EQ(xoff, fd->baseoff + 344);
    h.links[DA_LNKXOE] = xoff;
    ASSERT_EQ(dawrods(fd, &h, &hoff), 0);
    x.numobs = 6;
    ASSERT_EQ(dawrxoe(fd, &x, xoff), 0);
    DA_XOEODS back{};
    ASSERT_EQ(dardxoe(fd, &back, xoff), 0);
    EXPECT_EQ(back.numobs, 6);
    EXPECT_EQ(dardods(fd, &back, 100, xoff), DA_TOOLONG);
    EXPECT_EQ(dardods(fd, &back, sizeof back, xoff + 672), DA_SHORTREAD);
    ASSERT_EQ(fd->fdclose(fd), 0);
    EXPECT_TRUE(vrtatest::readFile(dir.file("t.mdf.0.0.0.vrta9")).size() > 0);

    fs.flags = 0x2;
    ASSERT_EQ(dafdopn(&fs, &fd), 0);
    Seen seen;
    ASSERT_EQ(damdfwalk(daodsfd(fd), 0, collect, &seen, nullptr, nullptr), 0);
    EXPECT_EQ(seen.kinds, (std::vector<int>{DA_MRFIB, DA_MRDSFH, DA_MRXOE}));
    ASSERT_EQ(fd->fdclose(fd), 0);
}
