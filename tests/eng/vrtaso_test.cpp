// The built module as a host meets it: loaded with dlopen, one entry exported.
#include <gtest/gtest.h>

#include <dlfcn.h>

#include <cstdio>
#include <cstring>
#include <set>
#include <string>

#include "vrta/vrtaeng.h"

namespace {

const char* const kModule = VRTA_BINARY_DIR "/libvrta.so";

// Defined dynamic symbols of the module, by nm.
std::set<std::string> exported() {
    std::set<std::string> out;
    std::string cmd = std::string("nm -D --defined-only ") + kModule + " 2>/dev/null";
    FILE* p = popen(cmd.c_str(), "r");
    if (!p) return out;
    char line[4096];
    while (std::fgets(line, sizeof line, p)) {
        char addr[64], type[8], name[4000];
        if (std::sscanf(line, "%63s %7s %3999s", addr, type, name) == 3) out.insert(name);
    }
    pclose(p);
    return out;
}

bool fromTheToolchain(const std::string& s) {
    // Linker markers, and vague-linkage copies of the C++ library's own
    // templates, which keep their default visibility.
    static const std::set<std::string> markers = {"_init", "_fini", "_edata", "_end", "__bss_start"};
    if (markers.count(s)) return true;
    for (const char* pre : {"_ZZNSt", "_ZZSt", "_ZGVZNSt", "_ZGVNSt", "_ZNSt", "_ZSt", "_ZNKSt"})
        if (s.rfind(pre, 0) == 0) return true;
    return
           s.rfind("_ZTVSt", 0) == 0 || s.rfind("_ZTISt", 0) == 0 || s.rfind("_ZTSSt", 0) == 0 ||
           s.rfind("_ZN9__gnu_cxx", 0) == 0 || s.rfind("__asan", 0) == 0 || s.rfind("__ubsan", 0) == 0;
}

}  // namespace

TEST(Module, ExportsOnlyTheEntryAndTheDirectApi) {
    auto syms = exported();
    ASSERT_FALSE(syms.empty()) << "cannot list the symbols of " << kModule;
    EXPECT_TRUE(syms.count("vrtaeng"));
    for (const auto& s : syms) {
        if (s == "vrtaeng" || fromTheToolchain(s)) continue;
        // The direct access API is the other host-facing surface: its calls
        // are plain C names, so an internal name would show up mangled.
        if (s.rfind("sp", 0) == 0 || s.rfind("vrta", 0) == 0 || s == "MakeError") continue;
        // So are the token tracks a host hands the option parsers.
        if (s.rfind("yt", 0) == 0) continue;
        ADD_FAILURE() << "exported: " << s;
    }
}

TEST(Module, LoadsAndStartsAnEngineLikeAHost) {
    void* h = dlopen(kModule, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(h, nullptr) << dlerror();
    auto entry = reinterpret_cast<int (*)(int, void**)>(dlsym(h, "vrtaeng"));
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(dlsym(h, "hpdterm"), nullptr);
    EXPECT_EQ(dlsym(h, "hpoopen"), nullptr);

    int rc = -1;
    void* argv[5] = {nullptr, nullptr, nullptr, &rc, nullptr};
    ASSERT_EQ(entry(5, argv), 0);
    EXPECT_EQ(rc, 0);
    auto* tbl = static_cast<HPD_ENGTBL*>(argv[VRTAENG_ENGTBL]);
    auto* attr = static_cast<XHEATTR*>(argv[VRTAENG_ATTR]);
    ASSERT_NE(tbl, nullptr);
    ASSERT_NE(attr, nullptr);
    EXPECT_EQ(attr->dict_acc, 503);
    EXPECT_EQ(std::memcmp(argv[VRTAENG_ID], "KORVRTA ", 8), 0);
    EXPECT_EQ(tbl->xhen.yhettrm, nullptr);
    // A supported-nothing slot, then the end of the id, through the vector.
    EXPECT_EQ(reinterpret_cast<int (*)()>(tbl->xhen.yoewho)(), 0);
    EXPECT_EQ(reinterpret_cast<int (*)(void*)>(tbl->xhen.yheterm)(argv[VRTAENG_ID]), 0);
    // The module keeps threads and keys of its own, so it stays loaded.
}
