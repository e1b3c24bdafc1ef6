// The direct access API as a host uses it: tables made, written, read in
// plain and block mode, rows deleted, grown, transcoded.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "directapi/sp.h"
#include "option/op.h"
#include "ssup/xp.h"
#include "sda/darc.h"
#include "testutil.h"
#include "vrta/directapi.h"

namespace {

using namespace vrta;

constexpr int ROWLEN = 20;  // ID: 8-byte number, NAME: 12 characters

void makerow(int64_t n, char* out) {
    double d = static_cast<double>(n);
    memcpy(out, &d, 8);
    char t[16];
    snprintf(t, sizeof t, "row%09lld", static_cast<long long>(n));
    memcpy(out + 8, t, 12);
}

int64_t rowid(const char* row) {
    double d;
    memcpy(&d, row, 8);
    return static_cast<int64_t>(d);
}

bool rowis(const char* row, int64_t n) {
    char want[ROWLEN];
    makerow(n, want);
    return memcmp(row, want, ROWLEN) == 0;
}

const VRTACOLDEF COLS[] = {{"ID", -1, nullptr, 0, 1, 8}, {"NAME", -1, "Name of the row", -1, 2, 12}};

struct Api : ::testing::Test {
    vrtatest::TempDir dir;
    void* lib = nullptr;

    void SetUp() override { ASSERT_EQ(0, splasgn(dir.path().c_str(), &lib)); }
    void TearDown() override {
        if (lib) {
            EXPECT_EQ(0, spldeasgn(lib));
        }
    }

    // A table of n rows numbered 1..n, written chunk rows at a time.
    void make(const char* name, int64_t n, const char* compress = nullptr, int64_t partsize = 0,
              long chunk = 7, const char* encrypt = nullptr, const char* key = nullptr) {
        VRTACREATE cr{};
        cr.ncols = 2;
        cr.cols = COLS;
        cr.compress = compress;
        cr.encrypt = encrypt;
        cr.ekey = key;
        cr.partsize = partsize;
        void* fid = nullptr;
        ASSERT_EQ(0, vrtacreate(lib, name, -1, &cr, &fid));
        std::vector<char> buf(chunk * ROWLEN);
        void* io = nullptr;
        ASSERT_EQ(0, spnewwr(fid, static_cast<long>(buf.size()), buf.data(), 0, &io));
        for (int64_t r = 1; r <= n; r += chunk) {
            long k = static_cast<long>(std::min<int64_t>(chunk, n - r + 1));
            for (long i = 0; i < k; ++i) makerow(r + i, buf.data() + i * ROWLEN);
            ASSERT_EQ(0, spwritev(io, k));
        }
        EXPECT_EQ(0, spfreeio(io));
        EXPECT_EQ(0, vrtaclose(fid));
    }

    void* open(const char* name, const char* key = nullptr, int cei = 0) {
        void* fid = nullptr;
        int rc = vrtaopen(lib, name, -1, nullptr, 0, key, cei, nullptr, -1, 0, &fid);
        char text[256];
        vrtaerrtext(rc, text, sizeof text);
        EXPECT_EQ(0, rc) << text;
        return fid;
    }

