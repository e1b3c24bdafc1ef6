#include "apiload.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <charconv>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <cctype>

#include "sda/daods.h"
#include "vrta.h"

namespace vrtacli {

namespace {

bool readable(const std::string& p) { return access(p.c_str(), R_OK) == 0; }

// The directory this program was started from, empty when unknown.
std::string programDir() {
    char self[PATH_MAX];
    ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
    if (n <= 0) return "";
    self[n] = 0;
    std::string dir(self);
    dir.resize(dir.rfind('/'));
    return dir;
}

#ifndef VRTA_REL_LIBDIR
#define VRTA_REL_LIBDIR "../lib"
#define VRTA_REL_MSGDIR "../share/vrta/msg"
#define VRTA_REL_EXITDIR "../lib/vrta/exits"
#endif

// VRTA_LIB wins; then where an installed tree has it; then beside the
// program (a build); then the build directory.
std::string modulePath() {
    if (const char* env = std::getenv("VRTA_LIB"); env && *env) return env;
    std::string dir = programDir();
    if (!dir.empty())
        for (std::string rel : {std::string("/") + VRTA_REL_LIBDIR + "/libvrta.so", std::string("/../libvrta.so")})
            if (readable(dir + rel)) return dir + rel;
    return std::string(VRTA_LIBDIR) + "/libvrta.so";
}

DirectApi* loadApi() {
    ModuleEntries m;
    if (!m.ok) return nullptr;
    auto* api = new DirectApi;
#define VRTA_GET(n) m.get(api->n, #n);
    VRTA_GET(splasgn) VRTA_GET(spldeasgn) VRTA_GET(vrtaopen) VRTA_GET(vrtaclose) VRTA_GET(vrtainfo)
    VRTA_GET(vrtagetnpp) VRTA_GET(vrtacreate) VRTA_GET(vrtapartinfo) VRTA_GET(spdelete) VRTA_GET(spopendir)
    VRTA_GET(spreaddir) VRTA_GET(spclosedir) VRTA_GET(spnewrd) VRTA_GET(spnewwr) VRTA_GET(spfreerd)
    VRTA_GET(spfreeio) VRTA_GET(spsetloc) VRTA_GET(spreadv) VRTA_GET(spwritev) VRTA_GET(vrtaerrtext)
    VRTA_GET(vrtasort)
    VRTA_GET(vrtaidxcreate)
    VRTA_GET(vrtaidxlist)
    VRTA_GET(vrtaidxdrop)
    VRTA_GET(vrtaidxrows)
    VRTA_GET(spgetr)
#undef VRTA_GET
    if (!m.ok) {
        delete api;
        return nullptr;
    }
    return api;
}

}  // namespace

void setInstallPaths() {
    std::string dir = programDir();
    if (!std::getenv("MSGPATH")) {
        std::vector<std::string> tries;
        if (!dir.empty()) tries.push_back(dir + "/" + VRTA_REL_MSGDIR);
        tries.push_back(VRTA_SRC_MSGDIR);
        for (const auto& t : tries)
            if (readable(t + "/vrtamsg.m")) {
                setenv("MSGPATH", t.c_str(), 1);
                break;
            }
    }
    if (!std::getenv("VRTA_LIBRARY_PATH") && !dir.empty()) {
        std::string exits = dir + "/" + VRTA_REL_EXITDIR;
        struct stat st;
        if (stat(exits.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) setenv("VRTA_LIBRARY_PATH", exits.c_str(), 1);
    }
}

ModuleEntries::ModuleEntries() {
    handle = loadModule(&path);
    ok = handle != nullptr;
}

void* ModuleEntries::lookup(const char* name) {
    void* p = handle ? dlsym(handle, name) : nullptr;
    if (!p) {
        if (handle) fail("the module " + path + " has no entry " + name);
        ok = false;
    }
    return p;
}

void* loadModule(std::string* path) {
    *path = modulePath();
    void* h = dlopen(path->c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!h) fail(std::string("cannot load the module: ") + dlerror());
    return h;
}

std::string DirectApi::text(int rc) const {
    char buf[512];
    vrtaerrtext(rc, buf, sizeof buf);
    char code[32];
    std::snprintf(code, sizeof code, " (0x%08x)", static_cast<unsigned>(rc));
    std::string t = buf;
    if (t.empty() || t.find("MESSAGE NOT FOUND") != std::string::npos) t = "error";
    // A wrapped code says nothing its text does not.
    return rc == VRTA_RC_WRAPPED && t != "error" ? t : t + code;
}

const DirectApi* directApi() {
    static DirectApi* api = loadApi();
    return api;
}

FILE* commandOutput() {
    static FILE* out = [] {
        std::fflush(stdout);
        int fd = dup(1);
        if (fd < 0) return stdout;
        dup2(2, 1);
        FILE* f = fdopen(fd, "w");
        return f ? f : stdout;
    }();
    return out;
}

Domain::~Domain() {
    if (lib) api->spldeasgn(lib);
}

int Domain::assign(const std::string& dir) {
    commandOutput();  // the module's diagnostics go to standard error from here on
    api = directApi();
    if (!api) return 1;
    struct stat st;
    if (stat(dir.c_str(), &st) != 0) return fail("domain directory '" + dir + "' does not exist");
    if (!S_ISDIR(st.st_mode)) return fail("'" + dir + "' is not a directory");
    this->dir = dir;
    int rc = api->splasgn(dir.c_str(), &lib);
    if (rc < 0) {
        lib = nullptr;
        return fail("cannot assign the domain '" + dir + "': " + api->text(rc));
    }
    return 0;
}

OpenTable::~OpenTable() {
    if (fid) api->vrtaclose(fid);
}

std::vector<std::string> tableNames(const Domain& d) {
    std::vector<std::string> names;
    void* dh = nullptr;
    if (d.api->spopendir(d.lib, &dh) != 0) return names;
    char nm[33];
    int nl = 0;
    while (d.api->spreaddir(dh, nm, &nl) == 0) names.emplace_back(nm, nl);
    d.api->spclosedir(dh);
    return names;
}

bool hasTable(const Domain& d, const std::string& name) {
    std::string u = name;
    for (char& c : u) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    for (const std::string& n : tableNames(d))
        if (n == u) return true;
    return false;
}

int OpenTable::open(const Domain& d, const std::string& name, const std::string& key) {
    api = d.api;
    if (!validName(name)) return fail("'" + name + "' is not a table name (1 to 32 letters, digits or _)");
    if (!hasTable(d, name)) return fail("no table '" + name + "' in the domain");
    int rc = api->vrtaopen(d.lib, name.c_str(), static_cast<int>(name.size()), nullptr, 0,
                           key.empty() ? nullptr : key.c_str(), 0, nullptr, -1, 0, &fid);
    if (rc < 0) {
        fid = nullptr;
        return fail("cannot open the table '" + name + "': " + api->text(rc));
    }
    warnUnfinished(d.dir, name);
    return 0;
}

std::vector<ColInfo> columns(const OpenTable& t) {
    std::vector<ColInfo> cols;
    VRTAINFO vi;
    if (t.api->vrtainfo(t.fid, VRTAINFO_ALL, &vi) != 0) return cols;
    for (int i = 1; i <= vi.numvar; ++i) {
        VRTA_NAMESTR* np = nullptr;
        if (t.api->vrtagetnpp(t.fid, i, &np) != 0) break;
        ColInfo c;
        if (np->name) c.name.assign(np->name, np->n7.name_l);
        if (np->label && np->n7.label_l > 0) c.label.assign(np->label, np->n7.label_l);
        c.type = np->n7.type;
        c.pos = np->n7.npos;
        c.len = np->n7.nlng;
        cols.push_back(c);
    }
    return cols;
}

std::string cellText(const ColInfo& c, const unsigned char* row) {
    const unsigned char* p = row + c.pos;
    if (c.type != 1) {
        int n = c.len;
        while (n > 0 && (p[n - 1] == ' ' || p[n - 1] == 0)) --n;
        return std::string(reinterpret_cast<const char*>(p), n);
    }
    // A short number holds the high bytes of the double.
    unsigned char b[8] = {0};
    int n = c.len > 8 ? 8 : c.len;
    std::memcpy(b + 8 - n, p, n);
    if (isMissing(b)) return "";
    double d;
    std::memcpy(&d, b, 8);
    return formatNumber(d);
}

namespace {

// The header flags and the description flags of a table, read from its
// first metadata file as they stand, without the engine: 0 for both when
// the file cannot be read.
struct RawHead {
    int32_t dsflags = 0, xoeflags = 0;
};

RawHead rawHead(const std::string& dir, const std::string& name) {
    std::string lower = name;
    for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    std::string path = dir + "/" + lower + ".mdf.0.0.0.vrta9";
    RawHead r;
    int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) return r;
    struct stat st;
    vrta::DA_FIB fib;
    vrta::DA_DSFHEAD h;
    off_t base = 0;
    if (fstat(fd, &st) == 0 && S_ISREG(st.st_mode) &&
        pread(fd, &fib, vrta::DA_FIBDIRECTLEN, 0) == vrta::DA_FIBDIRECTLEN && fib.pdesize > 0 &&
        pread(fd, &h, sizeof h, base = static_cast<off_t>(fib.pdesize) + vrta::DA_FIBLEN) ==
            static_cast<ssize_t>(sizeof h)) {
        r.dsflags = h.flags;
        int64_t x = h.links[vrta::DA_LNKXOE];
        if (x > 0 && pread(fd, &r.xoeflags, 4, x + offsetof(vrta::DA_XOEODS, flags)) != 4) r.xoeflags = 0;
    }
    ::close(fd);
    return r;
}

}  // namespace

bool unfinished(const std::string& dir, const std::string& name) { return rawHead(dir, name).dsflags & 1; }

bool encrypted(const std::string& dir, const std::string& name) {
    return rawHead(dir, name).xoeflags & vrta::DA_XOECRYPT;
}

bool warnUnfinished(const std::string& dir, const std::string& name) {
    if (!unfinished(dir, name)) return false;
    std::fprintf(stderr,
                 "vrta: warning: the table '%s' is incomplete: its creator never finished it (a load that was "
                 "killed, or one still running); load it again to replace it\n",
                 name.c_str());
    return true;
}

bool validName(const std::string& name) {
    if (name.empty() || name.size() > 32) return false;
    if (std::isdigit(static_cast<unsigned char>(name[0]))) return false;
    for (char c : name)
        if (!std::isalnum(static_cast<unsigned char>(c)) && c != '_') return false;
    return true;
}

bool isMissing(const unsigned char* p) {
    uint64_t u;
    std::memcpy(&u, p, 8);
    return (u >> 48) == 0xffff;
}

void putMissing(unsigned char* p) {
    // The ordinary missing value ".": top 16 bits all ones, and 0xFE in the
    // sixth byte (bits 40 to 47), which gives it rank 2, between "._" and ".A".
    uint64_t u = 0xfffffe0000000000ULL;
    std::memcpy(p, &u, 8);
}

std::string formatNumber(double v) {
    char buf[64];
    std::to_chars_result r;
    if (std::fabs(v) < 1e15 && v == std::trunc(v))
        r = std::to_chars(buf, buf + sizeof buf, v, std::chars_format::fixed);
    else
        r = std::to_chars(buf, buf + sizeof buf, v);
    std::string s(buf, r.ptr);
    if (s == "-0") s = "0";
    return s;
}

}  // namespace vrtacli
