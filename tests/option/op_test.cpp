#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "option/op.h"

using namespace vrta;

namespace {

// A fresh table built the way its owner builds it.
struct Table {
    std::vector<char> bytes;
    Table() : bytes(static_cast<size_t>(optini1())) {
        EXPECT_EQ(optini2(p()), 0);
        EXPECT_EQ(optini3(p()), 0);
    }
    void* p() { return bytes.data(); }
    OPTS* opts() { return reinterpret_cast<OPTS*>(bytes.data()); }
};

int geti(void* t, const char* name, int* v) {
    int len = -1;
    int rc = opgetop(t, name, v, &len);
    if (rc == 0) {
        EXPECT_EQ(len, 4) << name;
    }
    return rc;
}

}  // namespace

TEST(OptionTable, SizeOrderAndCharacterOffsets) {
    // Head plus the character limits: 5 of 1024, 7 of 256, 3 of 32, 16, 2 of 8.
    EXPECT_EQ(optini1(), 3528 + 5 * 1024 + 7 * 256 + 3 * 32 + 16 + 2 * 8);
    Table t;
    OPTS* o = t.opts();
    ASSERT_EQ(o->opcount, 88);
    EXPECT_STREQ(o->optitem[0].name, "ACLPATH");
    EXPECT_STREQ(o->optitem[87].name, "XCI_MAXMEMORY");
    int32_t next = 3528;
    for (int i = 0; i < 88; i++) {
        const OPTITEM& it = o->optitem[i];
        if (i > 0) {
            EXPECT_LT(std::memcmp(o->optitem[i - 1].name, it.name, 16), 0) << it.name;
        }
        // Every item is reachable by the binary search.
        OPTITEM* found = nullptr;
        int neg = -1;
        ASSERT_EQ(opt_find(t.p(), std::string(it.name, strnlen(it.name, 16)).c_str(), &found, &neg), 0) << i;
        EXPECT_EQ(found, &o->optitem[i]);
        EXPECT_EQ(neg, 0);
        uint32_t type = it.flags & OPF_TYPEMASK;
        EXPECT_TRUE(type == OPF_BINARY || type == OPF_INTEGER || type == OPF_DOUBLE || type == OPF_CHAR);
        if (type == OPF_CHAR && !(it.flags & OPF_OBSOLETE)) {
            EXPECT_EQ(it.opinfo.cdesc.offset, next) << it.name;
            next += it.opinfo.cdesc.maxlen;
        }
    }
    EXPECT_EQ(next, optini1());
}

TEST(OptionTable, DefaultsAsBuilt) {
    Table t;
    double d = 0;
    int v = -1;
    EXPECT_EQ(opgetop(t.p(), "SORTSIZE", &d, nullptr), OP_NOVALUE);
    EXPECT_EQ(opgetop(t.p(), "INDEX_SORTSIZE", &d, nullptr), 0);
    EXPECT_EQ(d, 33554432.0);
    EXPECT_EQ(opgetop(t.p(), "MINPARTSIZE", &d, nullptr), 0);
    EXPECT_EQ(d, 16777216.0);
    EXPECT_EQ(opgetop(t.p(), "NOSORTSIZE", &d, nullptr), OP_NOTFOUND);

    struct { const char* name; int value; } ints[] = {
        {"BINBUFSIZE", 32768}, {"BYRANGEPENALTY", 25}, {"INDEX_MAXMEMORY", 10485760},
        {"MAXGENNUM", 512}, {"MAXOBSBUF", 1048576}, {"MAXSEGRATIO", 75}, {"MVREFRESHTIME", 30},
        {"RANIOBUFMIN", 4096}, {"SEQIOBUFMIN", 65536}, {"SQLAUDLEN", 1024}, {"WHAUDLEN", 512},
        {"IDLE_TIMEOUT", 0}};
    for (auto& e : ints) {
        ASSERT_EQ(geti(t.p(), e.name, &v), 0) << e.name;
        EXPECT_EQ(v, e.value) << e.name;
    }
    // A 0 default is no value, except where the server set it explicitly.
    EXPECT_EQ(geti(t.p(), "CONCURRENCY", &v), OP_NOVALUE);
    OPTITEM* it = nullptr;
    int neg = 0;
    ASSERT_EQ(opt_find(t.p(), "IDLE_TIMEOUT", &it, &neg), 0);
    EXPECT_EQ(it->flags & OPF_SETMASK, OPF_SERVER);

    EXPECT_EQ(opbingt(t.p(), "NOWHEREAUDIT"), 1);
    EXPECT_EQ(opbingt(t.p(), "WHEREAUDIT"), 0);
    EXPECT_EQ(opbingt(t.p(), "WHERECOSTING"), 1);
    EXPECT_EQ(opbingt(t.p(), "REVNUMUPDATE"), 1);
    EXPECT_EQ(opbingt(t.p(), "BYINDEX"), 0);
    EXPECT_EQ(opbingt(t.p(), "ALLOWMMAP"), 1);
    EXPECT_EQ(opbingt(t.p(), "DEBUG"), OP_NOVALUE);
    EXPECT_EQ(opbingt(t.p(), "MAXSEGRATIO"), OP_NOTFOUND);
    EXPECT_EQ(geti(t.p(), "NOLDAP", &v), 0);
    EXPECT_EQ(v, 1);

    // The character option initialised as an integer stays unset, yet can be set.
    char buf[256];
    int len = 0;
    EXPECT_EQ(opgetop(t.p(), "LDAPBINDMETH", buf, &len), OP_NOVALUE);
    char meth[] = "simple";
    EXPECT_EQ(opsetop(t.p(), "LDAPBINDMETH", meth, 6), 0);
    ASSERT_EQ(opgetop(t.p(), "LDAPBINDMETH", buf, &len), 0);
    EXPECT_EQ(std::string(buf, static_cast<size_t>(len)), "simple");

    EXPECT_EQ(opqopt(t.p(), "WORKPATH"), static_cast<int>(OPF_CHAR));
    EXPECT_EQ(opqopt(t.p(), "NOBYINDEX"), static_cast<int>(OPF_BINARY));
    EXPECT_EQ(opqopt(t.p(), "NOWORKPATH"), OP_NOTFOUND);
}

