#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "hs/hscmp.h"
#include "hs/zcrypt.h"

using namespace vrta;

namespace {

using Bytes = std::vector<unsigned char>;

Bytes bytes(const std::string& s) { return Bytes(s.begin(), s.end()); }
Bytes rep(unsigned char c, size_t n) { return Bytes(n, c); }
Bytes cat(Bytes a, const Bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

using Coder = long (*)(int, void*, const void*, long, long);

// Compresses with room of twice the input (plus slack), so the coded form is
// always complete; the buffer is exactly sized for ASan.
Bytes pack(Coder f, const Bytes& in) {
    const long room = static_cast<long>(in.size()) * 2 + 8;
    std::unique_ptr<unsigned char[]> out(new unsigned char[room]);
    long n = f(0, out.get(), in.data(), room, static_cast<long>(in.size()));
    EXPECT_GE(n, 0);
    return Bytes(out.get(), out.get() + (n < 0 ? 0 : n));
}

// Expands into a heap buffer of exactly `room` bytes.
long unpack(Coder f, const Bytes& in, long room, Bytes* out) {
    std::unique_ptr<unsigned char[]> buf(new unsigned char[room > 0 ? room : 1]);
    long n = f(1, buf.get(), in.data(), room, static_cast<long>(in.size()));
    if (out) out->assign(buf.get(), buf.get() + (n > 0 ? n : 0));
    return n;
}

// Table-like blocks: fixed-width rows of numbers and blank padded text.
Bytes rows(size_t n, unsigned seed) {
    std::mt19937 rng(seed);
    Bytes b;
    const char* names[] = {"SMITH", "JONES", "ANDERSON", "LI", "GARCIA-MARQUEZ"};
    while (b.size() < n) {
        double v = static_cast<double>(rng() % 100000) / 100.0;
        unsigned char d[8];
        std::memcpy(d, &v, 8);
        b.insert(b.end(), d, d + 8);
        std::string name = names[rng() % 5];
        name.resize(24, ' ');
        b.insert(b.end(), name.begin(), name.end());
        int64_t id = rng() % 1000;
        std::memcpy(d, &id, 8);
        b.insert(b.end(), d, d + 8);
    }
    b.resize(n);
    return b;
}

Bytes randomBytes(size_t n, unsigned seed) {
    std::mt19937 rng(seed);
    Bytes b(n);
    for (auto& c : b) c = static_cast<unsigned char>(rng());
    return b;
}

}  // namespace

TEST(RunLength1, RunLimitsAndEscapes) {
    EXPECT_EQ(pack(hsrcmp1, rep(' ', 129)), (Bytes{25, 129}));
    EXPECT_EQ(pack(hsrcmp1, rep(' ', 130)), (Bytes{25, 129, ' '}));
    EXPECT_EQ(pack(hsrcmp1, rep(' ', 132)), (Bytes{25, 129, 25, 3}));
    EXPECT_EQ(pack(hsrcmp1, rep(0, 66)), (Bytes{25, 193}));
    EXPECT_EQ(pack(hsrcmp1, rep(0, 67)), (Bytes{25, 193, 0}));
    EXPECT_EQ(pack(hsrcmp1, rep(0, 3)), (Bytes{25, 130}));
    EXPECT_EQ(pack(hsrcmp1, rep('A', 63)), (Bytes{25, 254, 'A'}));
    EXPECT_EQ(pack(hsrcmp1, rep('A', 64)), (Bytes{25, 254, 'A', 'A'}));
    // A block of escape bytes is a run of them, not a string of escapes.
    EXPECT_EQ(pack(hsrcmp1, rep(25, 10)), (Bytes{25, 201, 25}));
    EXPECT_EQ(pack(hsrcmp1, rep(25, 2)), (Bytes{25, 0, 25, 0}));
    // Two equal bytes are not a run; three are.
    EXPECT_EQ(pack(hsrcmp1, bytes("xAAy")), bytes("xAAy"));
    EXPECT_EQ(pack(hsrcmp1, bytes("xAAAy")), (Bytes{'x', 25, 194, 'A', 'y'}));
    EXPECT_EQ(pack(hsrcmp1, Bytes{}), Bytes{});

    // Expansion of every one of those gives the block back.
    for (const Bytes& b : {rep(' ', 130), rep(0, 67), rep(25, 10), rep(25, 2), bytes("xAAAy"), rep('A', 200)}) {
        Bytes out;
        EXPECT_EQ(unpack(hsrcmp1, pack(hsrcmp1, b), static_cast<long>(b.size()), &out), static_cast<long>(b.size()));
        EXPECT_EQ(out, b);
    }
}

TEST(RunLength1, OutputRoomAndDamage) {
    // Compression that does not fit reports minus the input length.
    Bytes inc = randomBytes(100, 1);
    std::unique_ptr<unsigned char[]> out(new unsigned char[100]);
    EXPECT_EQ(hsrcmp1(0, out.get(), inc.data(), 50, 100), -100);
    EXPECT_EQ(hsrcmp1(0, out.get(), rep(25, 1).data(), 1, 1), -1);  // 25 needs two bytes

    // A run longer than the room is cut; input left over is negative.
    Bytes cut;
    EXPECT_EQ(unpack(hsrcmp1, Bytes{25, 100}, 40, &cut), 40);
    EXPECT_EQ(cut, rep(' ', 40));
    EXPECT_EQ(unpack(hsrcmp1, Bytes{25, 100, 'x', 'y'}, 40, nullptr), -42);
    // An escape cut off at the end of the input is damage, not data.
    EXPECT_LT(unpack(hsrcmp1, Bytes{'a', 25}, 10, nullptr), 0);
    EXPECT_LT(unpack(hsrcmp1, Bytes{'a', 25, 200}, 10, nullptr), 0);
}

TEST(RunLength2, TokenForms) {
    Bytes d64(64), d65(65);
    for (int i = 0; i < 64; ++i) d64[i] = static_cast<unsigned char>(i + 100);
    for (int i = 0; i < 65; ++i) d65[i] = static_cast<unsigned char>(i + 100);
    Bytes p64 = pack(hsrcmp2, d64);
    ASSERT_EQ(p64.size(), 65u);
    EXPECT_EQ(p64[0], 0xBF);
    Bytes p65 = pack(hsrcmp2, d65);
    ASSERT_EQ(p65.size(), 67u);
    EXPECT_EQ(p65[0], 0x00);
    EXPECT_EQ(p65[1], 0x01);

    EXPECT_EQ(pack(hsrcmp2, bytes("Q")), (Bytes{0x80, 'Q'}));
    EXPECT_EQ(pack(hsrcmp2, cat(bytes("ab"), cat(rep(' ', 2), bytes("cd")))),
              (Bytes{0x81, 'a', 'b', 0xE0, 0x81, 'c', 'd'}));
    EXPECT_EQ(pack(hsrcmp2, rep(' ', 17)), (Bytes{0xEF}));
    EXPECT_EQ(pack(hsrcmp2, rep(' ', 18)), (Bytes{0x60, 0x01}));
    EXPECT_EQ(pack(hsrcmp2, rep(0x40, 5)), (Bytes{0xD3}));
    EXPECT_EQ(pack(hsrcmp2, rep(0, 4112)), (Bytes{0x7F, 0xFF}));
    EXPECT_EQ(pack(hsrcmp2, rep(0, 4113)), (Bytes{0x7F, 0xFF, 0x80, 0}));
    EXPECT_EQ(pack(hsrcmp2, rep('A', 3)), (Bytes{0xC0, 'A'}));
    EXPECT_EQ(pack(hsrcmp2, rep('A', 18)), (Bytes{0xCF, 'A'}));
    EXPECT_EQ(pack(hsrcmp2, rep('A', 19)), (Bytes{0x40, 0x01, 'A'}));
    EXPECT_EQ(pack(hsrcmp2, rep('A', 4113)), (Bytes{0x4F, 0xFF, 'A'}));
    // Two equal specials or three equal others in the last two bytes are literal.
    EXPECT_EQ(pack(hsrcmp2, bytes("xy  ")), (Bytes{0x83, 'x', 'y', ' ', ' '}));
    EXPECT_EQ(pack(hsrcmp2, bytes("xAA")), (Bytes{0x82, 'x', 'A', 'A'}));
    EXPECT_EQ(pack(hsrcmp2, rep(' ', 2)), (Bytes{0x81, ' ', ' '}));

    // A literal run past 16447 is split.
    Bytes lit(16448);
    for (size_t i = 0; i < lit.size(); ++i) lit[i] = static_cast<unsigned char>(i % 7 + 1 + (i / 7 % 2) * 9);
    Bytes pl = pack(hsrcmp2, lit);
    ASSERT_EQ(pl.size(), 2u + 16447 + 2);
    EXPECT_EQ(pl[0], 0x3F);
    EXPECT_EQ(pl[1], 0xFF);
    EXPECT_EQ(pl[2 + 16447], 0x80);

    for (const Bytes& b : {d64, d65, lit, rep(0, 4113), rep('A', 10000), rows(5000, 3)}) {
        Bytes out;
        EXPECT_EQ(unpack(hsrcmp2, pack(hsrcmp2, b), static_cast<long>(b.size()), &out), static_cast<long>(b.size()));
        EXPECT_EQ(out, b);
    }
}

TEST(RunLength2, RoomAndDamage) {
    Bytes inc = randomBytes(300, 2);
    std::unique_ptr<unsigned char[]> out(new unsigned char[300]);
    EXPECT_LT(hsrcmp2(0, out.get(), inc.data(), 300, 300), 0);
    // Truncated tokens and leftover input are negative.
    EXPECT_LT(unpack(hsrcmp2, Bytes{0x85, 'a', 'b'}, 100, nullptr), 0);
    EXPECT_LT(unpack(hsrcmp2, Bytes{0x40, 0x10}, 100, nullptr), 0);
    EXPECT_LT(unpack(hsrcmp2, Bytes{0xC3}, 100, nullptr), 0);
    EXPECT_LT(unpack(hsrcmp2, Bytes{0xEF, 0x80, 'z'}, 17, nullptr), 0);
    Bytes cut;
    EXPECT_EQ(unpack(hsrcmp2, Bytes{0xEF}, 10, &cut), 10);
    EXPECT_EQ(cut, rep(' ', 10));
}

namespace {

struct Lzw {
    HS_CBLK cb{};
    Lzw() {
        cb.mode = XZC_INIT;
        EXPECT_EQ(hsclzw(&cb), 0);
    }
    ~Lzw() {
        cb.mode = XZC_TERM;
        EXPECT_EQ(0, hsclzw(&cb));
    }
    rctype pack(const Bytes& in, long room, Bytes* out) {
        std::unique_ptr<unsigned char[]> buf(new unsigned char[room > 0 ? room : 1]);
        cb.mode = XZC_COMPRESS;
        cb.from = in.data();
        cb.textlen = static_cast<long>(in.size());
        cb.to = buf.get();
        cb.cyphlen = room;
        rctype rc = hsclzw(&cb);
        if (rc == 0) out->assign(buf.get(), buf.get() + cb.cyphlen);
        return rc;
    }
    rctype unpack(const Bytes& in, long room, Bytes* out) {
        std::unique_ptr<unsigned char[]> buf(new unsigned char[room > 0 ? room : 1]);
        cb.mode = XZC_EXPAND;
        cb.from = in.data();
        cb.cyphlen = static_cast<long>(in.size());
        cb.to = buf.get();
        cb.textlen = room;
        rctype rc = hsclzw(&cb);
        if (rc == 0 && out) out->assign(buf.get(), buf.get() + cb.textlen);
        return rc;
    }
};

// LSB-first packing of (code, width) pairs, to state streams by hand.
Bytes bitstream(const std::vector<std::pair<unsigned, int>>& codes) {
    Bytes b;
    uint64_t acc = 0;
    int n = 0;
    for (auto [c, w] : codes) {
        acc |= static_cast<uint64_t>(c) << n;
        n += w;
        while (n >= 8) {
            b.push_back(static_cast<unsigned char>(acc));
            acc >>= 8;
            n -= 8;
        }
    }
    if (n) b.push_back(static_cast<unsigned char>(acc));
    return b;
}

}  // namespace

TEST(Lzw, StreamLayoutAndRoundTrips) {
    Lzw z;
    Bytes out;
    ASSERT_EQ(z.pack(bytes("ABABABA"), 100, &out), 0);
    EXPECT_EQ(out, bitstream({{8, 8}, {256, 9}, {'A', 9}, {'B', 9}, {258, 9}, {260, 9}, {257, 9}}));
    Bytes back;
    ASSERT_EQ(z.unpack(out, 7, &back), 0);
    EXPECT_EQ(back, bytes("ABABABA"));

    ASSERT_EQ(z.pack(Bytes{}, 100, &out), 0);
    EXPECT_TRUE(out.empty());
    ASSERT_EQ(z.unpack(Bytes{}, 10, &back), 0);
    EXPECT_TRUE(back.empty());

    // Large blocks go through every width and past a full 12-bit table.
    for (const Bytes& b : {rows(1 << 20, 5), rep(' ', 300000), rep(0, 65536), randomBytes(200000, 6), bytes("x")}) {
        ASSERT_EQ(z.pack(b, static_cast<long>(b.size()) * 2 + 16, &out), 0);
        ASSERT_EQ(z.unpack(out, static_cast<long>(b.size()), &back), 0);
        EXPECT_EQ(back, b);
    }
    ASSERT_EQ(z.pack(rows(1 << 20, 5), 1 << 21, &out), 0);
    EXPECT_LT(out.size(), (1u << 20) / 2);  // table rows compress
}

TEST(Lzw, BadStreamsAndRoom) {
    Lzw z;
    Bytes inc = randomBytes(5000, 7), out;
    EXPECT_EQ(z.pack(inc, 5000, &out), HS_OUTFULL);
    Bytes good;
    ASSERT_EQ(z.pack(rows(20000, 8), 40000, &good), 0);
    // Root sizes outside 2..8.
    for (unsigned root : {0u, 1u, 9u, 200u}) {
        Bytes bad = good;
        bad[0] = static_cast<unsigned char>(root);
        EXPECT_EQ(z.unpack(bad, 20000, nullptr), HS_BADDATA) << root;
    }
    // Any cut before eoi.
    for (size_t cut : {size_t{1}, size_t{2}, good.size() / 2, good.size() - 2}) {
        Bytes t(good.begin(), good.begin() + static_cast<long>(cut));
        EXPECT_EQ(z.unpack(t, 20000, nullptr), HS_BADDATA) << cut;
    }
    // A code not yet defined, and output past the room.
    EXPECT_EQ(z.unpack(bitstream({{8, 8}, {256, 9}, {'A', 9}, {300, 9}, {257, 9}}), 100, nullptr), HS_BADDATA);
    EXPECT_EQ(z.unpack(good, 19999, nullptr), HS_BADDATA);
    // A smaller root size is read as such.
    Bytes small = bitstream({{2, 8}, {4, 3}, {1, 3}, {2, 3}, {6, 3}, {5, 3}});
    Bytes back;
    ASSERT_EQ(z.unpack(small, 10, &back), 0);
    EXPECT_EQ(back, (Bytes{1, 2, 1, 2}));
}

TEST(Cipher, RoundTripAndSeparation) {
    Bytes plain = rows(4096, 9);
    auto run = [&](const Bytes& in, int mode, int page, int flags, const char* key, double dt, Bytes* out) {
        out->assign(in.size(), 0);
        HS_BENC b{};
        b.datetime = dt;
        b.pageno = page;
        b.textlen = static_cast<long>(in.size());
        b.from = in.data();
        b.to = out->data();
        b.mode = mode;
        b.flags = flags;
        std::memcpy(b.keybuf, key, 12);
        return hsbenc(&b);
    };
    const char* key = "SECRET12    ";
    Bytes c1, c2, c3, c4, back;
    ASSERT_EQ(run(plain, HS_ENC, 1, 0, key, 1.7e9, &c1), 0);
    EXPECT_NE(c1, plain);
    ASSERT_EQ(run(c1, HS_DEC, 1, 0, key, 1.7e9, &back), 0);
    EXPECT_EQ(back, plain);
    // Page, generator, key and date each change the stream.
    ASSERT_EQ(run(plain, HS_ENC, 2, 0, key, 1.7e9, &c2), 0);
    ASSERT_EQ(run(plain, HS_ENC, 1, HS_BENCV6, key, 1.7e9, &c3), 0);
    ASSERT_EQ(run(plain, HS_ENC, 1, 0, "SECRET13    ", 1.7e9, &c4), 0);
    EXPECT_NE(c1, c2);
    EXPECT_NE(c1, c3);
    EXPECT_NE(c1, c4);
    ASSERT_EQ(run(plain, HS_ENC, 1, 0, key, 1.7e9 + 1, &c4), 0);
    EXPECT_NE(c1, c4);
    ASSERT_EQ(run(c3, HS_DEC, 1, HS_BENCV6, key, 1.7e9, &back), 0);
    EXPECT_EQ(back, plain);
    ASSERT_EQ(run(c1, HS_DEC, 1, 0, "SECRET13    ", 1.7e9, &back), 0);
    EXPECT_NE(back, plain);
    // In place, and an odd length.
    Bytes odd = rows(1001, 10), work = odd;
    HS_BENC b{};
    b.datetime = 12345;
    b.pageno = 7;
    b.textlen = 1001;
    b.from = work.data();
    b.to = work.data();
    std::memcpy(b.keybuf, key, 12);
    ASSERT_EQ(hsbenc(&b), 0);
    EXPECT_NE(work, odd);
    b.mode = HS_DEC;
    ASSERT_EQ(hsbenc(&b), 0);
    EXPECT_EQ(work, odd);

    testing::internal::CaptureStdout();
    EXPECT_EQ(run(plain, HS_ENC, 1, 0, key, 5e9, &c1), HS_BADDATA);
    EXPECT_EQ(run(plain, 2, 1, 0, key, 1.0, &c1), HS_BADDATA);
    std::string text = testing::internal::GetCapturedStdout();
    EXPECT_NE(text.find("hsbenc: Creation date/time too big to encrypt/decrypt!"), std::string::npos);
    EXPECT_NE(text.find("hsbenc: Mode must be HS_ENC or HS_DEC\n"), std::string::npos);
    EXPECT_EQ(run(plain, HS_ENC, 1, 0, "            ", 1.0, &c1), static_cast<rctype>(0x80000240u));
}

TEST(Cipher, GeneratorsAreTheMinimalStandardPair) {
    // Known 10000th values of the two multipliers from seed 1; a wrong fold
    // of the high bits shows up long before that.
    uint32_t s = 1, t = 1, v = 0, w = 0;
    for (int i = 0; i < 10000; ++i) {
        v = hsran32(&s);
        w = hsran32v6(&t);
        ASSERT_GT(v, 0u);
        ASSERT_LT(v, 0x7FFFFFFFu);
    }
    EXPECT_EQ(v, 1043618065u);
    EXPECT_EQ(w, 399268537u);
}

TEST(ModularScramble, RoundTripsSizesAndDamage) {
    for (long len = 0; len < 40; ++len) {
        Bytes in = randomBytes(static_cast<size_t>(len), static_cast<unsigned>(len));
        Bytes code(static_cast<size_t>(zcryptlen(len)));
        ASSERT_EQ(zncrypt(in.data(), len, code.data()), 0);
        EXPECT_EQ(static_cast<long>(code.size()), (len + 5) / 3 * 4);
        Bytes back(static_cast<size_t>(len) + 1);
        long n = -1;
        ASSERT_EQ(zdcrypt(code.data(), static_cast<long>(code.size()), back.data(), len, &n), 0);
        ASSERT_EQ(n, len);
        back.resize(static_cast<size_t>(len));
        EXPECT_EQ(back, in);
        if (len >= 3) {
            EXPECT_EQ(zdcrypt(code.data(), static_cast<long>(code.size()), back.data(), len - 1, &n), HS_BADDATA);
        }
        // Cut by a group, or not a whole group.
        if (code.size() > 4) {
            EXPECT_EQ(zdcrypt(code.data(), static_cast<long>(code.size()) - 4, back.data(), len, &n), HS_BADDATA);
        }
        EXPECT_EQ(zdcrypt(code.data(), static_cast<long>(code.size()) - 1, back.data(), len, &n), HS_BADDATA);
    }
    // Equal text groups do not give equal code groups.
    Bytes same = rep('a', 9), code(static_cast<size_t>(zcryptlen(9)));
    ASSERT_EQ(zncrypt(same.data(), 9, code.data()), 0);
    EXPECT_NE(std::memcmp(&code[4], &code[8], 4), 0);
    EXPECT_EQ(zpowmod(zpowmod(123456, 65537, 0xFFE000FFu), 1475213633u, 0xFFE000FFu), 123456u);
}

// Random and cut inputs through every decoder: none may read or write outside
// its buffers (checked by the sanitizers) or loop.
TEST(DecoderFuzz, RandomAndTruncatedInputs) {
    std::mt19937 rng(20261122);
    Lzw z;
    for (int iter = 0; iter < 20000; ++iter) {
        const size_t n = rng() % 600;
        Bytes in;
        switch (iter % 3) {
        case 0: in = randomBytes(n, rng()); break;
        case 1: {  // a real stream, cut and with a flipped byte
            Bytes src = rows(n + 1, rng());
            int which = static_cast<int>(rng() % 3);
            if (which == 0) in = pack(hsrcmp1, src);
            else if (which == 1) in = pack(hsrcmp2, src);
            else EXPECT_EQ(z.pack(src, static_cast<long>(src.size()) * 2 + 16, &in), 0);
            if (!in.empty()) {
                in.resize(rng() % (in.size() + 1));
                if (!in.empty() && rng() % 2) in[rng() % in.size()] ^= static_cast<unsigned char>(1u << (rng() % 8));
            }
            break;
        }
        default: {  // mostly escape and token bytes
            in.resize(n);
            for (auto& c : in) c = static_cast<unsigned char>(rng() % 4 == 0 ? 25 : 0x80 | (rng() % 128));
            if (!in.empty()) in[0] = 8;
        }
        }
        const long room = static_cast<long>(rng() % 2000);
        unpack(hsrcmp1, in, room, nullptr);
        unpack(hsrcmp2, in, room, nullptr);
        z.unpack(in, room, nullptr);
        Bytes out(static_cast<size_t>(room) + 1);
        long len;
        // Any answer will do; what counts is no read or write out of bounds.
        rcignore(zdcrypt(in.data(), static_cast<long>(in.size()), out.data(), room, &len));
    }
}
