// Row reads through the fast vector, against our servers on loopback: the
// same rows over TCP, over a UNIX socket, compressed or plain, and on the
// direct path, at block edges, with projections and row ranges, for plain,
// compressed, encrypted, empty and partly deleted tables.
#include <gtest/gtest.h>

#include <random>
#include <regex>

#include "tblutil.h"

using namespace vrta;
using wiretest::Remote;

namespace {

// Wide rows, so that a block of the network holds few of them and edges
// come often: 32756 / 1000 = 32 rows a block.
const std::vector<VRTACOLDEF> WIDE = {{"ID", -1, nullptr, 0, 1, 8}, {"TEXT", -1, nullptr, 0, 2, 984}, {"X", -1, nullptr, 0, 1, 8}};
constexpr int WIDELEN = 1000;
constexpr int BF = 32;

void fillWide(long i, char* r) {
    double d = static_cast<double>(i);
    std::memcpy(r, &d, 8);
    // Mostly blanks, with a run of one byte, the escape byte and some noise:
    // all the forms of the network compression show up.
    std::memset(r + 8, ' ', 984);
    int n = std::snprintf(r + 8, 984, "row %ld", i);
    r[8 + n] = ' ';
    std::memset(r + 100, 'z', static_cast<size_t>(i % 70));
    r[300] = 25;
    std::memset(r + 400, 0, 50);
    std::mt19937 g(static_cast<unsigned>(i));
    for (int k = 0; k < 20; ++k) r[500 + k] = static_cast<char>(g());
    double x = i % 7 == 0 ? -0.0 : 1.5 * static_cast<double>(i);
    std::memcpy(r + 992, &x, 8);
}

struct Road {
    const char* name;
    int bits;     // domain options
    int direct;   // the direct path is expected
};
const Road ROADS[] = {{"direct", 0, 1},
                      {"tcp", HPD_FASTOPTNO, 0},
                      {"tcp plain", HPD_FASTOPTNO | HPD_NETCOMPNO, 0},
                      {"unix", HPD_FASTOPTNO | HPD_UNIXDOMAIN, 0}};

class Read : public ::testing::Test {
protected:
    void SetUp() override { r.start({"d"}); }
    void make(const std::string& name, long rows, const char* compress = nullptr, const char* encrypt = nullptr,
              const char* key = nullptr, std::vector<long> del = {}) {
        wiretest::TableSpec t;
        t.cols = WIDE;
        t.rows = rows;
        t.fill = fillWide;
        t.compress = compress;
        t.encrypt = encrypt;
        t.key = key;
        t.del = std::move(del);
        ASSERT_NO_FATAL_FAILURE(wiretest::makeTable(r.domain("d"), name, t));
    }
    // Opens a table on a road with table options, reads it whole.
    std::vector<std::string> read(const Road& road, const std::string& table, const char* opts = nullptr,
                                  rctype* rc = nullptr, std::vector<int> proj = {}, int* reclen = nullptr) {
        yhlibref ref;
        HPDOPT o = r.opt(road.bits);
        EXPECT_EQ(r.assign(&ref, "L", "d", &o), 0) << wiretest::subst();
        XOFPENT fast{};
        XOPNSTR q = wiretest::openReq(ref, table);
        q.fast_path = &fast;
        q.mactbl = mactbl;
        if (opts) {
            void* track = ytrakcp();
            yttpshi(track);
            yttpshb(track, opts, static_cast<int>(std::strlen(opts)));
            yttpshe(track);
            for (int k = 0; k < 10; ++k) {
                YTTOKEN* tok;
                if (yttknx(track, 1, &tok) != 0 || tok->type == 1) break;
                int scanned = 0;
                EXPECT_EQ(hpopars(&r.hpd, 0, track, &scanned, &q), 0);
                for (int i = 0; i < scanned; ++i) yttknx(track, 0, &tok);
            }
            ytrakdp(track);
        }
        void* fid = nullptr;
        rctype orc = hpoopen(&r.hpd, &fid, &q);
        hpohbfr(&q);
        EXPECT_EQ(orc, 0) << wiretest::subst();
        std::vector<std::string> rows;
        if (orc == 0) {
            auto* dcb = static_cast<HPDDCB*>(fid);
            EXPECT_EQ(dcb->dafid != nullptr, road.direct != 0) << road.name;
            int len = WIDELEN;
            if (!proj.empty()) {
                EXPECT_EQ(hpvprji(fid, static_cast<int>(proj.size())), 0);
                for (int v : proj) EXPECT_EQ(hpvprjl(fid, v, nullptr), 0);
                EXPECT_EQ(hpvprje(fid, &len), 0);
            }
            if (reclen) *reclen = len;
            rctype end = 0;
            rows = wiretest::readAll(fid, &fast, len, &end);
            if (rc) *rc = end;
            EXPECT_EQ(end, HPO_RC_EOF) << wiretest::subst();
            // Read again from the first row: the stream starts afresh.
            EXPECT_EQ(hporopn(fid, XO_INPUT), 0) << wiretest::subst();
            auto again = wiretest::readAll(fid, &fast, len, &end);
            EXPECT_EQ(again.size(), rows.size()) << road.name;
            EXPECT_EQ(hpoclos(fid, 0), 0) << wiretest::subst();
        }
        EXPECT_EQ(hpdldas(&r.hpd, &ref), 0);
        return rows;
    }
    Remote r;
    const unsigned char* mactbl = nullptr;
};

std::vector<std::string> slice(const std::vector<std::string>& v, size_t from, size_t to) {
    return std::vector<std::string>(v.begin() + static_cast<long>(std::min(from, v.size())),
                                    v.begin() + static_cast<long>(std::min(to, v.size())));
}

}  // namespace