TEST(OptionTable, SetChecksLimitsAndTypes) {
    Table t;
    int v = 100;
    EXPECT_EQ(opsetop(t.p(), "MAXSEGRATIO", &v, 4), 0);
    v = 101;
    EXPECT_EQ(opsetop(t.p(), "MAXSEGRATIO", &v, 4), OP_RANGE);
    v = -1;
    EXPECT_EQ(opsetop(t.p(), "MAXSEGRATIO", &v, 4), OP_RANGE);
    EXPECT_EQ(geti(t.p(), "MAXSEGRATIO", &v), 0);
    EXPECT_EQ(v, 100);
    v = 2147483647;
    EXPECT_EQ(opsetop(t.p(), "TRANSFERSIZE", &v, 4), 0);
    v = 65537;
    EXPECT_EQ(opsetop(t.p(), "MAXGENNUM", &v, 4), OP_RANGE);
    v = 2;
    EXPECT_EQ(opsetop(t.p(), "BYINDEX", &v, 4), OP_RANGE);

    double d = -0.5;
    EXPECT_EQ(opsetop(t.p(), "SORTSIZE", &d, 8), OP_RANGE);
    d = 1e9;
    EXPECT_EQ(opsetop1(t.p(), "SORTSIZE", &d, 8, 1), 0);
    d = 0;
    EXPECT_EQ(opgetop(t.p(), "SORTSIZE", &d, nullptr), 0);
    EXPECT_EQ(d, 1e9);

    char eight[] = "ABCDEFGH", nine[] = "ABCDEFGHI";
    EXPECT_EQ(opsetop(t.p(), "DEFCOMPRESS", nine, 9), OP_TOOLONG);
    EXPECT_EQ(opsetop(t.p(), "DEFCOMPRESS", eight, 8), 0);
    // The neighbouring value must not be touched by a full-length value.
    char enc[] = "X";
    EXPECT_EQ(opsetop(t.p(), "DEFENCRYPT", enc, 1), 0);
    char buf[16] = {};
    int len = 0;
    ASSERT_EQ(opgetop(t.p(), "DEFCOMPRESS", buf, &len), 0);
    EXPECT_EQ(std::string(buf, static_cast<size_t>(len)), "ABCDEFGH");

    v = 1;
    EXPECT_EQ(opsetop(t.p(), "NOMAXSEGRATIO", &v, 4), OP_NOTFOUND);
    EXPECT_EQ(opsetop(t.p(), "NOSUCHOPTION", &v, 4), OP_NOTFOUND);

    EXPECT_EQ(opgetop(nullptr, "BYINDEX", &v, nullptr), OP_NOTABLE);
    EXPECT_EQ(opbingt(nullptr, "BYINDEX"), OP_NOTABLE);
    EXPECT_EQ(opsetop(nullptr, "BYINDEX", &v, 4), OP_NOTABLE);
    EXPECT_EQ(opbinst(nullptr, "BYINDEX"), OP_NOTABLE);
    EXPECT_EQ(opqopt(nullptr, "BYINDEX"), OP_NOTABLE);
    EXPECT_EQ(opt_dump(nullptr, 0), OP_NOTABLE);
}

