// Damaged tables through the vrta tool: a byte changed in the description,
// a column or a block offset, or a data file cut short, is a clear error
// naming the file and the field, never a crash, a hang or other rows.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include "cliutil.h"
#include "sda/daods.h"

namespace {

using vrtatest::files;
using vrtatest::has;
using vrtatest::readFile;
using vrtatest::Result;
using vrtatest::TempDir;
using vrtatest::writeFile;

Result cli(const std::string& args) { return vrtatest::vrta(args); }

// A loaded table and where its records stand in its MDF.
struct Table {
    TempDir tmp;
    std::string dom = tmp.file("dom");
    std::string mdf, dpf;
    std::string bytes;  // the MDF as loaded
    vrta::DA_DSFHEAD head;

    explicit Table(const std::string& opts) {
        std::string csv = "id,name,val\n";
        for (int i = 1; i <= 3000; ++i)
            csv += std::to_string(i) + ",name" + std::to_string(i) + "," + std::to_string(i * 1.5) + "\n";
        writeFile(tmp.file("t.csv"), csv);
        Result r = cli("load " + dom + " t " + tmp.file("t.csv") + " " + opts);
        EXPECT_EQ(0, r.status) << r.err;
        mdf = dom + "/" + files(dom, "t.mdf.").at(0);
        dpf = dom + "/" + files(dom, "t.dpf.").at(0);
        bytes = readFile(mdf);
        vrta::DA_FIB fib;
        std::memcpy(&fib, bytes.data(), sizeof fib);
        std::memcpy(&head, bytes.data() + fib.pdesize + vrta::DA_FIBLEN, sizeof head);
    }
    int64_t link(int slot) const { return head.links[slot]; }
    void poke(int64_t off, const std::string& b) {
        std::string m = bytes;
        m.replace(off, b.size(), b);
        writeFile(mdf, m);
    }
    void restore() { writeFile(mdf, bytes); }
};

std::string le32(uint32_t v) { return std::string(reinterpret_cast<const char*>(&v), 4); }

// Both commands refuse the table and name the field; exit 1 means a clean
// error (a sanitizer report or a signal gives another status).
void refused(const Table& t, const std::string& field) {
    for (const char* cmd : {"describe", "print"}) {
        Result r = cli(std::string(cmd) + " " + t.dom + " t");
        EXPECT_EQ(1, r.status) << cmd << ": " << r.err;
        EXPECT_TRUE(has(r.err, "Damaged field " + field)) << cmd << ": " << r.err;
        EXPECT_TRUE(has(r.err, t.mdf)) << cmd << ": " << r.err;
    }
}

TEST(DamagedTables, ChangedFieldsOfTheDescriptionAndColumnsAreRefused) {
    Table t("");
    int64_t names = t.link(vrta::DA_LNKNAMES), xoe = t.link(vrta::DA_LNKXOE);
    // A column's position far outside the row.
    t.poke(names + 76 + offsetof(vrta::DA_NAME7ODS, npos), le32(0x000fffff));
    refused(t, "npos of column 2");
    // A column moved onto the one before it.
    t.poke(names + 76 + offsetof(vrta::DA_NAME7ODS, npos), le32(0));
    refused(t, "npos of column 2");
    // A name longer than any name.
    t.poke(names + offsetof(vrta::DA_NAME7ODS, name_l), "\xff");
    refused(t, "name_l of column 1");
    // One byte of the row length: a little longer, then 16777225.
    t.poke(xoe + offsetof(vrta::DA_XOEODS, obslen), "\x19");
    refused(t, "obslen");
    t.poke(xoe + offsetof(vrta::DA_XOEODS, obslen) + 2, "\x01");
    refused(t, "obslen");
    t.poke(xoe + offsetof(vrta::DA_XOEODS, numdelete), le32(5000));
    refused(t, "numdelete");
    t.poke(xoe + offsetof(vrta::DA_XOEODS, nvar), le32(0x7fffffff));
    refused(t, "nvar");
    t.restore();
    EXPECT_EQ(0, cli("print " + t.dom + " t --last 1").status);
}

TEST(DamagedTables, DataFileShorterThanItsRowCountIsAnError) {
    Table t("");
    ASSERT_EQ(0, truncate(t.dpf.c_str(), 3000 * 24 - 1));
    Result r = cli("print " + t.dom + " t --csv");
    EXPECT_EQ(1, r.status) << r.err;
    EXPECT_TRUE(has(r.err, "shorter than numobs")) << r.err;
    EXPECT_TRUE(has(r.err, "(0x80000237)")) << r.err;
}

TEST(DamagedTables, CompressedBlockAtAWrongOffsetIsAnError) {
    Table t("--compress VRTARLC2");
    std::string clean = cli("print " + t.dom + " t --csv").out;
    ASSERT_FALSE(clean.empty());
    vrta::DA_VBHEAD vh;
    std::memcpy(&vh, t.bytes.data() + t.link(vrta::DA_LNKVBH), sizeof vh);
    vrta::DA_VBDIR dir;
    std::memcpy(&dir, t.bytes.data() + vh.rootOffset, sizeof dir);
    int64_t vec = dir.offsets[0];
    // Block 1's offset one byte off either way: the run-length exit decodes
    // that to rows of the right length, so only the offsets can tell.
    for (int delta : {1, -1, 0x100}) {
        int64_t bo;
        std::memcpy(&bo, t.bytes.data() + vec + 8, 8);
        bo += delta;
        t.poke(vec + 8, std::string(reinterpret_cast<const char*>(&bo), 8));
        Result r = cli("print " + t.dom + " t --csv");
        EXPECT_EQ(1, r.status) << delta << ": " << r.out.size() << " bytes printed";
        EXPECT_TRUE(has(r.err, "(0x80000216)")) << r.err;
    }
    t.restore();
    EXPECT_EQ(clean, cli("print " + t.dom + " t --csv").out);
}

}  // namespace
