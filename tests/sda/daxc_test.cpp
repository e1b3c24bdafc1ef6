#include <gtest/gtest.h>

#include <cstdlib>
#include <algorithm>
#include <cstring>
#include <random>
#include <string>
#include <unistd.h>
#include <vector>

#include "sda/daxc.h"
#include "sda/darc.h"
#include "ssup/thr.h"
#include "testutil.h"

using namespace vrta;

namespace {

using Bytes = std::vector<char>;

Bytes textRows(size_t n, unsigned seed) {
    std::mt19937 rng(seed);
    const char* words[] = {"NORTH", "SOUTH", "EAST", "WEST", "CENTRAL REGION"};
    Bytes b;
    while (b.size() < n) {
        std::string s = words[rng() % 5];
        s.resize(20, ' ');
        b.insert(b.end(), s.begin(), s.end());
    }
    b.resize(n);
    return b;
}

Bytes numberRows(size_t n, unsigned seed) {
    std::mt19937 rng(seed);
    Bytes b;
    while (b.size() < n) {
        double v = static_cast<double>(rng() % 1000);
        char d[8];
        std::memcpy(d, &v, 8);
        b.insert(b.end(), d, d + 8);
    }
    b.resize(n);
    return b;
}

Bytes noise(size_t n, unsigned seed) {
    std::mt19937 rng(seed);
    Bytes b(n);
    for (auto& c : b) c = static_cast<char>(rng());
    return b;
}

// An exit opened on a table the way the table layer does it.
struct Opened {
    DA_XCEXT x{};
    rctype rc = 0;
    Opened(const char* name, int mode, const std::string& key, int bag = -1, const void* bagbuf = nullptr) {
        rc = daldxcb(name, &x.xcb);
        if (rc) return;
        x.xcmode = mode;
        x.keylen = static_cast<int>(key.size());
        std::memcpy(x.keybuf, key.data(), key.size());
        if (bag >= 0) {
            x.xchdr.baglen = bag;
            std::memcpy(x.xchdr.bagbuf, bagbuf, static_cast<size_t>(bag));
        }
        rc = daxcopen(&x, "/lib", "member", 1.75e9, 65536);
    }
    ~Opened() {
        if (x.xcb) {
            if (rc == 0) {
                EXPECT_GE(daxcclose(&x), 0);
            }
            EXPECT_GE(dafrxcb(x.xcb), 0);
        }
    }
    // Convert and back; returns the convert code.
    rctype roundTrip(const Bytes& raw, int64_t vbn, bool allowraw, Bytes* coded = nullptr) {
        std::vector<char> io(static_cast<size_t>(x.iomaxbuf));
        int iolen = 0;
        rctype crc = daxcconvert(&x, vbn, raw.data(), static_cast<int>(raw.size()), io.data(), &iolen, allowraw);
        if (crc != 0) return crc;
        EXPECT_LE(iolen, x.iomaxbuf);
        if (coded) coded->assign(io.begin(), io.begin() + iolen);
        Bytes back(raw.size());
        int rawlen = static_cast<int>(back.size());
        EXPECT_EQ(daxcunconvert(&x, vbn, io.data(), iolen, back.data(), &rawlen), 0);
        EXPECT_EQ(rawlen, static_cast<int>(raw.size()));
        EXPECT_TRUE(back == raw);
        return 0;
    }
};

}  // namespace

