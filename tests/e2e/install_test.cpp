// The installed tree as a user builds on it: cmake --install into a fresh
// prefix, then a small C program found through find_package(vrta) and
// through pkg-config, and the installed vrta with nothing in its environment.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "testutil.h"

namespace {

const char* USE_C =
    "#include <stdio.h>\n"
    "#include <vrta/directapi.h>\n"
    "int main(int argc, char** argv) {\n"
    "    void *lib = 0, *fid = 0;\n"
    "    int obslen = 0;\n"
    "    VRTACOLDEF col = {\"N\", -1, 0, 0, 1, 8};\n"
    "    VRTACREATE cr = {1, &col};\n"
    "    if (argc < 2 || splasgn(argv[1], &lib) < 0 || vrtacreate(lib, \"t\", 1, &cr, &fid) < 0) return 1;\n"
    "    if (vrtaclose(fid) < 0 || vrtaopen(lib, \"t\", 1, \"DATA\", 0, 0, 0, 0, 0, 0, &fid) < 0) return 2;\n"
    "    if (vrtainfo(fid, 0, &obslen) < 0) return 3;\n"
    "    printf(\"opened t of %d bytes a row\\n\", obslen);\n"
    "    return vrtaclose(fid) < 0 || spldeasgn(lib) < 0;\n"
    "}\n";

vrtatest::CmdResult run(const std::string& cmd) { return vrtatest::runCommand(cmd + " 2>&1"); }

}  // namespace

TEST(Install, PrefixServesCMakePkgConfigAndTheTool) {
    vrtatest::TempDir tmp;
    std::string inst = tmp.file("inst"), src = tmp.file("src");
    auto r = run(std::string(VRTA_CMAKE) + " --install " + VRTA_BINARY_DIR + " --prefix " + inst);
    ASSERT_EQ(0, r.status) << r.out;
    for (const char* f : {"lib/libvrta.so", "include/vrta/directapi.h", "share/vrta/msg/vrtamsg.m", "bin/vrta",
                          "lib/vrta/exits/libxdemo.so", "lib/cmake/vrta/vrtaConfig.cmake", "lib/pkgconfig/vrta.pc"})
        EXPECT_EQ(0, access((inst + "/" + f).c_str(), R_OK)) << f;

    // find_package(vrta) and the target vrta::vrta.
    ASSERT_EQ(0, mkdir(src.c_str(), 0755));
    vrtatest::writeFile(src + "/use.c", USE_C);
    vrtatest::writeFile(src + "/CMakeLists.txt",
                        "cmake_minimum_required(VERSION 3.25)\n"
                        "project(use C)\n"
                        "find_package(vrta 0.1 REQUIRED)\n"
                        "add_executable(use use.c)\n"
                        "target_link_libraries(use PRIVATE vrta::vrta)\n");
    std::string flags = std::string("'-DCMAKE_C_FLAGS=") + VRTA_SANFLAGS + "'";
    r = run(std::string(VRTA_CMAKE) + " -S " + src + " -B " + tmp.file("b") + " -DCMAKE_PREFIX_PATH=" + inst +
            " -DCMAKE_C_COMPILER=" + VRTA_CC + " " + flags + " && " + VRTA_CMAKE + " --build " + tmp.file("b"));
    ASSERT_EQ(0, r.status) << r.out;
    r = run(tmp.file("b/use") + " " + tmp.path());
    EXPECT_EQ(0, r.status) << r.out;
    EXPECT_EQ("opened t of 8 bytes a row\n", r.out);

    // pkg-config, from a tree moved elsewhere as a whole.
    std::string moved = tmp.file("moved");
    ASSERT_EQ(0, rename(inst.c_str(), moved.c_str()));
    r = run("PKG_CONFIG_PATH=" + moved + "/lib/pkgconfig pkg-config --cflags --libs vrta");
    ASSERT_EQ(0, r.status) << r.out;
    std::string pc = r.out.substr(0, r.out.find('\n'));
    r = run(std::string(VRTA_CC) + " " + VRTA_SANFLAGS + " " + src + "/use.c " + pc + " -Wl,-rpath," + moved +
            "/lib -o " + tmp.file("use2") + " && " + tmp.file("use2") + " " + tmp.file("b"));
    EXPECT_EQ(0, r.status) << r.out;
    EXPECT_NE(std::string::npos, r.out.find("opened t")) << r.out;

    // The tool finds its module, its messages and its exits with nothing set.
    std::string vrta = "env -i ASAN_OPTIONS=detect_leaks=0 " + moved + "/bin/vrta ";
    r = run(vrta + "rc 0x80000407");
    EXPECT_EQ(0, r.status) << r.out;
    EXPECT_NE(std::string::npos, r.out.find("Out of memory.")) << r.out;
    vrtatest::writeFile(tmp.file("n.csv"), "n\n1\n2\n3\n");
    r = run(vrta + "load " + tmp.file("dom") + " n " + tmp.file("n.csv") + " --compress LIBXDEMO");
    EXPECT_EQ(0, r.status) << r.out;
    r = run(vrta + "print " + tmp.file("dom") + " n --csv");
    EXPECT_EQ("n\n1\n2\n3\n", r.out);
}