TEST(OptionTable, NoNamesAndWhoSetIt) {
    Table t;
    OPTITEM* it = nullptr;
    int neg = 0;
    EXPECT_EQ(opt_find(t.p(), "NOBYINDEX", &it, &neg), 0);
    EXPECT_EQ(neg, 1);
    EXPECT_STREQ(it->name, "BYINDEX");
    EXPECT_EQ(opt_find(t.p(), "noBYINDEX", &it, &neg), 0);
    EXPECT_EQ(neg, 1);
    EXPECT_EQ(opt_find(t.p(), "NoBYINDEX", &it, &neg), OP_NOTFOUND);
    EXPECT_EQ(opt_find(t.p(), "byindex", &it, &neg), OP_NOTFOUND);
    EXPECT_EQ(opt_find(t.p(), "BYINDEXX", &it, &neg), OP_NOTFOUND);
    EXPECT_EQ(opt_find(t.p(), "TRANSFERQUANTUM", &it, &neg), 0);
    EXPECT_EQ(opt_find(t.p(), "TRANSFERQUANTUMS", &it, &neg), OP_NOTFOUND);
    EXPECT_EQ(opt_find(t.p(), "NOTRANSFERQUANTUM", &it, &neg), 0);
    EXPECT_EQ(neg, 1);

    EXPECT_EQ(opbinst1(t.p(), "LDAP", 1), 0);
    EXPECT_EQ(opbingt(t.p(), "LDAP"), 1);
    ASSERT_EQ(opt_find(t.p(), "LDAP", &it, &neg), 0);
    EXPECT_EQ(it->flags & OPF_SETMASK, OPF_PARM);
    EXPECT_EQ(opbinst(t.p(), "NOLDAP"), 0);
    EXPECT_EQ(opbingt(t.p(), "LDAP"), 0);
    EXPECT_EQ(it->flags & OPF_SETMASK, OPF_SERVER);
    EXPECT_EQ(opbinst(t.p(), "MAXSEGRATIO"), OP_NOTFOUND);

    // A NO name flips the caller's own variable and stores the flipped value.
    int v = 1;
    EXPECT_EQ(opsetop(t.p(), "NOCOREFILE", &v, 4), 0);
    EXPECT_EQ(v, 0);
    EXPECT_EQ(opbingt(t.p(), "COREFILE"), 0);
    EXPECT_EQ(opbingt(t.p(), "NOCOREFILE"), 1);
}

TEST(OptionTable, ObsoleteWarnsAndLeavesTableUnchanged) {
    Table t;
    std::vector<char> before = t.bytes;
    int v = 1;
    testing::internal::CaptureStdout();
    EXPECT_EQ(opsetop(t.p(), "DA_IOSTATS", &v, 4), 0);
    EXPECT_EQ(opbinst(t.p(), "NOINDEX_MMAP"), 0);
    v = 5;
    EXPECT_EQ(opsetop1(t.p(), "SEGSIZE", &v, 4, 1), 0);
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_NE(out.find("WARNING Option DA_IOSTATS is OBSOLETE and will be ignored\n"), std::string::npos) << out;
    EXPECT_NE(out.find("WARNING Option INDEX_MMAP is OBSOLETE and will be ignored\n"), std::string::npos) << out;
    EXPECT_NE(out.find("WARNING Option SEGSIZE is OBSOLETE and will be ignored\n"), std::string::npos) << out;
    EXPECT_EQ(t.bytes, before);
    EXPECT_EQ(geti(t.p(), "SEGSIZE", &v), OP_NOVALUE);
}