TEST(ExitManager, BuiltInCompressorsRoundTripEveryKindOfBlock) {
    ASSERT_EQ(daxcini(), 0);
    for (const char* name : {"VRTARLC2", "vrtarllc", "VRTALZWC"}) {
        SCOPED_TRACE(name);
        Opened o(name, DA_XCMCREATE, "");
        ASSERT_EQ(o.rc, 0);
        EXPECT_EQ(o.x.xcb->xcflags, DA_XCCOMP);
        EXPECT_EQ(o.x.iomaxbuf, 65536);
        Bytes coded;
        for (const Bytes& b : {textRows(65536, 1), numberRows(65536, 2), Bytes(65536, ' '), Bytes(65536, 0),
                               textRows(1000, 3), Bytes(1, 'x')}) {
            rctype rc = o.roundTrip(b, 5, true, &coded);
            if (b.size() > 1) {
                EXPECT_EQ(rc, 0);
                EXPECT_LT(coded.size(), b.size());
            }
        }
        // Noise does not shrink: kept raw where that is allowed, a failure
        // where it is not.
        EXPECT_EQ(o.roundTrip(noise(65536, 4), 1, true), 1);
        EXPECT_EQ(o.roundTrip(noise(65536, 4), 1, false), DA_CONVFAIL);
        // A damaged block is an unconvert failure, not a crash.
        Bytes raw = textRows(4000, 5);
        std::vector<char> io(65536);
        int iolen = 0;
        ASSERT_EQ(daxcconvert(&o.x, 0, raw.data(), 4000, io.data(), &iolen, true), 0);
        Bytes back(4000);
        int rawlen = 100;  // too small for the block
        EXPECT_EQ(daxcunconvert(&o.x, 0, io.data(), iolen, back.data(), &rawlen), DA_UNCONVFAIL);
        // A block cut short never comes back whole: it fails, or it is short.
        rawlen = 4000;
        rctype urc = daxcunconvert(&o.x, 0, io.data(), iolen / 2, back.data(), &rawlen);
        if (std::strcmp(name, "VRTALZWC") == 0) {
            EXPECT_EQ(urc, DA_UNCONVFAIL);
        } else if (urc == 0) {
            EXPECT_LT(rawlen, 4000);
        }
    }
}

TEST(ExitManager, CipherKeyCheckAndBlocks) {
    const std::string key = "Tiger7";
    char bag[12];
    {
        Opened c("VRTACRYP", DA_XCMCREATE, key);
        ASSERT_EQ(c.rc, 0);
        EXPECT_EQ(c.x.xcb->xcflags, DA_XCFIXED | DA_XCBAG | DA_XCCRYPT);
        ASSERT_EQ(c.x.xchdr.baglen, 12);
        EXPECT_NE(std::memcmp(c.x.xchdr.bagbuf, "Tiger7      ", 12), 0);
        std::memcpy(bag, c.x.xchdr.bagbuf, 12);
    }
    Bytes raw = numberRows(8192, 6);
    Bytes b1, b2;
    {
        Opened r("VRTACRYP", DA_XCMREAD, key, 12, bag);
        ASSERT_EQ(r.rc, 0);
        EXPECT_EQ(r.roundTrip(raw, 0, false, &b1), 0);
        EXPECT_EQ(r.roundTrip(raw, 1, false, &b2), 0);
        EXPECT_EQ(b1.size(), raw.size());
        EXPECT_FALSE(b1 == raw);
        EXPECT_FALSE(b1 == b2);  // each block has its own stream
        // Block numbers are taken to 31 bits, and the highest one still works.
        Bytes b5;
        EXPECT_EQ(r.roundTrip(raw, (int64_t{1} << 31) + 1, false, &b5), 0);
        EXPECT_TRUE(b5 == b2);
        EXPECT_EQ(r.roundTrip(raw, 0x7fffffff, false), 0);
    }
    EXPECT_EQ(Opened("VRTACRYP", DA_XCMREAD, "Tiger8", 12, bag).rc, DA_BADKEY);
    EXPECT_EQ(Opened("VRTACRYP", DA_XCMREAD, "tiger7", 12, bag).rc, DA_BADKEY);
    EXPECT_EQ(Opened("VRTACRYP", DA_XCMREAD, "", 12, bag).rc, DA_BADKEY);
    EXPECT_EQ(Opened("VRTACRYP", DA_XCMCREATE, "    ").rc, DA_BADKEY);
    EXPECT_EQ(Opened("VRTACRYP", DA_XCMREAD, key, 0, bag).rc, DA_EXITREFUSED);
    EXPECT_EQ(Opened("VRTACRYP", DA_XCMREAD, "Tiger7      X", 12, bag).rc, DA_EXITREFUSED);
    // A key stored in the table is taken as it is.
    {
        Opened s("VRTACRYP", DA_XCMUPDATE | DA_XCMSTOREDKEY, key, 12, bag);
        ASSERT_EQ(s.rc, 0);
        Bytes b3;
        EXPECT_EQ(s.roundTrip(raw, 0, false, &b3), 0);
        EXPECT_TRUE(b3 == b1);
    }
    // The second generator makes another table format.
    {
        Opened c6(".VRTACR6", DA_XCMCREATE, key);
        ASSERT_EQ(c6.rc, 0);
        Bytes b6;
        EXPECT_EQ(c6.roundTrip(raw, 0, false, &b6), 0);
        EXPECT_FALSE(b6 == b1);
        EXPECT_EQ(Opened(".VRTACR6", DA_XCMREAD, key, 12, bag).rc, DA_BADKEY);
    }
}

