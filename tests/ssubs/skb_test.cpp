#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "option/op.h"
#include "ssubs/skb.h"

using namespace vrta;

namespace {

double fromBits(uint64_t u) {
    double d;
    memcpy(&d, &u, 8);
    return d;
}
uint64_t bitsOf(double d) {
    uint64_t u;
    memcpy(&u, &d, 8);
    return u;
}
bool isMissing(uint64_t u) { return (u >> 48) == 0xffff; }

// The order numbers must have, worked out without the key code: missing
// values first, by rank (the negated sixth byte), then by numeric value.
int numOrder(uint64_t a, uint64_t b) {
    bool ma = isMissing(a), mb = isMissing(b);
    if (ma != mb) return ma ? -1 : 1;
    if (ma) {
        int ra = -static_cast<int>((a >> 40) & 0xff), rb = -static_cast<int>((b >> 40) & 0xff);
        return ra < rb ? -1 : ra > rb ? 1 : 0;
    }
    double x = fromBits(a), y = fromBits(b);
    return x < y ? -1 : x > y ? 1 : 0;
}

int sign(int v) { return v < 0 ? -1 : v > 0 ? 1 : 0; }

// A block over the given columns, with the end flags, ready for makekey.
struct Block {
    SKB_KEY skb;
    explicit Block(const std::vector<std::array<int, 4>>& cols, int creflags = SKB_MAKEKEY, int endflags = 0,
                   int datalen = 0, const unsigned char* seq = nullptr, HS_NLSENV* kenv = nullptr,
                   HS_NLSENV* denv = nullptr) {
        EXPECT_EQ(0, skbinit(&skb, kenv, denv, seq, creflags, datalen, static_cast<int>(cols.size())));
        for (auto& c : cols) EXPECT_EQ(0, skb.mt.addcol(&skb, c[0], c[1], c[2], c[3]));
        EXPECT_EQ(0, skb.mt.addend(&skb, endflags));
    }
    ~Block() { skb.mt.destroy(&skb); }
    std::string key(const void* row, hs_obsno_t obs = 1, int* miss = nullptr) {
        std::string rec(skb.info.reclen, '\0');
        long n = 0;
        EXPECT_EQ(0, skb.mt.makekey(&skb, row, obs, rec.data(), &n, miss));
        EXPECT_EQ(1, n);
        return rec;
    }
    std::string keypart(const void* row, hs_obsno_t obs = 1) { return key(row, obs).substr(0, skb.info.totkeylen); }
};

int bytesOrder(const std::string& a, const std::string& b) { return sign(memcmp(a.data(), b.data(), a.size())); }

}  // namespace

TEST(KeyBlock, NumberKeysCompareAsTheNumbersDo) {
    std::mt19937_64 rng(7);
    std::vector<uint64_t> v = {bitsOf(0.0), bitsOf(-0.0), bitsOf(1.0), bitsOf(-1.0), bitsOf(5e-324),
                               bitsOf(-5e-324), bitsOf(2.2250738585072009e-308), bitsOf(-2.2250738585072009e-308),
                               bitsOf(INFINITY), bitsOf(-INFINITY), bitsOf(1.7976931348623157e308),
                               0xfffe000000000000ull /* largest negative NaN below the missing range */};
    for (int b5 : {0x00, 0x01, 0x2e, 0x5f, 0xa0, 0xd2, 0xfe, 0xff}) v.push_back(0xffff000000000000ull | (uint64_t(b5) << 40));
    for (int i = 0; i < 3000; ++i) {
        uint64_t u = rng();
        int kind = i % 4;
        if (kind == 0) u &= 0x800fffffffffffffull;  // denormals of either sign
        if (kind == 1) u = bitsOf(std::ldexp(static_cast<double>(static_cast<int64_t>(u)) / 9e18, static_cast<int>(rng() % 200) - 100));
        if (((u >> 52) & 0x7ff) == 0x7ff && !isMissing(u) && (u & 0xfffffffffffffull)) continue;  // no order for NaN
        v.push_back(u);
    }
    // 0xfffe... is a NaN too: it has no numeric order, drop it from the check.
    v.erase(std::remove(v.begin(), v.end(), 0xfffe000000000000ull), v.end());

    Block b({{{0, 8, 1, 0}}}, SKB_MAKEKEY | SKB_MISSING);
    Block d({{{0, 8, 1, 1}}}, SKB_MAKEKEY);
    std::vector<std::string> keys, dkeys;
    for (uint64_t u : v) {
        keys.push_back(b.keypart(&u));
        dkeys.push_back(d.keypart(&u));
    }
    for (size_t i = 0; i < v.size(); ++i) {
        // A descending key is the ascending key with every byte inverted.
        for (size_t j = 0; j < 8; ++j) ASSERT_EQ(static_cast<unsigned char>(~keys[i][j]), static_cast<unsigned char>(dkeys[i][j]));
        size_t j = (i * 7919 + 13) % v.size();
        for (size_t k : {j, (i + 1) % v.size()}) {
            ASSERT_EQ(numOrder(v[i], v[k]), bytesOrder(keys[i], keys[k])) << std::hex << v[i] << " " << v[k];
            ASSERT_EQ(-numOrder(v[i], v[k]), bytesOrder(dkeys[i], dkeys[k]));
        }
    }
    // Both zeros make one key; -1 < 0 < 1.
    double z = 0.0, nz = -0.0, one = 1.0, mone = -1.0;
    EXPECT_EQ(b.keypart(&z), b.keypart(&nz));
    EXPECT_LT(b.keypart(&mone), b.keypart(&z));
    EXPECT_LT(b.keypart(&z), b.keypart(&one));

    // The transform is undone by its reverse, except that -0 comes back as 0.
    for (uint64_t u : v) {
        unsigned char w[8];
        memcpy(w, &u, 8);
        hscsdbl(w, 8);
        hsrsdbl(w, 8);
        uint64_t back;
        memcpy(&back, w, 8);
        EXPECT_EQ(u == bitsOf(-0.0) ? 0ull : u, back);
    }
}

