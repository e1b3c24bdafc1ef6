// Column numbers in the records of a real table: 1-based on disk, checked
// byte for byte, and refused when a file carries one outside the table.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "lifeutil.h"
#include "sda/daods.h"
#include "testutil.h"

using namespace vrta;
using namespace lifetest;

namespace {

std::string bytes(std::initializer_list<int> b) {
    std::string s;
    for (int v : b) s.push_back(static_cast<char>(v));
    return s;
}

struct Table {
    vrtatest::TempDir dir;
    std::string mdf;
    DA_DSFHEAD head{};
    int64_t idxoff = -1;
    int64_t idxnvoff = -1;
    int64_t hdroff = -1;

    // A two-column table sorted by NAME then ID, with one index record over
    // NAME linked in by hand (the index layer writes these the same way).
    Table() {
        DA_LIB* lp = assign(dir.path());
        DA_FID* fp = create(lp, "cn");
        EXPECT_EQ(1, fp->vars[0].nvar0);
        EXPECT_EQ(2, fp->vars[1].nvar0);
        auto r = rows(1, 3);
        EXPECT_EQ(0, dawrobs(fp, 1, r.data(), 3));
        DA_SORTINFO si{};
        memcpy(si.collate, "ASCII   ", 8);
        si.nvars = 2;
        si.nvar0[0] = 2;
        si.nvar0[1] = 1;
        EXPECT_EQ(0, fp->mt->setsortinfo(fp, &si));
        DA_FCB* fcb = fcbof(fp);
        hdroff = fcb->hdrOff;
        std::vector<char> ib(daidxlen(12, 1));
        auto* ip = reinterpret_cast<DA_IDXODS*>(ib.data());
        dainitidx(ip, 12, 1);
        ip->name_l = 4;
        memcpy(ip->name, "BYNM", 4);
        daidxnvar0(ip)[0] = 2;
        idxnvoff = ip->nvar0Off;
        EXPECT_EQ(0, dawrods(fcb->mdfio, ip, &idxoff));
        fcb->dshdr.links[DA_LNKIDX] = idxoff;
        fcb->flags |= DA_FCBDSHDR;
        EXPECT_EQ(0, darclos(fp));
        EXPECT_EQ(0, dafrlib(lp));
        mdf = dir.file("cn.mdf.0.0.0.vrta9");
        std::string img = vrtatest::readFile(mdf);
        EXPECT_GT(img.size(), hdroff + sizeof head);
        memcpy(&head, img.data() + hdroff, sizeof head);
    }

    std::string image() const { return vrtatest::readFile(mdf); }

    rctype open(DA_FID** fp) {
        DA_LIB* lp = assign(dir.path());
        DA_OPNSTR o = request("cn", DA_OMINPUT);
        rctype rc = daopen(lp, &o, fp);
        if (rc < 0) {
            EXPECT_GE(dafrlib(lp), 0);
        }
        return rc;
    }

    rctype walk() {
        int fd = ::open(mdf.c_str(), O_RDONLY);
        if (fd < 0) return -1;
        rctype rc = damdfwalk(daodspfd(&fd, mdf.c_str()), 0,
                              [](void*, int, da_off_t, const void*, int) -> rctype { return 0; }, nullptr,
                              nullptr, nullptr);
        ::close(fd);
        return rc;
    }

    // The image with a 4-byte integer replaced at offset.
    void patch(const std::string& img, int64_t off, int32_t v) {
        std::string m = img;
        memcpy(m.data() + off, &v, 4);
        vrtatest::writeFile(mdf, m);
    }
};

}  // namespace