TEST(ExitManager, NamesAbilitiesAndCounts) {
    char res[9] = {};
    ASSERT_EQ(daxcname(1, "DEFAULT ", res), 0);
    EXPECT_STREQ(res, "VRTARLC2");
    ASSERT_EQ(daxcname(2, "default", res), 0);
    EXPECT_STREQ(res, "VRTACRYP");
    ASSERT_EQ(daxcname(1, "vrtalzwc", res), 0);
    EXPECT_STREQ(res, "VRTALZWC");
    ASSERT_EQ(daxcname(1, "lzw", res), 0);
    EXPECT_STREQ(res, "LZW     ");

    DA_XCB *crypt = nullptr, *rle = nullptr;
    ASSERT_EQ(daldxcb("VRTACRYP", &crypt), 0);
    ASSERT_EQ(daldxcb("VRTARLLC", &rle), 0);
    EXPECT_EQ(daxccheck(crypt, 1, "VRTACRYP"), DA_NOCOMPRESS);
    EXPECT_EQ(daxccheck(rle, 2, "VRTARLLC"), DA_NOENCRYPT);
    EXPECT_EQ(daxccheck(crypt, 2, ".VRTACR6"), DA_BADARG);
    EXPECT_EQ(daxccheck(crypt, 2, "VRTACRYP"), 0);

    DA_XCB* again = nullptr;
    ASSERT_EQ(daldxcb("vrtarllc", &again), 0);
    EXPECT_EQ(again, rle);
    EXPECT_EQ(rle->refCount, 2);
    EXPECT_GE(dafrxcb(again), 0);
    EXPECT_EQ(rle->inited, 1);
    EXPECT_GE(dafrxcb(rle), 0);
    EXPECT_EQ(rle->refCount, 0);
    EXPECT_EQ(rle->inited, 0);
    EXPECT_GE(dafrxcb(crypt), 0);
}