TEST(KeyBlock, ShortNumbersKeyTheirHighBytes) {
    std::mt19937_64 rng(3);
    for (int len = 2; len <= 7; ++len) {
        Block b({{{1, len, 1, 0}}}, SKB_MAKEKEY | SKB_MISSING);
        EXPECT_TRUE(b.skb.info.creflags & SKB_SHORTNUM);
        EXPECT_EQ(len, b.skb.info.colkeylen);
        std::vector<std::pair<uint64_t, std::string>> vals;
        for (int i = 0; i < 400; ++i) {
            double d = std::ldexp(static_cast<double>(static_cast<int64_t>(rng())) / 9e18, static_cast<int>(rng() % 60) - 30);
            if (i == 0) d = -0.0;
            unsigned char row[9] = {};
            uint64_t u = bitsOf(d);
            memcpy(row + 1, reinterpret_cast<unsigned char*>(&u) + 8 - len, len);  // the high bytes
            uint64_t wide;
            vzrftrc(row + 1, len, &wide);
            vals.emplace_back(wide, b.keypart(row));
        }
        unsigned char miss[9] = {};
        miss[len] = 0xff;
        miss[len - 1] = 0xff;
        int m = 0;
        b.key(miss, 1, &m);
        EXPECT_EQ(1, m) << len;
        uint64_t mw = 0xffff000000000000ull;
        vals.emplace_back(mw, b.keypart(miss));
        for (size_t i = 0; i + 1 < vals.size(); ++i)
            ASSERT_EQ(numOrder(vals[i].first, vals[i + 1].first), bytesOrder(vals[i].second, vals[i + 1].second)) << len;
    }
}