TEST(ColumnNumbers, EveryRecordCarriesItsColumnFromOneOnDisk) {
    Table t;
    std::string img = t.image();
    int64_t names = t.head.links[DA_LNKNAMES];
    ASSERT_GT(names, 0);
    // The name vector: ID, a number of 8 bytes at 0, and NAME, 12 characters
    // at 8 with a label; names and label lie in the string pool at 0, 8, 16.
    std::string want = bytes({
        0, 0, 0, 0,  0, 0, 0, 0,  0, 0, 0, 0,      // npos npos2 nipos
        1, 0, 0, 0,                                // nvar0: the first column is 1
        8, 0, 0, 0,  0, 0, 0, 0,  0, 0, 0, 0,      // nlng nlng2 nprec
        0, 0, 0, 0,                                // flags
        0, 0, 0, 0,                                // namepid
        0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff,  // label, formats: none
        2, 0,  0, 0,  0, 0,  0, 0,                 // name_l label_l nform_l niform_l
        0, 0,  0, 0,  0, 0,  0, 0,  0, 0,  0, 0,   // nfl nfd nifl nifd nscale ntattr
        1, 0, 0, 0, 0,  0, 0, 0,                   // type subtype sort justify ntype2, pad
        8, 0, 0, 0,  0, 0, 0, 0,  0, 0, 0, 0,
        2, 0, 0, 0,                                // nvar0 of NAME
        12, 0, 0, 0,  0, 0, 0, 0,  0, 0, 0, 0,
        0, 0, 0, 0,
        8, 0, 0, 0,                                // namepid
        16, 0, 0, 0,                               // labelpid
        0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff,
        4, 0,  15, 0,  0, 0,  0, 0,
        0, 0,  0, 0,  0, 0,  0, 0,  0, 0,  0, 0,
        2, 0, 0, 0, 0,  0, 0, 0,
    });
    ASSERT_EQ(want.size(), 2 * sizeof(DA_NAME7ODS));
    EXPECT_EQ(want, img.substr(names, want.size()));

    // Sort information: flags, nvars, then NAME (2) before ID (1).
    int64_t sin = t.head.links[DA_LNKSIN];
    EXPECT_EQ(bytes({1, 0, 0, 4, 0x18, 2, 0, 0}), img.substr(sin, 8));
    EXPECT_EQ("ASCII   ", img.substr(sin + 8, 8));
    EXPECT_EQ(bytes({0, 0, 0, 0, 2, 0, 0, 0, 2, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0}), img.substr(sin + 16, 20));

    // The index record's variable numbers: NAME alone.
    EXPECT_EQ(t.idxoff, t.head.links[DA_LNKIDX]);
    EXPECT_EQ(bytes({2, 0, 0, 0}), img.substr(t.idxoff + t.idxnvoff, 4));

    // Read back: the open table and its walker agree with the bytes.
    EXPECT_EQ(0, t.walk());
    DA_FID* fp = nullptr;
    ASSERT_EQ(0, t.open(&fp));
    EXPECT_EQ(1, fp->vars[0].nvar0);
    EXPECT_EQ(2, fp->vars[1].nvar0);
    EXPECT_EQ(2, fp->sortinfo->nvars);
    EXPECT_EQ(2, fp->sortinfo->nvar0[0]);
    EXPECT_EQ(1, fp->sortinfo->nvar0[1]);
    // Callers name columns from 1 too: 0 and nvar + 1 are refused.
    DA_SORTINFO si{};
    si.nvars = 1;
    EXPECT_EQ(DA_BADARG, fp->mt->setsortinfo(fp, &si));
    si.nvar0[0] = 3;
    EXPECT_EQ(DA_BADARG, fp->mt->setsortinfo(fp, &si));
    int32_t drop0 = 0, drop3 = 3, drop1 = 1;
    EXPECT_EQ(DA_BADARG, fp->mt->dropvars(fp, 1, &drop0));
    EXPECT_EQ(DA_BADARG, fp->mt->dropvars(fp, 1, &drop3));
    ASSERT_EQ(0, fp->mt->dropvars(fp, 1, &drop1));
    ASSERT_EQ(1, fp->numvar);
    EXPECT_EQ(std::string("NAME"), std::string(fp->vars[0].name, fp->vars[0].name_l));
    EXPECT_EQ(2, fp->vars[0].nvar0);  // a view keeps each column's own number
    DA_LIB* lp = fp->lib;
    ASSERT_EQ(0, darclos(fp));
    EXPECT_GE(dafrlib(lp), 0);
}

// A column number of 0, past the column count, or not the entry's own place
// is a damaged file: the open and the walker give the code and read nothing
// outside the records.
TEST(ColumnNumbers, OutOfRangeNumbersInAFileAreRefused) {
    Table t;
    const std::string img = t.image();
    int64_t names = t.head.links[DA_LNKNAMES];
    int64_t sin = t.head.links[DA_LNKSIN];
    struct Case {
        const char* what;
        int64_t off;
        int32_t v;
        bool opens;  // index records are read by the index layer, not at open
    } cases[] = {
        {"first name entry 0", names + 12, 0, false},
        {"first name entry past nvar", names + 12, 3, false},
        {"second name entry repeats the first", names + 76 + 12, 1, false},
        {"sort column 0", sin + 24, 0, false},
        {"sort column past nvar", sin + 28, 3, false},
        {"sort column negative", sin + 24, -1, false},
        {"index column 0", t.idxoff + t.idxnvoff, 0, true},
        {"index column past nvar", t.idxoff + t.idxnvoff, 3, true},
    };
    for (const auto& c : cases) {
        t.patch(img, c.off, c.v);
        EXPECT_EQ(DA_INTERNAL, t.walk()) << c.what;
        DA_FID* fp = nullptr;
        rctype rc = t.open(&fp);
        if (c.opens) {
            EXPECT_EQ(0, rc) << c.what;
        } else {
            EXPECT_EQ(DA_INTERNAL, rc) << c.what;
        }
        if (rc >= 0) {
            DA_LIB* lp = fp->lib;
            EXPECT_GE(darclos(fp), 0);
            EXPECT_GE(dafrlib(lp), 0);
        }
    }
    t.patch(img, names + 12, 1);
    EXPECT_EQ(0, t.walk());
}
