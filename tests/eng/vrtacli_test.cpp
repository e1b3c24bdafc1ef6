// The command-line host's engine, options and rc commands, run as a user runs them.
#include <gtest/gtest.h>

#include <unistd.h>

#include <string>

#include "testutil.h"

namespace {

using Result = vrtatest::CmdResult;  // out has stdout and stderr together

Result vrta(const std::string& args, const std::string& env = "") {
    return vrtatest::runCommand(env + " " VRTA_TOOLS_DIR "/vrta " + args + " 2>&1");
}

bool has(const Result& r, const std::string& s) { return r.out.find(s) != std::string::npos; }

}  // namespace

TEST(VrtaCli, EngineLoadsTheModuleAndShowsItsVector) {
    ASSERT_EQ(access(VRTA_TOOLS_DIR "/vrta", X_OK), 0) << "the vrta tool is not built";
    Result r = vrta("engine");
    ASSERT_EQ(r.status, 0) << r.out;
    EXPECT_TRUE(has(r, "engine:  \"KORVRTA \"")) << r.out;
    EXPECT_TRUE(has(r, "dict_acc      503")) << r.out;
    EXPECT_TRUE(has(r, "XHENTRY: 121 slots, 105 filled, 16 empty")) << r.out;
    EXPECT_TRUE(has(r, "HPDENT: 24 slots, 24 filled, 0 empty")) << r.out;
    EXPECT_TRUE(has(r, "   24  dummy3    empty")) << r.out;
    EXPECT_FALSE(has(r, "yoeopen")) << "a filled slot listed as empty";

    Result all = vrta("engine --all");
    EXPECT_TRUE(has(all, "   18  yoeopen   filled")) << all.out;
    EXPECT_TRUE(has(all, "   23  hperlck   filled")) << all.out;

    // A module that is not there is a clear failure, not a crash.
    Result bad = vrta("engine", "VRTA_LIB=/nonexistent/libvrta.so");
    EXPECT_EQ(bad.status, 1);
    EXPECT_TRUE(has(bad, "vrta: cannot load the module")) << bad.out;
    EXPECT_EQ(vrta("engine --bogus").status, 2);
}

TEST(VrtaCli, RcReadsHexAndDecimalAndRefusesWhatDoesNotFit) {
    Result r = vrta("rc 0x80010014 -2147221503 518", "MSGPATH=" VRTA_SRC_MSGDIR);
    ASSERT_EQ(r.status, 0) << r.out;
    EXPECT_TRUE(has(r, "0x80010014 (-2147418092) error, group 1, number 20")) << r.out;
    EXPECT_TRUE(has(r, "not available yet")) << r.out;
    EXPECT_TRUE(has(r, "0x80040001 (-2147221503) error, group 4, number 1")) << r.out;
    EXPECT_TRUE(has(r, "0x00000206 (518) warning")) << r.out;
    for (const char* bad : {"0x1ffffffff", "4294967296", "-2147483649", "12abc", "0x-1", "0x"}) {
        Result b = vrta(std::string("rc ") + bad);
        EXPECT_EQ(b.status, 2) << bad;
        EXPECT_TRUE(has(b, "is not a 32-bit code")) << bad << ": " << b.out;
    }
    EXPECT_EQ(vrta("rc").status, 2);
    // The number within the group counts 200 per high byte, and with MSGPATH
    // unset the tool finds its own message files.
    Result own = vrta("rc 0x80000407", "env -u MSGPATH");
    ASSERT_EQ(own.status, 0) << own.out;
    EXPECT_TRUE(has(own, "0x80000407 (-2147482617) error, group 0, number 807")) << own.out;
    EXPECT_TRUE(has(own, "  Out of memory.")) << own.out;
}

TEST(VrtaCli, OptionsListsAtTheAskedLevel) {
    Result r = vrta("options --level 2");
    ASSERT_EQ(r.status, 0) << r.out;
    EXPECT_TRUE(has(r, "Options in effect for level=HIGH")) << r.out;
    EXPECT_TRUE(has(r, "Option Name       Type     Set By   Value")) << r.out;
    EXPECT_TRUE(has(vrta("options"), "level=LOW"));
    for (const char* bad : {"--level", "--level 4", "--level x", "--verbose"})
        EXPECT_EQ(vrta(std::string("options ") + bad).status, 2) << bad;
    Result h = vrta("options --help");
    EXPECT_EQ(h.status, 0);
    EXPECT_TRUE(has(h, "usage: vrta options [--level N]")) << h.out;
}

TEST(VrtaCli, OptionsParsesAHostTextThroughTheEngine) {
    const std::string msg = "MSGPATH=" VRTA_SRC_MSGDIR;
    Result r = vrta("options --opt \"SERVER=db.5010 USER='ann' BITINDEX=(age Name) NUMGEN=-2 DEBUG=CORE\"", msg);
    ASSERT_EQ(r.status, 0) << r.out;
    EXPECT_TRUE(has(r, "servname     'DB'")) << r.out;
    EXPECT_TRUE(has(r, "appname      '5010'")) << r.out;
    EXPECT_TRUE(has(r, "user         'ann'")) << r.out;
    EXPECT_TRUE(has(r, "debug        0x60084000 BYSORT VRTAWHERE DEBUG DEBUG=CORE")) << r.out;
    EXPECT_TRUE(has(r, "bit          AGE NAME")) << r.out;
    EXPECT_TRUE(has(r, "gennum       -2")) << r.out;

    // A fault is shown under the word at fault, with the engine's text.
    r = vrta("options --opt \"STARTOBS=5 RPCSIZE=abc\"", msg);
    EXPECT_EQ(r.status, 2);
    EXPECT_TRUE(has(r, "  STARTOBS=5 RPCSIZE=abc\n                     ^^^\n  The option ABC is malformed.")) << r.out;
    // Each parser alone knows only its own keywords.
    r = vrta("options --table \"SERVER=x\"", msg);
    EXPECT_EQ(r.status, 2);
    EXPECT_TRUE(has(r, "SERVER is not an option of this engine.")) << r.out;
    EXPECT_EQ(vrta("options --domain \"NUMGEN=1\"", msg).status, 2);
    EXPECT_EQ(vrta("options --opt").status, 2);
}