TEST(KeyBlock, MixedColumnsRowNumbersAndCarriedDataLayOutAsDescribed) {
    // Row: char[5] at 0, double at 5, double at 13.
    auto row = [](const char* s, double a, double c) {
        std::string r(21, ' ');
        memcpy(r.data(), s, std::min<size_t>(5, strlen(s)));
        memcpy(r.data() + 5, &a, 8);
        memcpy(r.data() + 13, &c, 8);
        return r;
    };
    // Character ascending, first number descending.
    Block b({{{0, 5, 2, 0}}, {{5, 8, 1, 1}}}, SKB_MAKEKEY | SKB_MISSING, SKB_OBS | SKB_DATA | SKB_PAD4, 21);
    const SKB_INFO& in = b.skb.info;
    EXPECT_EQ(13, in.colkeylen);
    EXPECT_EQ(13, in.obs_offset);  // in the key, right behind the columns
    EXPECT_EQ(24, in.totkeylen);   // 13 + 8, padded to 4
    EXPECT_EQ(3, in.keypadlen);
    EXPECT_EQ(24, in.data_offset);
    EXPECT_EQ(48, in.reclen);      // 24 + 21 padded
    EXPECT_EQ(3, in.recpadlen);
    EXPECT_EQ(skb_ismiss_mixed, b.skb.mt.ismissing);

    struct R { std::string s; double a; hs_obsno_t obs; };
    std::vector<R> rs = {{"b", 1, 4}, {"a", 2, 9}, {"a", 5, 3}, {"b", 1, 2}, {"abc", -1, 1}, {"a", 5, 1}, {"", 0, 7}};
    std::vector<std::string> keys;
    for (auto& r : rs) keys.push_back(b.keypart(row(r.s.c_str(), r.a, 0).data(), r.obs));
    for (size_t i = 0; i < rs.size(); ++i)
        for (size_t j = 0; j < rs.size(); ++j) {
            std::string si = rs[i].s + std::string(5 - rs[i].s.size(), ' '), sj = rs[j].s + std::string(5 - rs[j].s.size(), ' ');
            int want = si != sj ? sign(si.compare(sj)) : rs[i].a != rs[j].a ? (rs[i].a > rs[j].a ? -1 : 1)
                                                                          : sign(static_cast<int>(rs[i].obs - rs[j].obs));
            EXPECT_EQ(want, bytesOrder(keys[i], keys[j])) << i << " " << j;
        }
    // Carried row, row number and columns come back out of the record.
    std::string r = row("xyz", -2.5, 8.25);
    std::string rec = b.key(r.data(), 77);
    EXPECT_EQ(0, memcmp(rec.data() + in.data_offset, r.data(), 21));
    std::string back(21, '\0');
    hs_obsno_t obs = 0;
    EXPECT_EQ(0, b.skb.mt.extractkey(&b.skb, rec.data(), back.data(), &obs));
    EXPECT_EQ(77, obs);
    EXPECT_EQ(r.substr(0, 13), back.substr(0, 13));

    // Native row numbers sit behind the padded key and are not compared.
    Block n({{{5, 8, 1, 0}}}, SKB_MAKEKEY, SKB_OBS | SKB_OBSNATIVE | SKB_PAD4);
    EXPECT_EQ(8, n.skb.info.totkeylen);
    EXPECT_EQ(8, n.skb.info.obs_offset);
    EXPECT_EQ(16, n.skb.info.reclen);
    std::string k = n.key(r.data(), 0x0102);
    hs_obsno_t native;
    memcpy(&native, k.data() + 8, 8);
    EXPECT_EQ(0x0102, native);

    // All columns missing, and only then.
    int miss = -1;
    double mv;
    uint64_t mu = 0xffff2e0000000000ull;
    memcpy(&mv, &mu, 8);
    std::string mrow = row("", mv, 0);
    std::string mk = b.key(mrow.data(), 1, &miss);
    EXPECT_EQ(1, miss);
    EXPECT_EQ(1, b.skb.mt.ismissing(&b.skb, mk.data()));
    std::string half = row("q", mv, 0);
    std::string hk = b.key(half.data(), 1, &miss);
    EXPECT_EQ(0, miss);
    EXPECT_EQ(0, b.skb.mt.ismissing(&b.skb, hk.data()));

    // Bad calls.
    SKB_KEY bad;
    ASSERT_EQ(0, skbinit(&bad, nullptr, nullptr, nullptr, 0, 0, 1));
    EXPECT_EQ(SKB_RC_BADTYPE, bad.mt.addcol(&bad, 0, 8, 3, 0));
    EXPECT_EQ(0, bad.mt.addcol(&bad, 0, 8, 1, 0));
    EXPECT_EQ(SKB_RC_INVALID, bad.mt.addcol(&bad, 8, 8, 1, 0));  // no room for a second column
    EXPECT_EQ(0, bad.mt.addend(&bad, 0));
    long nrec = 0;
    char kb[8];
    EXPECT_EQ(SKB_RC_INVALID, bad.mt.makekey(&bad, r.data(), 1, kb, &nrec, nullptr));  // made without 0x1
    EXPECT_EQ(0, nrec);
    bad.mt.destroy(&bad);
}