    // Every row the cursor gives from where it stands, in calls of at most per rows.
    std::vector<int64_t> readall(void* io, long per) {
        std::vector<int64_t> got;
        for (;;) {
            long n = -1;
            void* p = nullptr;
            int64_t* ov = nullptr;
            EXPECT_EQ(0, spreadv(io, &n, &p, &ov));
            if (n <= 0) break;
            EXPECT_LE(n, per);
            for (long i = 0; i < n; ++i) {
                const char* row = static_cast<char*>(p) + i * ROWLEN;
                got.push_back(rowid(row));
                EXPECT_TRUE(rowis(row, rowid(row)));
                if (ov) {
                EXPECT_EQ(ov[i], rowid(row));
            }
            }
        }
        return got;
    }
};

std::vector<int64_t> range(int64_t a, int64_t b) {
    std::vector<int64_t> v;
    for (int64_t i = a; i <= b; ++i) v.push_back(i);
    return v;
}

TEST_F(Api, WrittenRowsReadBackToEndOfFileAndFromAnyRow) {
    make("plain", 1000);
    void* fid = open("plain");
    ASSERT_TRUE(fid);
    VRTAINFO vi;
    ASSERT_EQ(0, vrtainfo(fid, VRTAINFO_ALL, &vi));
    EXPECT_EQ(1000, vi.numobs);
    EXPECT_EQ(0, vi.numdelete);
    EXPECT_EQ(2, vi.numvar);
    EXPECT_EQ(ROWLEN, vi.obslen);
    EXPECT_EQ(0, memcmp(vi.diskcomp, "        ", 8));
    EXPECT_EQ(0, memcmp(vi.dstype, "DATA    ", 8));

    std::vector<char> buf(64 * ROWLEN);
    void* io = nullptr;
    ASSERT_EQ(0, spnewrd(fid, static_cast<long>(buf.size()), buf.data(), &io));
    EXPECT_EQ(range(1, 1000), readall(io, 64));
    // At the end a read is no error and gives no rows, again and again.
    long n = -1;
    void* p = &n;
    EXPECT_EQ(0, spreadv(io, &n, &p, nullptr));
    EXPECT_EQ(0, n);
    EXPECT_EQ(nullptr, p);

    ASSERT_EQ(0, spsetloc(io, 937));
    EXPECT_EQ(937, spcurloc(io));
    EXPECT_EQ(range(937, 1000), readall(io, 64));

    void* row = nullptr;
    ASSERT_EQ(0, spgetr(io, 1000, &row));
    EXPECT_TRUE(rowis(static_cast<char*>(row), 1000));
    EXPECT_EQ(DA_EOF, spgetr(io, 1001, &row));
    EXPECT_EQ(nullptr, row);
    // The earlier buffer size is back after spgetr.
    ASSERT_EQ(0, spsetloc(io, 1));
    ASSERT_EQ(0, spreadv(io, &n, &p, nullptr));
    EXPECT_EQ(64, n);

    // A cursor given its buffer later.
    void* io2 = nullptr;
    ASSERT_EQ(0, spnewrd(fid, 0, nullptr, &io2));
    EXPECT_EQ(DA_BADARG, spreadv(io2, &n, &p, nullptr));
    ASSERT_EQ(0, spsetrd(io2, 10 * ROWLEN, buf.data()));
    EXPECT_EQ(range(1, 1000), readall(io2, 10));
    EXPECT_EQ(0, spfreerd(io2));
    EXPECT_EQ(0, spfreerd(io));
    EXPECT_EQ(0, vrtaclose(fid));
}

TEST_F(Api, DeletedRowsAreSkippedAndSpgetrMovesToTheNextLiveRow) {
    make("del", 100);
    void* fid = nullptr;
    ASSERT_EQ(0, vrtaupdate(lib, "del", -1, nullptr, nullptr, 0, nullptr, -1, 0, &fid));
    DA_FID* fp = nullptr;
    ASSERT_EQ(0, vrtainfo(fid, VRTAINFO_FID, &fp));
    for (int64_t r : {1, 10, 11, 12, 50, 100}) ASSERT_EQ(0, dadodmp(fp, r));
    ASSERT_EQ(0, vrtaclose(fid));

    fid = open("del");
    VRTAINFO vi;
    ASSERT_EQ(0, vrtainfo(fid, VRTAINFO_ALL, &vi));
    EXPECT_EQ(6, vi.numdelete);
    std::vector<char> buf(8 * ROWLEN);
    void* io = nullptr;
    ASSERT_EQ(0, spnewrd(fid, static_cast<long>(buf.size()), buf.data(), &io));
    std::vector<int64_t> want;
    for (int64_t r = 2; r <= 99; ++r)
        if (r != 10 && r != 11 && r != 12 && r != 50) want.push_back(r);
    EXPECT_EQ(want, readall(io, 8));  // checks obsvec against the rows too

    void* row = nullptr;
    EXPECT_EQ(-1, spgetr(io, 10, &row));
    EXPECT_EQ(nullptr, row);
    EXPECT_EQ(13, spcurloc(io));
    long n = 0;
    void* p = nullptr;
    ASSERT_EQ(0, spreadv(io, &n, &p, nullptr));
    ASSERT_GT(n, 0);
    EXPECT_EQ(13, rowid(static_cast<char*>(p)));
    // No live row after the last one deleted, a row past the end, a live one.
    EXPECT_EQ(-1, spgetr(io, 100, &row));
    EXPECT_EQ(DA_EOF, spgetr(io, 101, &row));
    ASSERT_EQ(0, spgetr(io, 49, &row));
    EXPECT_TRUE(rowis(static_cast<char*>(row), 49));
    EXPECT_EQ(0, spfreerd(io));
    EXPECT_EQ(0, vrtaclose(fid));
}

TEST_F(Api, BlockModeOnCompressedTablesDealsRowsOutOfWholeBlocks) {
    make("comp", 5000, "VRTARLC2", 0, 333);
    void* fid = open("comp");
    ASSERT_TRUE(fid);
    VRTAINFO vi;
    ASSERT_EQ(0, vrtainfo(fid, VRTAINFO_ALL, &vi));
    EXPECT_EQ(0, memcmp(vi.diskcomp, "VRTARLC2", 8));
    EXPECT_EQ(0, memcmp(vi.encrypt, "        ", 8));
    EXPECT_EQ(5000, vi.numobs);
    ASSERT_GT(vi.blockfactor, 3);
    EXPECT_EQ(vi.blocksize, vi.blockfactor * ROWLEN);

    // A buffer of exactly one block is the plain path, the caller's buffer.
    std::vector<char> blk(vi.blocksize);
    void* io = nullptr;
    ASSERT_EQ(0, spnewrd(fid, vi.blocksize, blk.data(), &io));
    EXPECT_FALSE(spiobof(static_cast<DA_IOCB*>(io))->flags & SP_IOBLOCK);
    long n = 0;
    void* p = nullptr;
    ASSERT_EQ(0, spreadv(io, &n, &p, nullptr));
    EXPECT_EQ(vi.blockfactor, n);
    EXPECT_EQ(blk.data(), p);
    EXPECT_EQ(0, spfreerd(io));

    // Three rows at a time: block mode, rows dealt across block edges.
    std::vector<char> small(3 * ROWLEN);
    ASSERT_EQ(0, spnewrd(fid, static_cast<long>(small.size()), small.data(), &io));
    EXPECT_TRUE(spiobof(static_cast<DA_IOCB*>(io))->flags & SP_IOBLOCK);
    EXPECT_EQ(range(1, 5000), readall(io, 3));
    ASSERT_EQ(0, spreadv(io, &n, &p, nullptr));
    EXPECT_EQ(0, n);

    // Positions inside a block, on its first row, and in the block held.
    int32_t bf = vi.blockfactor;
    for (int64_t at : {int64_t{bf} + 2, int64_t{2} * bf + 1, int64_t{2} * bf + 5, int64_t{4999}, int64_t{1}}) {
        ASSERT_EQ(0, spsetloc(io, at));
        EXPECT_EQ(at, spcurloc(io));
        ASSERT_EQ(0, spreadv(io, &n, &p, nullptr));
        ASSERT_GT(n, 0);
        EXPECT_TRUE(rowis(static_cast<char*>(p), at)) << at;
    }
    // One row by number, then sequential reading goes on behind it.
    void* row = nullptr;
    ASSERT_EQ(0, spgetr(io, 2 * bf + 7, &row));
    EXPECT_TRUE(rowis(static_cast<char*>(row), 2 * bf + 7));
    EXPECT_EQ(2 * bf + 8, spcurloc(io));
    ASSERT_EQ(0, spreadv(io, &n, &p, nullptr));
    EXPECT_TRUE(rowis(static_cast<char*>(p), 2 * bf + 8));
    EXPECT_EQ(0, spfreerd(io));

    // A compressed table cannot be grown in place.
    void* upd = nullptr;
    ASSERT_EQ(0, vrtaupdate(lib, "comp", -1, nullptr, nullptr, 0, nullptr, -1, 0, &upd));
    EXPECT_EQ(DA_INTERNAL, vrtagrow(upd, 10));
    EXPECT_EQ(0, vrtaclose(upd));
    EXPECT_EQ(0, vrtaclose(fid));
}

TEST_F(Api, EncryptedTableOpensOnlyWithItsKey) {
    make("secret", 300, nullptr, 0, 50, "VRTACRYP", "opensesame");
    void* fid = nullptr;
    int rc = vrtaopen(lib, "secret", -1, nullptr, 0, "wrong", 0, nullptr, -1, 0, &fid);
    EXPECT_EQ(VRTA_RC_WRAPPED, rc);
    EXPECT_EQ(nullptr, fid);
    char text[256];
    vrtaerrtext(rc, text, sizeof text);
    EXPECT_NE(nullptr, strstr(text, "Member=secret")) << text;
    rc = vrtaopen(lib, "secret", -1, nullptr, 0, nullptr, 0, nullptr, -1, 0, &fid);
    EXPECT_LT(rc, 0);

    fid = open("secret", "opensesame");
    ASSERT_TRUE(fid);
    VRTAINFO vi;
    ASSERT_EQ(0, vrtainfo(fid, VRTAINFO_ALL, &vi));
    EXPECT_EQ(0, memcmp(vi.encrypt, "VRTACRYP", 8));
    std::vector<char> buf(17 * ROWLEN);
    void* io = nullptr;
    ASSERT_EQ(0, spnewrd(fid, static_cast<long>(buf.size()), buf.data(), &io));
    EXPECT_EQ(range(1, 300), readall(io, 17));
    EXPECT_EQ(0, spfreerd(io));
    EXPECT_EQ(0, vrtaclose(fid));

    // Asking one table for two different exits is refused, with nothing made.
    VRTACREATE cr{};
    cr.ncols = 2;
    cr.cols = COLS;
    cr.compress = "VRTARLC2";
    cr.encrypt = "VRTACRYP";
    cr.ekey = "k";
    EXPECT_EQ(DA_BADARG, vrtacreate(lib, "both", -1, &cr, &fid));
}

TEST_F(Api, InformationSelectorsAndColumnDescriptions) {
    make("info", 5);
    void* fid = open("info");
    ASSERT_TRUE(fid);
    int32_t i32 = 0;
    int64_t i64 = 0;
    ASSERT_EQ(0, vrtainfo(fid, VRTAINFO_OBSLEN, &i32));
    EXPECT_EQ(ROWLEN, i32);
    ASSERT_EQ(0, vrtainfo(fid, VRTAINFO_OBSLEN8, &i32));
    EXPECT_EQ(ROWLEN + 8, i32);
    ASSERT_EQ(0, vrtainfo(fid, VRTAINFO_NUMOBS, &i64));
    EXPECT_EQ(5, i64);
    ASSERT_EQ(0, vrtainfo(fid, VRTAINFO_ENCODING, &i32));
    EXPECT_EQ(20, i32);
    u_sname sn;
    ASSERT_EQ(0, vrtainfo(fid, VRTAINFO_LOCALE, &sn));
    EXPECT_EQ(std::string("en_US"), std::string(sn.name, sn.len));
    EXPECT_EQ(' ', sn.name[31]);
    ASSERT_EQ(0, vrtainfo(fid, VRTAINFO_MEMBER, &sn));
    EXPECT_EQ(std::string("info"), std::string(sn.name, sn.len));
    ASSERT_EQ(0, vrtainfo(fid, VRTAINFO_NINDEXES, &i32));
    EXPECT_EQ(0, i32);
    EXPECT_EQ(-1, vrtainfo(fid, 15, &i32));

    // A storage code wrapped with the member's name, for the caller to fetch.
    EXPECT_EQ(VRTA_RC_WRAPPED, MakeError(&sn, static_cast<int>(DA_NOTFOUND)));
    char text[256];
    vrtaerrtext(VRTA_RC_WRAPPED, text, sizeof text);
    EXPECT_EQ(0, strncmp(text, "Member=info Reason=", 19)) << text;
    EXPECT_GT(strlen(text), 19u);
    const char* sub = nullptr;
    int sublen = 0;
    ASSERT_EQ(0, xrgtsub(&sub, &sublen));
    EXPECT_EQ(std::string(text), std::string(sub, sublen));

    VRTA_NAMESTR* np = nullptr;
    EXPECT_EQ(VRTA_RC_BADVAR, vrtagetnpp(fid, 0, &np));
    EXPECT_EQ(VRTA_RC_BADVAR, vrtagetnpp(fid, 3, &np));
    ASSERT_EQ(0, vrtagetnpp(fid, 2, &np));
    EXPECT_EQ(std::string("NAME"), std::string(np->name, np->n7.name_l));
    EXPECT_EQ(std::string("Name of the row"), std::string(np->label, np->n7.label_l));
    EXPECT_EQ(2, np->n7.type);
    EXPECT_EQ(8, np->n7.npos);
    EXPECT_EQ(12, np->n7.nlng);
    EXPECT_EQ(2, np->n7.nvar0);
    ASSERT_EQ(0, vrtagetnpp(fid, 1, &np));
    EXPECT_EQ(std::string("ID"), std::string(np->name, np->n7.name_l));
    EXPECT_EQ(1, np->n7.nvar0);

    char path[1024];
    int64_t size = -1;
    ASSERT_EQ(0, vrtapartinfo(fid, 0, 0, path, sizeof path, &size));
    EXPECT_EQ(0, std::string(path).rfind(dir.path(), 0)) << path;
    EXPECT_GE(size, 5 * ROWLEN);
    EXPECT_EQ(DA_EOF, vrtapartinfo(fid, 0, 1, path, sizeof path, &size));
    EXPECT_EQ(0, vrtaclose(fid));
}

TEST_F(Api, CreateRefusesBadColumnsAndDuplicatesAndDeleteListsNoMore) {
    make("keep", 3);
    make("gone", 3);
    VRTACOLDEF bad[] = {{"X", -1, nullptr, 0, 1, 9}};
    VRTACREATE cr{};
    cr.ncols = 1;
    cr.cols = bad;
    void* fid = nullptr;
    EXPECT_EQ(DA_BADARG, vrtacreate(lib, "bad", -1, &cr, &fid));
    VRTACOLDEF longname[] = {{"A_NAME_THAT_IS_MUCH_TOO_LONG_FOR_A_COLUMN", -1, nullptr, 0, 2, 4}};
    cr.cols = longname;
    EXPECT_EQ(DA_BADARG, vrtacreate(lib, "bad", -1, &cr, &fid));
    cr.ncols = 2;
    cr.cols = COLS;
    EXPECT_EQ(VRTA_RC_WRAPPED, vrtacreate(lib, "keep", -1, &cr, &fid));
    EXPECT_EQ(VRTA_RC_WRAPPED, vrtacreate(lib, "a_table_name_longer_than_thirty_two", -1, &cr, &fid));

    auto list = [&] {
        std::vector<std::string> names;
        void* d = nullptr;
        EXPECT_EQ(0, spopendir(lib, &d));
        char nm[33];
        int nl = 0;
        while (spreaddir(d, nm, &nl) == 0) names.emplace_back(nm, nl);
        EXPECT_EQ(0, spclosedir(d));
        std::sort(names.begin(), names.end());
        return names;
    };
    EXPECT_EQ((std::vector<std::string>{"GONE", "KEEP"}), list());
    EXPECT_EQ(0, spdelete(lib, "gone", -1));
    EXPECT_EQ((std::vector<std::string>{"KEEP"}), list());
    EXPECT_EQ(VRTA_RC_WRAPPED, spdelete(lib, "gone", -1));
    EXPECT_EQ(VRTA_RC_WRAPPED, vrtaopen(lib, "gone", -1, nullptr, 0, nullptr, 0, nullptr, -1, 0, &fid));
}

TEST_F(Api, GrowAddsZeroRowsAcrossPartitions) {
    // 64 rows a partition.
    make("grow", 50, nullptr, 64 * ROWLEN);
    void* fid = nullptr;
    ASSERT_EQ(0, vrtaupdate(lib, "grow", -1, nullptr, nullptr, 0, nullptr, -1, 0, &fid));
    VRTAINFO vi;
    ASSERT_EQ(0, vrtainfo(fid, VRTAINFO_ALL, &vi));
    ASSERT_EQ(64, vi.partfactor);
    ASSERT_EQ(0, vrtagrow(fid, 100));  // to row 150: into the third partition
    ASSERT_EQ(0, vrtagrow(fid, 42));   // exactly to the end of the third
    ASSERT_EQ(0, vrtagrow(fid, 1));    // a new partition at once
    ASSERT_EQ(0, vrtaclose(fid));

    fid = open("grow");
    int64_t n = 0;
    ASSERT_EQ(0, vrtainfo(fid, VRTAINFO_NUMOBS, &n));
    EXPECT_EQ(193, n);
    int parts = 0;
    char path[1024];
    while (vrtapartinfo(fid, 0, parts, path, sizeof path, nullptr) == 0) ++parts;
    EXPECT_EQ(4, parts);
    std::vector<char> buf(193 * ROWLEN);
    void* io = nullptr;
    ASSERT_EQ(0, spnewrd(fid, static_cast<long>(buf.size()), buf.data(), &io));
    long got = 0;
    void* p = nullptr;
    ASSERT_EQ(0, spreadv(io, &got, &p, nullptr));
    ASSERT_EQ(193, got);
    const char* rows = static_cast<char*>(p);
    EXPECT_TRUE(rowis(rows + 49 * ROWLEN, 50));
    std::string zero(ROWLEN, '\0');
    for (int r : {50, 63, 64, 149, 191, 192}) EXPECT_EQ(zero, std::string(rows + r * ROWLEN, ROWLEN)) << r;
    EXPECT_EQ(0, spfreerd(io));
    EXPECT_EQ(0, vrtaclose(fid));
}

TEST_F(Api, TranscodingFailureOnReadIsReportedAfterTheGoodRows) {
    // Storage transcoding is an option, off unless asked for.
    struct On {
        int was = dagcb.nlstranscode;
        On() {
            dagcb.nlstranscode = 1;
            opbinst(opgtgbl(), "NLSTRANSCODE");
        }
        ~On() {
            dagcb.nlstranscode = was;
            opbinst(opgtgbl(), "NONLSTRANSCODE");
        }
    } on;
    // UTF-8 table; row 6 holds a character outside ASCII.
    VRTACOLDEF cols[] = {{"NAME", -1, nullptr, 0, 2, 6}};
    VRTACREATE cr{};
    cr.ncols = 1;
    cr.cols = cols;
    void* fid = nullptr;
    ASSERT_EQ(0, vrtacreate(lib, "nls", -1, &cr, &fid));
    std::vector<char> buf(10 * 6, ' ');
    for (int i = 0; i < 10; ++i) buf[i * 6] = static_cast<char>('a' + i);
    memcpy(&buf[5 * 6], "\xc3\xa9t\xc3\xa9", 5);  // "été"
    void* io = nullptr;
    ASSERT_EQ(0, spnewwr(fid, static_cast<long>(buf.size()), buf.data(), 0, &io));
    ASSERT_EQ(0, spwritev(io, 10));
    EXPECT_EQ(0, spfreeio(io));
    ASSERT_EQ(0, vrtaclose(fid));

    // An ASCII client gets rows 1..5, then the failure, then the rest.
    fid = open("nls", nullptr, NLS_CEI_ASCII);
    ASSERT_TRUE(fid);
    std::vector<char> rd(10 * 6);
    ASSERT_EQ(0, spnewrd(fid, static_cast<long>(rd.size()), rd.data(), &io));
    long n = 0;
    void* p = nullptr;
    ASSERT_EQ(0, spreadv(io, &n, &p, nullptr));
    EXPECT_EQ(5, n);
    EXPECT_EQ(VRTA_RC_TRANSCODE, spreadv(io, &n, &p, nullptr));
    EXPECT_EQ(0, n);
    ASSERT_EQ(0, spsetloc(io, 7));
    ASSERT_EQ(0, spreadv(io, &n, &p, nullptr));
    EXPECT_EQ(4, n);
    EXPECT_EQ('g', static_cast<char*>(p)[0]);
    EXPECT_EQ(0, spfreerd(io));
    EXPECT_EQ(0, vrtaclose(fid));

    // A Latin-1 client reads the value in one byte a character, padded, and
    // writes back through the other direction.
    ASSERT_EQ(0, vrtaupdate(lib, "nls", -1, nullptr, nullptr, NLS_CEI_LATIN1, nullptr, -1, 0, &fid));
    ASSERT_EQ(0, spnewrd(fid, static_cast<long>(rd.size()), rd.data(), &io));
    void* row = nullptr;
    ASSERT_EQ(0, spgetr(io, 6, &row));
    EXPECT_EQ(std::string("\xe9t\xe9   "), std::string(static_cast<char*>(row), 6));
    EXPECT_EQ(0, spfreerd(io));
    std::vector<char> wr(6, ' ');
    memcpy(wr.data(), "\xe9\xe9\xe9", 3);  // six bytes in UTF-8: fits
    ASSERT_EQ(0, spnewwr(fid, 6, wr.data(), 0, &io));
    ASSERT_EQ(0, spsetloc(io, 11));  // an updater's cursor starts on row 1
    ASSERT_EQ(0, spwritev(io, 1));
    memset(wr.data(), '\xe9', 6);  // twelve bytes in UTF-8: does not fit
    EXPECT_EQ(VRTA_RC_TRANSCODE, spwritev(io, 1));
    EXPECT_EQ(0, spfreeio(io));
    ASSERT_EQ(0, vrtaclose(fid));

    fid = open("nls");
    ASSERT_EQ(0, spnewrd(fid, 6, rd.data(), &io));
    ASSERT_EQ(0, spgetr(io, 11, &row));
    EXPECT_EQ(std::string("\xc3\xa9\xc3\xa9\xc3\xa9"), std::string(static_cast<char*>(row), 6));
    EXPECT_EQ(DA_EOF, spgetr(io, 12, &row));
    EXPECT_EQ(0, spfreerd(io));
    EXPECT_EQ(0, vrtaclose(fid));
}

}  // namespace