TEST_F(Read, EveryRoadGivesTheSameRowsAtBlockEdges) {
    // A block's worth of rows, one less, one more, several blocks and a tail.
    for (long n : {1L, BF - 1L, BF * 1L, BF + 1L, 3L * BF + 5}) {
        std::string name = "t";
        name += std::to_string(n);
        make(name, n);
        auto want = wiretest::directRows(r.domain("d"), name);
        ASSERT_EQ(want.size(), static_cast<size_t>(n));
        for (const Road& road : ROADS) {
            SCOPED_TRACE(std::string(road.name) + " " + name);
            EXPECT_EQ(read(road, name), want);
        }
    }
    // The server said how each stream went: compressed blocks where asked.
    EXPECT_NE(r.sv->log().find("compressed"), std::string::npos);
}

TEST_F(Read, CompressedEncryptedEmptyAndDeletedTables) {
    make("packed", 100, "VRTARLC2");
    make("secret", 70, nullptr, "VRTACRYP", "KEY1");
    make("empty", 0);
    make("holes", 90, nullptr, nullptr, nullptr, {1, 2, 32, 33, 64, 90});
    struct Case {
        const char* table;
        const char* opts;
        const char* key;
    } cases[] = {{"packed", nullptr, nullptr}, {"secret", "PW=key1", "KEY1"}, {"empty", nullptr, nullptr},
                 {"holes", nullptr, nullptr}};
    for (const Case& c : cases) {
        auto want = wiretest::directRows(r.domain("d"), c.table, c.key);
        if (std::string(c.table) == "holes") {
            ASSERT_EQ(want.size(), 84u);
        }
        for (const Road& road : ROADS) {
            SCOPED_TRACE(std::string(road.name) + " " + c.table);
            EXPECT_EQ(read(road, c.table, c.opts), want);
        }
    }
}

TEST_F(Read, RowRangesAndProjections) {
    make("t", 3 * BF + 5, nullptr, nullptr, nullptr, {40, 41});
    auto all = wiretest::directRows(r.domain("d"), "t");  // rows 1-39, 42-101
    ASSERT_EQ(all.size(), 99u);
    make("u", 3 * BF + 5);
    auto whole = wiretest::directRows(r.domain("d"), "u");
    for (const Road& road : ROADS) {
        SCOPED_TRACE(road.name);
        // Rows 33 to 64 by their numbers: 40 and 41 are gone.
        EXPECT_EQ(read(road, "t", "STARTOBS=33 ENDOBS=64"), slice(all, 32, 62));
        EXPECT_EQ(read(road, "t", "STARTOBS=100"), slice(all, 97, 99));
        EXPECT_TRUE(read(road, "t", "STARTOBS=500").empty());
        // A range over a table without holes, ending past the direct
        // path's first block (65 rows of 1000 bytes) and the wire's second.
        EXPECT_EQ(read(road, "u", "STARTOBS=30 ENDOBS=70"), slice(whole, 29, 70));
        EXPECT_EQ(read(road, "u", "ENDOBS=65"), slice(whole, 0, 65));
        // Columns 3 and 1, in that order.
        int len = 0;
        auto p = read(road, "t", nullptr, nullptr, {3, 1}, &len);
        EXPECT_EQ(len, 16);
        ASSERT_EQ(p.size(), all.size());
        for (size_t i = 0; i < p.size(); ++i)
            ASSERT_EQ(p[i], all[i].substr(992, 8) + all[i].substr(0, 8)) << i;
    }
}