TEST(ExitManager, LoadsASiteExitAndReportsBrokenOnes) {
    vrtatest::TempDir tmp;
    const std::string exits = std::string(VRTA_BINARY_DIR) + "/exits";
    ASSERT_EQ(setenv("VRTA_LIBRARY_PATH", exits.c_str(), 1), 0);
    {
        Opened d("libxdemo", DA_XCMCREATE, "");
        ASSERT_EQ(d.rc, 0);
        EXPECT_NE(d.x.xcb->dlhdl, nullptr);
        EXPECT_EQ(std::memcmp(d.x.xcb->name, "LIBXDEMO", 8), 0);
        Bytes coded;
        Bytes ramp(30000);
        for (size_t i = 0; i < ramp.size(); ++i) ramp[i] = static_cast<char>(i / 100);
        EXPECT_EQ(d.roundTrip(ramp, 3, true, &coded), 0);
        EXPECT_LT(coded.size(), ramp.size() / 10);
        EXPECT_EQ(d.roundTrip(textRows(9000, 7), 3, true), 0);
        EXPECT_EQ(d.roundTrip(noise(9000, 8), 3, true), 1);
    }

    testing::internal::CaptureStdout();
    DA_XCB* x = nullptr;
    EXPECT_EQ(daldxcb("LIBXBAD", &x), DA_NOEXIT);
    EXPECT_EQ(daldxcb("NOSUCH", &x), DA_NOEXIT);
    // A module whose init refuses is loaded but never counted as in use, and
    // is asked again next time.
    EXPECT_EQ(daldxcb("LIBXFAIL", &x), DA_NOEXIT);
    EXPECT_EQ(daldxcb("LIBXFAIL", &x), DA_NOEXIT);
    // A module under another name has none of that name's entries.
    ASSERT_EQ(symlink((exits + "/libxbad.so").c_str(), tmp.file("other.so").c_str()), 0);
    ASSERT_EQ(setenv("VRTA_LIBRARY_PATH", tmp.path().c_str(), 1), 0);
    EXPECT_EQ(daldxcb("OTHER", &x), DA_NOEXIT);
    ASSERT_EQ(setenv("VRTA_LIBRARY_PATH", std::string(1013, 'a').c_str(), 1), 0);
    EXPECT_EQ(daldxcb("LIBXDEM2", &x), DA_NOEXIT);
    std::string out = testing::internal::GetCapturedStdout();
    unsetenv("VRTA_LIBRARY_PATH");

    EXPECT_NE(out.find("daxcmgr: Error getting libxbad_unconvert function from " + exits + "/libxbad.so\n"),
              std::string::npos)
        << out;
    const std::string initfail = "daxcmgr: xc_init failed for LIBXFAIL\n";
    const size_t first = out.find(initfail);
    ASSERT_NE(first, std::string::npos) << out;
    EXPECT_NE(out.find(initfail, first + 1), std::string::npos) << out;
    EXPECT_NE(out.find("daxcmgr: Error loading " + exits + "/nosuch.so: Reason="), std::string::npos) << out;
    EXPECT_NE(out.find("daxcmdr: Error getting other_init function from " + tmp.path() + "/other.so\n"),
              std::string::npos)
        << out;
}

TEST(ExitManager, LzwHandleIsSafeAcrossThreads) {
    Opened o("VRTALZWC", DA_XCMUPDATE, "");
    ASSERT_EQ(o.rc, 0);
    struct Job {
        Opened* o;
        unsigned seed;
        int bad;
    };
    auto body = [](void* arg) -> void* {
        Job* j = static_cast<Job*>(arg);
        for (int i = 0; i < 20; ++i) {
            Bytes raw = textRows(20000 + j->seed * 100 + static_cast<unsigned>(i), j->seed * 31 + static_cast<unsigned>(i));
            std::vector<char> io(static_cast<size_t>(j->o->x.iomaxbuf));
            int iolen = 0;
            if (daxcconvert(&j->o->x, i, raw.data(), static_cast<int>(raw.size()), io.data(), &iolen, true) != 0) {
                ++j->bad;
                continue;
            }
            Bytes back(raw.size());
            int rawlen = static_cast<int>(back.size());
            if (daxcunconvert(&j->o->x, i, io.data(), iolen, back.data(), &rawlen) != 0 || back != raw) ++j->bad;
        }
        return nullptr;
    };
    Job jobs[4];
    thread_t tids[4];
    for (unsigned t = 0; t < 4; ++t) {
        jobs[t] = Job{&o, t + 1, 0};
        ASSERT_EQ(thr_create(nullptr, 0, body, &jobs[t], 0, &tids[t]), 0);
    }
    for (unsigned t = 0; t < 4; ++t) {
        thr_join(tids[t], nullptr);
        EXPECT_EQ(jobs[t].bad, 0);
    }
}

TEST(AccessScramble, WordsWithRunningKeyTailUntouched) {
    Bytes plain = textRows(103, 9), buf = plain;
    dancode(0x12345678u, buf.data(), 103);
    EXPECT_TRUE(std::equal(buf.begin() + 100, buf.end(), plain.begin() + 100));
    for (int w = 0; w < 25; ++w) EXPECT_NE(std::memcmp(&buf[4 * w], &plain[4 * w], 4), 0) << w;
    // Equal words scramble differently as the key runs down.
    Bytes blanks(16, ' ');
    dancode(7, blanks.data(), 16);
    EXPECT_NE(std::memcmp(&blanks[0], &blanks[4], 4), 0);
    dancode(0x12345678u, buf.data(), 103);
    EXPECT_TRUE(buf == plain);
}