TEST(KeyBlock, CharacterColumnsUnderSortSequenceAndTranscoding) {
    // A sequence that folds case: "B" and "b" key alike, and both after "a".
    unsigned char seq[256];
    for (int i = 0; i < 256; ++i) seq[i] = static_cast<unsigned char>(i >= 'a' && i <= 'z' ? i - 32 : i);
    Block b({{{0, 4, 2, 0}}}, SKB_MAKEKEY | SKB_MISSING, 0, 0, seq);
    EXPECT_EQ(skb_ismiss_char, b.skb.mt.ismissing);
    std::vector<std::string> words = {"bcd ", "Bcd ", "abc ", "ABD ", "zz  ", "a   ", "    ", "~x  "};
    for (auto& x : words)
        for (auto& y : words) {
            std::string fx = x, fy = y;
            for (auto& c : fx) c = static_cast<char>(seq[static_cast<unsigned char>(c)]);
            for (auto& c : fy) c = static_cast<char>(seq[static_cast<unsigned char>(c)]);
            EXPECT_EQ(sign(fx.compare(fy)), bytesOrder(b.keypart(x.data()), b.keypart(y.data()))) << x << "|" << y;
        }
    int miss = 0;
    std::string blank = b.key("    ", 1, &miss);
    EXPECT_EQ(1, miss);
    EXPECT_EQ(1, b.skb.mt.ismissing(&b.skb, blank.data()));
    hs_obsno_t o;
    char out[4];
    EXPECT_EQ(SKB_RC_INVALID, b.skb.mt.extractkey(&b.skb, blank.data(), out, &o));  // a folded value cannot come back

    // Latin-1 rows keyed in UTF-8: the key column is as long as the longest
    // transcoded value, and the rest of it is blank.
    ASSERT_NE(nullptr, opinitgbl());
    opbinst(opgtgbl(), "NLSTRANSCODE");
    HS_NLSENV *latin = nullptr, *utf8 = nullptr;
    ASSERT_EQ(0, hsnlsgetenv(NLS_CEI_LATIN1, nullptr, 0, 0, &latin));
    ASSERT_EQ(0, hsnlsgetenv(NLS_CEI_UTF8, nullptr, 0, 0, &utf8));
    {
        Block t({{{0, 3, 2, 0}}, {{3, 2, 2, 1}}}, SKB_MAKEKEY | SKB_MISSING, 0, 0, nullptr, utf8, latin);
        ASSERT_NE(nullptr, t.skb.info.nvtph);
        EXPECT_GT(t.skb.info.cols[0].klng, 3);
        EXPECT_EQ(t.skb.info.cols[0].klng + t.skb.info.cols[1].klng, t.skb.info.colkeylen);
        std::string k = t.keypart("\xe9" "a  z");
        EXPECT_EQ("\xc3\xa9" "a", k.substr(0, 3));
        EXPECT_EQ(std::string(t.skb.info.cols[0].klng - 3, ' '), k.substr(3, t.skb.info.cols[0].klng - 3));
        // The descending column: its transcoded bytes inverted.
        EXPECT_EQ(static_cast<char>(~' '), k[t.skb.info.cols[0].klng]);
        EXPECT_EQ(static_cast<char>(~'z'), k[t.skb.info.cols[0].klng + 1]);
        int m = 0;
        t.key("     ", 1, &m);
        EXPECT_EQ(1, m);
    }
    EXPECT_EQ(0, nls_release(latin));
    EXPECT_EQ(0, nls_release(utf8));
    opbinst(opgtgbl(), "NONLSTRANSCODE");
}

TEST(KeyBlock, PlainMemoryBlockComparesBytesAndFillsExtremes) {
    SKB_KEY m;
    ASSERT_EQ(0, skbmeminit(&m, 10, 100));
    EXPECT_EQ(10, m.info.totkeylen);
    EXPECT_EQ(100, m.info.reclen);
    EXPECT_EQ(static_cast<int (*)(const void*, const void*, size_t)>(memcmp), m.mt.cmp);
    unsigned char lo[10], hi[10];
    m.mt.fillkey(&m, 1, lo, 10);
    m.mt.fillkey(&m, 2, hi, 10);
    unsigned char any[10] = {0, 5, 255, 3, 0, 0, 0, 0, 0, 1};
    EXPECT_LE(memcmp(lo, any, 10), 0);
    EXPECT_GE(memcmp(hi, any, 10), 0);
    long n = 0;
    EXPECT_EQ(SKB_RC_INVALID, m.mt.makekey(&m, any, 1, lo, &n, nullptr));
    EXPECT_EQ(0, m.mt.destroy(&m));
    EXPECT_EQ(SKB_RC_INVALID, skbmeminit(&m, 10, 5));
}