namespace {

TEST_F(Api, DynamicallySharedOpenersSeeEachOthersRows) {
    make("shared", 10);
    void* upd = nullptr;
    ASSERT_EQ(0, vrtaupdate(lib, "shared", -1, nullptr, nullptr, 0, nullptr, -1, VRTA_ODYNAMIC, &upd));
    void* rd = nullptr;
    ASSERT_EQ(0, vrtaopen(lib, "shared", -1, nullptr, 0, nullptr, 0, nullptr, -1, VRTA_ODYNAMIC, &rd));
    int32_t of = 0;
    ASSERT_EQ(0, vrtainfo(rd, VRTAINFO_OFLAGS, &of));
    EXPECT_EQ(VRTA_ODYNAMIC, of);

    std::vector<char> wbuf(5 * ROWLEN);
    void* wio = nullptr;
    ASSERT_EQ(0, spnewwr(upd, static_cast<long>(wbuf.size()), wbuf.data(), 0, &wio));
    ASSERT_EQ(0, spsetloc(wio, 11));
    for (int i = 0; i < 5; ++i) makerow(11 + i, wbuf.data() + i * ROWLEN);
    ASSERT_EQ(0, spwritev(wio, 5));

    std::vector<char> rbuf(4 * ROWLEN);
    void* rio = nullptr;
    ASSERT_EQ(0, spnewrd(rd, static_cast<long>(rbuf.size()), rbuf.data(), &rio));
    EXPECT_EQ(range(1, 15), readall(rio, 4));
    void* row = nullptr;
    ASSERT_EQ(0, spgetr(rio, 15, &row));
    EXPECT_TRUE(rowis(static_cast<char*>(row), 15));
    EXPECT_EQ(0, spfreerd(rio));
    EXPECT_EQ(0, spfreeio(wio));
    EXPECT_EQ(0, vrtaclose(rd));
    EXPECT_EQ(0, vrtaclose(upd));
}

}  // namespace
