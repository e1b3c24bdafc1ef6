// Message bodies: byte images against hand-computed bytes, the protocol-level
// gates, round trips of every record, and bodies that lie about their length.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <deque>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "eng/hpdmsg.h"
#include "ssup/xp.h"
#include "testutil.h"

using namespace vrta;

namespace {

using Bytes = std::vector<unsigned char>;

template <class R>
Bytes pack(const R& r, int level) {
    long n = -1;
    EXPECT_EQ(dssize(r, level, &n), 0);
    // Exactly the announced size: the sanitizer sees a write past it.
    Bytes b(static_cast<size_t>(n));
    long filled = -1;
    EXPECT_EQ(dsfill(r, level, b.data(), &filled), 0);
    EXPECT_EQ(filled, n);
    return b;
}

// "00 0a ..." from hex text with blanks anywhere; quoted runs are literal.
Bytes hex(const std::string& s) {
    Bytes b;
    for (size_t i = 0; i < s.size(); ++i) {
        if (s[i] == ' ') continue;
        if (s[i] == '\'') {
            size_t e = s.find('\'', i + 1);
            for (size_t j = i + 1; j < e; ++j) b.push_back(static_cast<unsigned char>(s[j]));
            i = e;
            continue;
        }
        b.push_back(static_cast<unsigned char>(std::stoi(s.substr(i, 2), nullptr, 16)));
        ++i;
    }
    return b;
}

void setc(char* dst, size_t n, const char* text) {
    std::memset(dst, ' ', n);
    std::memcpy(dst, text, std::strlen(text));
}

std::vector<std::string> subs() {
    std::vector<std::string> out;
    const char* p;
    int len;
    while (xrgtsub(&p, &len) == 0) out.emplace_back(p, static_cast<size_t>(len));
    return out;
}

TEST(HpdMsg, BodiesMatchHandComputedBytes) {
    DS_YHELDAS das{};
    das.libid = 0x0a0b0c0d;
    EXPECT_EQ(pack(das, 13), hex("0a0b0c0d"));

    DS_YOEFORC forc{};
    forc.openid = 1;
    forc.obscount = -2;
    forc.mode = 3;
    EXPECT_EQ(pack(forc, 13), hex("00000001 fffffffffffffffe 00000003"));

    // A double goes as its IEEE bytes, most significant first.
    DS_YCECLOS_REPLY cl{};
    cl.msglen = 2;
    cl.msg = "ok";
    cl.pct = 1.5;
    EXPECT_EQ(pack(cl, 13), hex("00000002 'ok' 3ff8000000000000"));

    // A short is two bytes; an empty len+data is its length word alone.
    DS_YOECLOS oc{};
    oc.openid = 7;
    oc.disp = 1;
    setc(oc.collate, 8, "ASCII");
    oc.flags = 0x0102;
    setc(oc.type, 8, "DATA");
    oc.labell = 1;
    oc.label = "T";
    EXPECT_EQ(pack(oc, 13), hex("00000007 00000001 'ASCII   ' 0102 00000000 00000000 'DATA    ' 00000001 'T'"));

    // A column: raw name bytes, eight single bytes, the label behind its
    // length, then the numbers; the tail of the long form after the spares.
    DS_YVEDEFV dv{};
    dv.openid = 2;
    dv.obslen = 16;
    dv.nvar = 2;
    dv.varnum = 1;
    setc(dv.ns.nname, 32, "AGE");
    dv.ns.ntype = 1;
    dv.ns.nindex = 'Y';
    dv.ns.nlabell = 3;
    dv.ns.nlabel = "Age";
    dv.ns.npos = 8;
    dv.ns.nlng = 8;
    dv.ns.nvar0 = 1;
    setc(dv.ns.nform, 32, "BEST");
    dv.ns.nfl = 12;
    setc(dv.ns.niform, 32, "");
    dv.ns.spare1 = 0x55;
    dv.nscale = -1;
    dv.ntype2 = 'N';
    std::string blanks32(32, ' ');
    EXPECT_EQ(pack(dv, 13),
              hex("00000002 00000010 00000002 00000001 00000000 'AGE" + std::string(29, ' ') +
                  "' 01 00 59 00 00 00 00 00 00000003 'Age' 00000000 00000008 0008 00000001 'BEST" +
                  std::string(28, ' ') + "' 000c 0000 '" + blanks32 +
                  "' 0000 0000 00000055 00000000 00000000 00000000"
                  " 00000000 00000000 00000000 00000000 ffff 0000 4e"));
}

TEST(HpdMsg, GatedFieldsFollowTheConnectionLevel) {
    DS_YHELASG a{};
    setc(a.libname, 8, "MYLIB");
    a.physlen = 2;
    a.phys = "/d";
    setc(a.owner, 8, "");
    setc(a.user, 8, "ann");
    a.backup = 1;
    a.flag = 0x100;
    setc(a.domain, 32, "DOM");
    a.fmtlib = 1;
    a.encoding_cei = 28;
    setc(a.locale, 32, "en_US");
    a.workpathl = 4;
    a.workpath = "/wrk";
    const Bytes head = hex("'MYLIB   ' 00000002 '/d' 00000000 00000000 00000000 00000000 00000000 00000000 "
                           "00000000 00000000 '        ' 00000000 00000001 'ann     '");
    Bytes l7 = head, l9, l11;
    for (unsigned char c : hex("00000100 'DOM" + std::string(29, ' ') + "' 00000001")) l7.push_back(c);
    l9 = l7;
    for (unsigned char c : hex("0000001c 'en_US" + std::string(27, ' ') + "'")) l9.push_back(c);
    l11 = l9;
    for (unsigned char c : hex("00000004 '/wrk'")) l11.push_back(c);

    // An unknown server (-1) and the oldest levels get the oldest form.
    EXPECT_EQ(pack(a, -1), head);
    EXPECT_EQ(pack(a, 6), head);
    EXPECT_EQ(pack(a, 7), l7);
    EXPECT_EQ(pack(a, 8), l7);
    EXPECT_EQ(pack(a, 9), l9);
    EXPECT_EQ(pack(a, 10), l9);
    EXPECT_EQ(pack(a, 11), l11);
    EXPECT_EQ(pack(a, 12), l11);
    EXPECT_EQ(pack(a, 13), l11);

    // A body of the old form parses at the old level, not at the new one.
    DS_YHELASG back{};
    EXPECT_EQ(dsparse(back, 9, l9.data(), static_cast<long>(l9.size())), 0);
    EXPECT_EQ(back.encoding_cei, 28);
    EXPECT_EQ(back.workpathl, 0);
    EXPECT_EQ(dsparse(back, 11, l9.data(), static_cast<long>(l9.size())), DS_RC_BADMSG);
    EXPECT_EQ(dsparse(back, 7, l9.data(), static_cast<long>(l9.size())), DS_RC_BADMSG);

    // The table open of level 9 has neither encoding_cei nor sortsize.
    DS_YOEOPEN o{};
    o.encoding_cei = 20;
    o.sortsize = 1LL << 40;
    long n9 = 0, n11 = 0;
    ASSERT_EQ(dssize(o, 9, &n9), 0);
    ASSERT_EQ(dssize(o, 11, &n11), 0);
    EXPECT_EQ(n11 - n9, 12);
    Bytes b11 = pack(o, 11);
    EXPECT_EQ(Bytes(b11.end() - 12, b11.end()), hex("00000014 0000010000000000"));

    // The open reply grows at 9 and again at 11.
    DS_YOEOPEN_REPLY r{};
    r.dsnlist_clust = 3;
    r.dsn_clust = "abc";
    long r7 = 0, r9 = 0, r11 = 0;
    ASSERT_EQ(dssize(r, 7, &r7), 0);
    ASSERT_EQ(dssize(r, 9, &r9), 0);
    ASSERT_EQ(dssize(r, 11, &r11), 0);
    EXPECT_EQ(r9 - r7, 4);
    EXPECT_EQ(r11 - r9, 4 + 3 + 4 + 4);

    // The name server's answer has its flag from level 7 on.
    DS_LIB_INFO_REPLY li{};
    long i6 = 0, i7 = 0;
    ASSERT_EQ(dssize(li, 6, &i6), 0);
    ASSERT_EQ(dssize(li, 7, &i7), 0);
    EXPECT_EQ(i7 - i6, 4);
}

// Gives every field a value of its own, by the record's description, with
// len+data fields pointing into store.
void fillFields(const DS_RECDESC* d, unsigned char* rec, std::mt19937& rng, std::deque<std::string>& store) {
    for (int i = 0; i < d->nfields; ++i) {
        const DS_FIELD& f = d->fields[i];
        unsigned char* p = rec + f.off;
        uint64_t v = (static_cast<uint64_t>(rng()) << 32) | rng();
        switch (f.kind) {
            case DsKind::I2: { int16_t x = static_cast<int16_t>(v); std::memcpy(p, &x, 2); break; }
            case DsKind::I4: { int32_t x = static_cast<int32_t>(v); std::memcpy(p, &x, 4); break; }
            case DsKind::I8: std::memcpy(p, &v, 8); break;
            case DsKind::F8: { double x = static_cast<double>(v % 100000) / 7.0; std::memcpy(p, &x, 8); break; }
            case DsKind::B: *p = static_cast<unsigned char>(v); break;
            case DsKind::C:
                for (int j = 0; j < f.width; ++j) p[j] = static_cast<unsigned char>(rng());
                break;
            case DsKind::L: {
                store.emplace_back(rng() % 40, '\0');
                for (char& c : store.back()) c = static_cast<char>(rng());
                int32_t len = static_cast<int32_t>(store.back().size());
                const char* data = store.back().data();
                std::memcpy(rec + f.lenoff, &len, 4);
                std::memcpy(p, &data, sizeof data);
                break;
            }
            case DsKind::S: fillFields(f.sub, p, rng, store); break;
        }
    }
}

// Each field of got equals want where the level lets it on the wire, and is
// zero where it does not.
void compareFields(const DS_RECDESC* d, const unsigned char* want, const unsigned char* got, int level,
                   bool gatedIn, const std::string& where) {
    for (int i = 0; i < d->nfields; ++i) {
        const DS_FIELD& f = d->fields[i];
        const bool on = gatedIn && (f.level == 0 || level >= f.level);
        const std::string at = where + "." + f.name + " at level " + std::to_string(level);
        const unsigned char* w = want + f.off;
        const unsigned char* g = got + f.off;
        size_t width = 0;
        switch (f.kind) {
            case DsKind::I2: width = 2; break;
            case DsKind::I4: width = 4; break;
            case DsKind::I8: case DsKind::F8: width = 8; break;
            case DsKind::B: width = 1; break;
            case DsKind::C: width = f.width; break;
            case DsKind::L: {
                int32_t wl, gl;
                const char *wd, *gd;
                std::memcpy(&wl, want + f.lenoff, 4);
                std::memcpy(&gl, got + f.lenoff, 4);
                std::memcpy(&wd, w, sizeof wd);
                std::memcpy(&gd, g, sizeof gd);
                if (!on) {
                    EXPECT_EQ(gl, 0) << at;
                    EXPECT_EQ(gd, nullptr) << at;
                } else {
                    ASSERT_EQ(gl, wl) << at;
                    if (wl) {
                        EXPECT_EQ(std::memcmp(gd, wd, static_cast<size_t>(wl)), 0) << at;
                    } else {
                        EXPECT_EQ(gd, nullptr) << at;
                    }
                }
                continue;
            }
            case DsKind::S: compareFields(f.sub, w, g, level, on, at); continue;
        }
        if (on) {
            EXPECT_EQ(std::memcmp(w, g, width), 0) << at;
        } else {
            EXPECT_EQ(std::memcmp(g, std::string(width, '\0').data(), width), 0) << at;
        }
    }
}

const int levels[] = {-1, 0, 2, 3, 6, 7, 8, 9, 10, 11, 12, 13};

std::vector<const DS_RECDESC*> allRecords() {
    std::vector<const DS_RECDESC*> out;
    int n = 0;
    const DS_METHOD* m = dsmethods(&n);
    for (int i = 0; i < n; ++i) out.insert(out.end(), {m[i].req, m[i].rep});
    int nf = 0;
    const DS_FOLLOWON* f = dsfollowons(&nf);
    for (int i = 0; i < nf; ++i) out.push_back(f[i].rec);
    return out;
}

TEST(HpdMsg, EveryRecordRoundTripsAtEveryLevel) {
    std::mt19937 rng(13);
    for (const DS_RECDESC* d : allRecords()) {
        std::vector<unsigned char> want(d->size, 0), got(d->size, 0xee);
        std::deque<std::string> store;  // elements stay where they are
        fillFields(d, want.data(), rng, store);
        for (int level : levels) {
            long n = 0, filled = 0;
            ASSERT_EQ(dssize(d, want.data(), level, &n), 0) << d->name;
            Bytes body(static_cast<size_t>(n));
            ASSERT_EQ(dsfill(d, want.data(), level, body.data(), &filled), 0) << d->name;
            ASSERT_EQ(filled, n) << d->name;
            ASSERT_EQ(dsparse(d, got.data(), level, body.data(), n), 0) << d->name << " at level " << level;
            compareFields(d, want.data(), got.data(), level, true, d->name);
            // Packing what was parsed gives the same bytes.
            Bytes again(static_cast<size_t>(n));
            ASSERT_EQ(dsfill(d, got.data(), level, again.data(), &filled), 0);
            EXPECT_EQ(again, body) << d->name;
        }
    }
}

TEST(HpdMsg, BodiesThatDoNotFitTheirLengthAreRefused) {
    DS_YHELASG_REPLY r{};
    r.msglen = 5;
    r.msg = "hello";
    r.physlen = 3;
    r.phys = "/dx";
    r.usertokl = 4;
    r.usertok = "tokn";
    r.size = 12.0;
    Bytes full = pack(r, 13);

    // Every cut is refused, from a heap block of exactly the cut length so
    // that a read past it is seen.
    for (size_t cut = 0; cut < full.size(); ++cut) {
        std::unique_ptr<unsigned char[]> b(new unsigned char[cut ? cut : 1]);
        std::memcpy(b.get(), full.data(), cut);
        DS_YHELASG_REPLY got{};
        EXPECT_EQ(dsparse(got, 13, b.get(), static_cast<long>(cut)), DS_RC_BADMSG) << cut;
    }

    // A length running past the end, or negative; bytes left over.
    DS_YHELASG_REPLY got{};
    Bytes bad = full;
    bad[3] = 6;  // msglen 6 of a body whose msg is 5
    EXPECT_EQ(dsparse(got, 13, bad.data(), static_cast<long>(bad.size())), DS_RC_BADMSG);
    bad = full;
    bad[0] = 0x7f;
    EXPECT_EQ(dsparse(got, 13, bad.data(), static_cast<long>(bad.size())), DS_RC_BADMSG);
    EXPECT_EQ(subs(), (std::vector<std::string>{"DS_YHELASG_REPLY", "msg"}));
    bad = full;
    bad[0] = 0xff;
    EXPECT_EQ(dsparse(got, 13, bad.data(), static_cast<long>(bad.size())), DS_RC_BADMSG);
    bad = full;
    bad.push_back(0);
    EXPECT_EQ(dsparse(got, 13, bad.data(), static_cast<long>(bad.size())), DS_RC_BADMSG);
    EXPECT_EQ(subs(), (std::vector<std::string>{"DS_YHELASG_REPLY", "its end"}));
    long used = 0;
    EXPECT_EQ(dsdecode(&DS_YHELASG_REPLY_D, &got, 13, bad.data(), static_cast<long>(bad.size()), &used), 0);
    EXPECT_EQ(used, static_cast<long>(full.size()));
    EXPECT_EQ(std::string(got.usertok, 4), "tokn");

    // A record that cannot be packed says which length is wrong.
    DS_YHELDAS_REPLY m{};
    m.msglen = -1;
    long n = 0;
    EXPECT_EQ(dssize(m, 13, &n), DS_RC_BADREC);
    EXPECT_EQ(subs(), (std::vector<std::string>{"DS_MSG_REPLY", "msglen"}));
    m.msglen = 3;
    m.msg = nullptr;
    EXPECT_EQ(dssize(m, 13, &n), DS_RC_BADREC);
    m.msglen = 0x7ffffff0;
    m.msg = "x";  // never read: the length alone is too long for a frame
    EXPECT_EQ(dssize(m, 13, &n), DS_RC_BADREC);
}

TEST(HpdMsg, MethodNumbersAreThoseInUse) {
    int n = 0;
    const DS_METHOD* m = dsmethods(&n);
    EXPECT_EQ(n, 77);
    for (int id : {11, 15, 26, 27, 28, 31, 39, 42, 48, 56, 78, 83, 88, 89, 90, 92, -1, 100})
        EXPECT_EQ(dsmethod(id), nullptr) << id;
    for (int i = 0; i < n; ++i) EXPECT_EQ(dsmethod(m[i].id), &m[i]);
    EXPECT_STREQ(dsmethod(0)->name, "DS_YHELASG");
    EXPECT_EQ(dsmethod(0)->req, &DS_YHELASG_D);
    EXPECT_STREQ(dsmethod(81)->name, "DS_SEL_GRP_MSG");
    EXPECT_EQ(dsmethod(80)->req, dsmethod(81)->req);
    EXPECT_EQ(dsmethod(91)->rep, &DS_LIB_INFO_REPLY_D);
    // A read may be ended with number 14 or 16: the bodies are the same.
    EXPECT_EQ(dsmethod(14)->req, dsmethod(16)->req);
    EXPECT_EQ(DSM_YOEGET_START, 17);
    EXPECT_EQ(DSM_LIBNAME_INFO8, 91);
}

// Random bytes as the body of every record at every level: a parse either
// succeeds within the body or refuses; the sanitizers catch any read past it.
TEST(HpdMsg, RandomBodiesNeverReadPastTheirEnd) {
    const int rounds = std::getenv("VRTA_LONG") ? 2000 : 60;
    std::mt19937 rng(1313);
    const auto recs = allRecords();
    for (int round = 0; round < rounds; ++round) {
        for (const DS_RECDESC* d : recs) {
            // Small lengths make the length words land inside the body often.
            const size_t len = rng() % 96;
            std::unique_ptr<unsigned char[]> b(new unsigned char[len ? len : 1]);
            for (size_t i = 0; i < len; ++i) {
                unsigned r = rng();
                b[i] = (r & 3) == 0 ? static_cast<unsigned char>(r >> 8) : static_cast<unsigned char>((r >> 8) & 7);
            }
            std::vector<unsigned char> rec(d->size);
            const int level = levels[rng() % (sizeof levels / sizeof levels[0])];
            rctype rc = dsparse(d, rec.data(), level, b.get(), static_cast<long>(len));
            ASSERT_TRUE(rc == 0 || rc == DS_RC_BADMSG) << d->name;
            if (rc == 0) {
                // What parsed packs back to the same bytes.
                long n = 0;
                ASSERT_EQ(dssize(d, rec.data(), level, &n), 0);
                ASSERT_EQ(n, static_cast<long>(len));
                Bytes again(static_cast<size_t>(n));
                ASSERT_EQ(dsfill(d, rec.data(), level, again.data(), &n), 0);
                if (len) {
                    EXPECT_EQ(std::memcmp(again.data(), b.get(), len), 0) << d->name;
                }
            }
        }
    }
}

// docs/wire.md carries the listing that the descriptions make, byte for byte:
// a changed message without its document fails here (run vrta wire).
TEST(HpdMsg, TheDocumentListsTheMessagesAsBuilt) {
    char* text = dsdocument();
    ASSERT_NE(text, nullptr);
    const std::string want(text);
    std::free(text);
    const std::string doc = vrtatest::readFile(std::string(VRTA_SRC_MSGDIR) + "/../docs/wire.md");
    EXPECT_NE(doc.find(want), std::string::npos) << "docs/wire.md should hold:\n" << want;
}

}  // namespace
