// Names of a table's files.
#include "sda/danames.h"

#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "sda/darc.h"

namespace vrta {

namespace {

char* putlower(char* out, const char* s, int n) {
    for (int i = 0; i < n; i++) *out++ = static_cast<char>(std::tolower(static_cast<unsigned char>(s[i])));
    return out;
}

bool digits(const char* s, int n, int* value) {
    if (n <= 0 || n > 9) return false;
    int v = 0;
    for (int i = 0; i < n; i++) {
        if (s[i] < '0' || s[i] > '9') return false;
        v = v * 10 + (s[i] - '0');
    }
    *value = v;
    return true;
}

}  // namespace

int dadsnam(int kind, const char* dsname, int dsnlen, const char* suffix, int sfxlen, char* fileName) {
    static const char* const ext[] = {"mdf", "dpf", "idx", "aux", "", "hbx", "cdf"};
    if (kind < 0 || kind > 6) return -1;
    if (dsnlen < 0) dsnlen = dsname ? static_cast<int>(std::strlen(dsname)) : 0;
    if (!suffix) sfxlen = 0;
    else if (sfxlen < 0) sfxlen = static_cast<int>(std::strlen(suffix));
    char* p = putlower(fileName, dsname, dsnlen);
    *p++ = '.';
    size_t el = std::strlen(ext[kind]);
    std::memcpy(p, ext[kind], el);
    p += el;
    if (kind == 2 || kind == 3 || kind == 4 || kind == 5) p = putlower(p, suffix, sfxlen);
    *p = '\0';
    return static_cast<int>(p - fileName);
}

int damkpfn(char* parfile, int flags, const char* basename, int revno, const char* fuid, int pno, int size) {
    const char* sfx = (flags & DA_PFNOLDFMT) ? "vrta" : "vrta9";
    // The first file of a file that holds its own FIB must be found without
    // knowing the domain or the revision.
    if (pno == 0 && (flags & DA_PFNOWNFIB)) {
        fuid = "0";
        revno = 0;
    }
    if (!basename || !fuid || size <= 0) return -1;
    int n = std::snprintf(parfile, size, "%s.%s.%d.%d.%s", basename, fuid, pno, revno, sfx);
    return (n < 0 || n >= size) ? -1 : n;
}

int dafdpfn(const char* fileName, DA_PFNPARTS* parts, bool chkext) {
    int len = static_cast<int>(std::strlen(fileName));
    int start = (len > 0 && fileName[0] == '.') ? 1 : 0;
    // Two points from the left.
    int l1 = -1, l2 = -1;
    for (int i = start; i < len; i++)
        if (fileName[i] == '.') {
            if (l1 < 0) l1 = i;
            else { l2 = i; break; }
        }
    // Three points from the right.
    int r[3] = {-1, -1, -1};  // last, second last, third last
    int found = 0;
    for (int i = len - 1; i >= start && found < 3; i--)
        if (fileName[i] == '.') r[found++] = i;
    if (l2 < 0 || found < 3 || r[2] <= l2) return -1;
    DA_PFNPARTS p{};
    p.name = fileName;
    p.name_l = l1;
    p.type = fileName + l1 + 1;
    p.type_l = l2 - l1 - 1;
    p.fuid = fileName + l2 + 1;
    p.fuid_l = r[2] - l2 - 1;
    p.sfx = fileName + r[0] + 1;
    p.sfx_l = len - r[0] - 1;
    // fuid may be empty: the metapath id of the root directory.
    if (p.name_l <= start || p.type_l <= 0 || p.sfx_l <= 0) return -1;
    if (!digits(fileName + r[2] + 1, r[1] - r[2] - 1, &p.pno)) return -1;
    if (!digits(fileName + r[1] + 1, r[0] - r[1] - 1, &p.revno)) return -1;
    if (chkext && (p.sfx_l != 5 || std::memcmp(p.sfx, "vrta9", 5) != 0)) return -1;
    if (parts) *parts = p;
    return 0;
}

int darevpfn(const char* fileName, int revno, char* out, int size) {
    const char* slash = std::strrchr(fileName, '/');
    const char* base = slash ? slash + 1 : fileName;
    DA_PFNPARTS p;
    if (dafdpfn(base, &p, false) != 0) return -1;
    // The revision is the field just before the suffix.
    const char* revend = p.sfx - 1;
    const char* revat = revend;
    while (revat > base && revat[-1] != '.') --revat;
    int n = std::snprintf(out, size, "%.*s%d%s", static_cast<int>(revat - fileName), fileName, revno, revend);
    return n < 0 || n >= size ? -1 : n;
}

int dagmpid(const char* mdpath, int mdlen, char* fuid, int size) {
    if (mdlen < 0) mdlen = static_cast<int>(std::strlen(mdpath));
    // Every component is led by one "_" in place of its run of "/", so
    // "/data/meta/" and "data//meta" both give "_data_meta"; the file layer
    // names partitions the same way.
    std::string out;
    int i = 0;
    while (i < mdlen) {
        while (i < mdlen && mdpath[i] == '/') i++;
        if (i == mdlen) break;
        out += '_';
        while (i < mdlen && mdpath[i] != '/') out += mdpath[i++];
    }
    if (static_cast<int>(out.size()) + 1 > size) return -1;
    std::memcpy(fuid, out.c_str(), out.size() + 1);
    return static_cast<int>(out.size());
}

uint32_t dagfuid(uint32_t seqno) {
    uint64_t tid = static_cast<uint64_t>(pthread_self());
    return static_cast<uint32_t>(getpid()) + static_cast<uint32_t>(tid) + static_cast<uint32_t>(time(nullptr)) +
           seqno;
}

void damkmdfn(int kind, uint32_t fuid, pid_t pid, char out[18]) {
    std::snprintf(out, 18, "%8.8x_%8.8x", fuid, static_cast<unsigned>(pid));
    out[0] = '$';
    if (kind == 6) out[7] = '#';
}

void damkutln(uint32_t seq, char out[9]) { std::snprintf(out, 9, "$%7.7x", seq & 0x0fffffffu); }

void damkwrkn(pid_t pid, uint32_t t, char out[23]) {
    std::snprintf(out, 23, "vrta_%8.8X.%8.8X", static_cast<unsigned>(pid), t);
}

[[nodiscard]] rctype dafreewrk(const char* dir, pid_t pid, time_t now, char* out, int size) {
    if (size < 23) return DA_BADARG;
    uint32_t t = static_cast<uint32_t>(now);
    std::string base = dir ? dir : ".";
    if (!base.empty() && base.back() != '/') base += '/';
    for (int tries = 0; tries < 100000; tries++, t++) {
        damkwrkn(pid, t, out);
        struct stat st;
        if (::stat((base + out).c_str(), &st) != 0 && errno == ENOENT) return 0;
    }
    return DA_EXISTS;
}

}  // namespace vrta