TEST(OptionTable, SelfCheckRejectsDisorderAndMissingLimits) {
    std::vector<char> img(static_cast<size_t>(optini1()));
    OPTS* o = reinterpret_cast<OPTS*>(img.data());
    ASSERT_EQ(optini2(img.data()), 0);
    std::swap(o->optitem[86], o->optitem[87]);
    testing::internal::CaptureStdout();
    EXPECT_EQ(optini3(img.data()), OP_BADTABLE);
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_NE(out.find("ERROR: Option WORKPATH Out of Order in option table\n"), std::string::npos) << out;

    ASSERT_EQ(optini2(img.data()), 0);
    o->optitem[86].opinfo.cdesc.maxlen = 0;  // WORKPATH
    testing::internal::CaptureStdout();
    EXPECT_EQ(optini3(img.data()), OP_BADTABLE);
    out = testing::internal::GetCapturedStdout();
    EXPECT_NE(out.find("ERROR: Option WORKPATH improperly initialized\n"), std::string::npos) << out;

    // An initialiser given an unknown or obsolete name reports and goes on.
    ASSERT_EQ(optini2(img.data()), 0);
    testing::internal::CaptureStdout();
    EXPECT_EQ(opintinit(img.data(), "NOSUCHOPTION", 5, 5), OP_NOTFOUND);
    EXPECT_EQ(opdblinit(img.data(), "SORT_ALGORITHM", 5.0, 0.0), OP_NOTFOUND);
    out = testing::internal::GetCapturedStdout();
    EXPECT_NE(out.find("Assertion failed: option/src/optdefi/"), std::string::npos) << out;
}

TEST(OptionTable, DumpListsDocumentedAndUserSettings) {
    Table t;
    char path[] = "/tmp/w";
    ASSERT_EQ(opsetop1(t.p(), "WORKPATH", path, 6, 1), 0);
    int v = 3;
    ASSERT_EQ(opsetop1(t.p(), "TRACELVL", &v, 4, 1), 0);
    ASSERT_EQ(opbinst1(t.p(), "DEBUG", 0), 0);  // undocumented, by the server: not listed
    char* msg = nullptr;
    int len = 0;
    ASSERT_EQ(opt_dumpf(t.p(), &msg, &len, 2), 0);
    std::string text(msg, static_cast<size_t>(len));
    std::free(msg);

    const std::string head =
        "\nOptions in effect for level=HIGH\n"
        "Option Name       Type     Set By   Value\n"
        "-----------       ------   ------   ------------\n";
    ASSERT_EQ(text.substr(0, head.size()), head);
    const char* lines[] = {
        "\"BINBUFSIZE      \"Integer  Server   32768\n",
        "\"BYINDEX         \"Binary   Server   NOBYINDEX\n",
        "\"FMTDOMAIN       \"Char     Server   <default>\n",
        "\"INDEX_SORTSIZE  \"Double   Server   33554432.000000\n",
        "\"SORTSIZE        \"Double   Server   <default>\n",
        "\"TRACELVL        \"Integer  User     3 [undocumented]\n",
        "\"WHERECOSTING    \"Binary   Server   WHERECOSTING\n",
        "\"WORKPATH        \"Char     User     '/tmp/w'\n",
    };
    for (const char* l : lines) EXPECT_NE(text.find(l), std::string::npos) << l << text;
    EXPECT_EQ(text.find("DEBUG"), std::string::npos);
    EXPECT_EQ(text.find("ALLOWMMAP"), std::string::npos);

    // One line per documented item plus the user's undocumented one.
    int documented = 0;
    for (const OPTITEM& it : t.opts()->optitem) documented += (it.flags & OPF_DOC) ? 1 : 0;
    size_t nl = 0;
    for (char c : text) nl += c == '\n';
    EXPECT_EQ(nl, 4u + static_cast<size_t>(documented) + 1u);

    testing::internal::CaptureStdout();
    ASSERT_EQ(opt_dump(t.p(), 7), 0);
    std::string out = testing::internal::GetCapturedStdout();
    const std::string lockhead = "\nOptions in effect for level=LOCKING\n";
    EXPECT_EQ(out.substr(0, lockhead.size()), lockhead);
    EXPECT_EQ(out.substr(out.find('\n', 1)), text.substr(text.find('\n', 1)));
}

TEST(OptionTable, ProcessTableAndPrivateClone) {
    void* t = opinitgbl();
    ASSERT_NE(t, nullptr);
    EXPECT_EQ(opgtgbl(), t);
    EXPECT_EQ(opinitgbl(), t);
    EXPECT_EQ(opbingt(opgtgbl(), "WHERECOSTING"), 1);

    void* c = opclonegbl();
    ASSERT_NE(c, nullptr);
    EXPECT_NE(c, t);
    EXPECT_EQ(opgtgbl(), c);
    EXPECT_EQ(std::memcmp(c, t, static_cast<size_t>(optini1())), 0);
    EXPECT_EQ(opbinst(c, "NOWHERECOSTING"), 0);
    EXPECT_EQ(opbingt(c, "WHERECOSTING"), 0);
    EXPECT_EQ(opbingt(t, "WHERECOSTING"), 1);
    opstgbl(t);
    std::free(c);
}
