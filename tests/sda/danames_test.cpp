#include "sda/danames.h"

#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include "sda/darc.h"
#include "testutil.h"

using namespace vrta;

TEST(Danames, LogicalNamesFoldCaseAndPickTheExtension) {
    char buf[128];
    EXPECT_EQ(dadsnam(0, "Sales", 5, nullptr, 0, buf), 9);
    EXPECT_STREQ(buf, "sales.mdf");
    dadsnam(1, "SALES", 5, "IGNORED", 7, buf);
    EXPECT_STREQ(buf, "sales.dpf");
    dadsnam(2, "Sales", 5, "ByDate", 6, buf);
    EXPECT_STREQ(buf, "sales.idxbydate");
    dadsnam(3, "Sales", 5, "K", 1, buf);
    EXPECT_STREQ(buf, "sales.auxk");
    dadsnam(4, "Sales", 5, "CATALOG", 7, buf);
    EXPECT_STREQ(buf, "sales.catalog");
    dadsnam(5, "Sales", 5, "Ix", 2, buf);
    EXPECT_STREQ(buf, "sales.hbxix");
    dadsnam(6, "Sales", 5, nullptr, 0, buf);
    EXPECT_STREQ(buf, "sales.cdf");
    // Only dsnlen bytes of the name count.
    dadsnam(0, "SalesXYZ", 5, nullptr, 0, buf);
    EXPECT_STREQ(buf, "sales.mdf");
    EXPECT_EQ(dadsnam(7, "a", 1, nullptr, 0, buf), -1);
    EXPECT_EQ(dadsnam(-1, "a", 1, nullptr, 0, buf), -1);
}

TEST(Danames, PartitionNamesRoundTripThroughTheParser) {
    char buf[256];
    // Partition 0 of a file holding its own FIB is found without domain or revision.
    EXPECT_EQ(damkpfn(buf, 0x400, "t.mdf", 7, "_data_meta", 0), 17);
    EXPECT_STREQ(buf, "t.mdf.0.0.0.vrta9");
    damkpfn(buf, 0x400, "t.mdf", 7, "_data_meta", 1);
    EXPECT_STREQ(buf, "t.mdf._data_meta.1.7.vrta9");
    damkpfn(buf, 0, "t.dpf", 3, "_d", 0);
    EXPECT_STREQ(buf, "t.dpf._d.0.3.vrta9");
    damkpfn(buf, 0x10000, "t.dpf", 3, "_d", 2);
    EXPECT_STREQ(buf, "t.dpf._d.2.3.vrta");
    EXPECT_EQ(damkpfn(buf, 0, "t.dpf", 3, "_d", 2, 10), -1);

    DA_PFNPARTS p;
    ASSERT_EQ(dafdpfn("t.dpf._data_meta.12.9999.vrta9", &p, true), 0);
    EXPECT_EQ(std::string(p.name, p.name_l), "t");
    EXPECT_EQ(std::string(p.type, p.type_l), "dpf");
    EXPECT_EQ(std::string(p.fuid, p.fuid_l), "_data_meta");
    EXPECT_EQ(p.pno, 12);
    EXPECT_EQ(p.revno, 9999);
    // Surplus points stay inside fuid.
    ASSERT_EQ(dafdpfn("t.idxk._data_my.meta.v2.0.1.vrta9", &p, true), 0);
    EXPECT_EQ(std::string(p.type, p.type_l), "idxk");
    EXPECT_EQ(std::string(p.fuid, p.fuid_l), "_data_my.meta.v2");
    EXPECT_EQ(p.pno, 0);
    EXPECT_EQ(p.revno, 1);
    // A leading point belongs to the name.
    ASSERT_EQ(dafdpfn(".t.mdf.0.0.0.vrta9", &p, true), 0);
    EXPECT_EQ(std::string(p.name, p.name_l), ".t");
    // Old suffix passes only without the check.
    EXPECT_EQ(dafdpfn("t.dpf._d.2.3.vrta", &p, true), -1);
    EXPECT_EQ(dafdpfn("t.dpf._d.2.3.vrta", &p, false), 0);
    // The root directory's empty metapath id still gives six fields.
    ASSERT_EQ(dafdpfn("t.dpf..1.2.vrta9", &p, true), 0);
    EXPECT_EQ(p.fuid_l, 0);
    EXPECT_EQ(p.pno, 1);
    for (const char* bad : {"t.mdf", "t.mdf.0.0.vrta9", "t..0.0.0.vrta9", "t.dpf._d.x.3.vrta9",
                            "t.dpf._d.1..vrta9", "t.dpf._d.1.2.", ".mdf.0.0.0.vrta9", "", "....."}) {
        EXPECT_EQ(dafdpfn(bad, &p, false), -1) << bad;
    }
    // What the builder makes the parser takes back.
    for (int pno : {0, 1, 99}) {
        damkpfn(buf, 0, "sales.hbxix", 42, "_a.b_c", pno);
        ASSERT_EQ(dafdpfn(buf, &p, true), 0) << buf;
        EXPECT_EQ(std::string(p.fuid, p.fuid_l), "_a.b_c");
        EXPECT_EQ(p.pno, pno);
        EXPECT_EQ(p.revno, 42);
    }
}

TEST(Danames, MetapathIdAndMadeUpNames) {
    char buf[64];
    EXPECT_EQ(dagmpid("/data/meta/", -1, buf), 10);
    EXPECT_STREQ(buf, "_data_meta");
    dagmpid("//data//meta", 12, buf);
    EXPECT_STREQ(buf, "_data_meta");
    dagmpid("data/meta", 9, buf);
    EXPECT_STREQ(buf, "_data_meta");
    EXPECT_EQ(dagmpid("/", 1, buf), 0);
    EXPECT_STREQ(buf, "");
    // Only mdlen bytes count.
    dagmpid("/data/meta/more", 10, buf);
    EXPECT_STREQ(buf, "_data_meta");
    EXPECT_EQ(dagmpid("/data/meta", 10, buf, 5), -1);

    char name[18];
    damkmdfn(0, 0xabcdef12, 0x1234, name);
    EXPECT_STREQ(name, "$bcdef12_00001234");
    damkmdfn(6, 0xabcdef12, 0x1234, name);
    EXPECT_STREQ(name, "$bcdef1#_00001234");
    char u[9];
    damkutln(0x1abcdef5, u);
    EXPECT_STREQ(u, "$abcdef5");
    damkutln(5, u);
    EXPECT_STREQ(u, "$0000005");
    char w[23];
    damkwrkn(0x10, 0xff, w);
    EXPECT_STREQ(w, "vrta_00000010.000000FF");

    // Two ids made in a row differ by their sequence number.
    EXPECT_NE(dagfuid(1), dagfuid(2));

    vrtatest::TempDir dir;
    damkwrkn(7, 100, w);
    vrtatest::writeFile(dir.file(w), "x");
    damkwrkn(7, 101, w);
    vrtatest::writeFile(dir.file(w), "x");
    char out[64];
    ASSERT_EQ(dafreewrk(dir.path().c_str(), 7, 100, out, sizeof out), 0);
    EXPECT_STREQ(out, "vrta_00000007.00000066");
    EXPECT_EQ(dafreewrk(dir.path().c_str(), 7, 100, out, 10), DA_BADARG);
}