// The most rows one stream of the server sent, from its log.
long mostSent(const std::string& log) {
    static const std::regex line(R"(: (\d+) rows of \S+ in \d+ blocks)");
    long most = -1;
    for (std::sregex_iterator it(log.begin(), log.end(), line), end; it != end; ++it)
        most = std::max(most, std::stol((*it)[1].str()));
    return most;
}

TEST_F(Read, VrtaparrLetsAOneRowReadStreamFreely) {
    make("t", 3 * BF + 5);
    auto all = wiretest::directRows(r.domain("d"), "t");
    const Road& tcp = ROADS[2];
    EXPECT_EQ(read(tcp, "t", "ENDOBS=1"), slice(all, 0, 1));
    EXPECT_EQ(mostSent(r.sv->log()), 1) << r.sv->log();
    // "VRTAPARR" set to "YES": a read of one row does not tell the server
    // where to stop, and the rows stream freely; the host stops reading when
    // it has its row.
    unsigned char mac[2 * HP_MACRECL] = {};
    std::memcpy(mac, "VRTAPARR", 8);
    mac[15] = HP_MACBOOL;
    mac[19] = 1;
    mac[HP_MACRECL] = ' ';
    mactbl = mac;
    EXPECT_EQ(read(tcp, "t", "ENDOBS=1"), all);
    EXPECT_EQ(mostSent(r.sv->log()), static_cast<long>(all.size())) << r.sv->log();
    // Two rows asked for: the end goes to the server whatever the variable says.
    EXPECT_EQ(read(tcp, "t", "ENDOBS=2"), slice(all, 0, 2));
}

TEST(NetCompression, RoundTripsAndRefusesWhatDoesNotFit) {
    std::mt19937 g(7);
    for (int k = 0; k < 300; ++k) {
        // Runs of every length around the limits of each kind, escapes and noise.
        std::string in;
        int parts = static_cast<int>(g() % 20);
        for (int p = 0; p < parts; ++p) {
            static const char kinds[] = {' ', 0, 'a', 25, 'q'};
            char c = kinds[g() % 5];
            int n = static_cast<int>(g() % 140);
            if (g() % 3 == 0) {
                for (int i = 0; i < n; ++i) in.push_back(static_cast<char>(g() % 4 ? g() : 25));
            } else {
                in.append(static_cast<size_t>(n), c);
            }
        }
        std::string enc(in.size() * 2 + 8, '\0'), dec(in.size() + 1, '\0');
        int e = hpzcmp1(0, enc.data(), in.data(), static_cast<int>(enc.size()), static_cast<int>(in.size()));
        ASSERT_GE(e, 0);
        int d = hpzcmp1(1, dec.data(), enc.data(), static_cast<int>(dec.size()), e);
        ASSERT_EQ(d, static_cast<int>(in.size()));
        ASSERT_EQ(dec.substr(0, d), in);
        // An output one byte short of what it needs is refused, never overrun.
        if (e > 0) {
            EXPECT_LT(hpzcmp1(0, enc.data(), in.data(), e - 1, static_cast<int>(in.size())), 0);
        }
        if (d > 0) {
            EXPECT_LT(hpzcmp1(1, dec.data(), enc.data(), d - 1, e), 0);
        }
    }
    // The forms, byte for byte.
    auto enc = [](const std::string& in) {
        std::string o(in.size() * 2 + 8, '\0');
        int n = hpzcmp1(0, o.data(), in.data(), static_cast<int>(o.size()), static_cast<int>(in.size()));
        return o.substr(0, n < 0 ? 0 : n);
    };
    EXPECT_EQ(enc("ab   c"), std::string("ab\x19\x03" "c", 5));
    EXPECT_EQ(enc(std::string(130, ' ')), std::string("\x19\x80  ", 4));
    EXPECT_EQ(enc(std::string(3, '\0')), std::string("\x19\x82", 2));
    EXPECT_EQ(enc(std::string(62, 'x')), std::string("\x19\xfd" "x", 3));
    EXPECT_EQ(enc("a\x19" "b"), std::string("a\x19\x00" "b", 4));
    // A block cut inside an escape does not decode.
    char out[16];
    EXPECT_LT(hpzcmp1(1, out, "ab\x19", sizeof out, 3), 0);
    EXPECT_LT(hpzcmp1(1, out, "\x19\xc5", sizeof out, 2), 0);
}
