// The option table's image, its defaults, and the process's stored table.
#include <atomic>
#include <cfloat>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "hs/hs.h"
#include "option/op.h"

namespace vrta {

namespace {

constexpr uint32_t B = OPF_BINARY;
constexpr uint32_t I = OPF_INTEGER;
constexpr uint32_t D = OPF_DOUBLE;
constexpr uint32_t C = OPF_CHAR;
constexpr uint32_t DOC = OPF_DOC;
constexpr uint32_t OBS = OPF_OBSOLETE;

struct OptDef {
    const char* name;
    uint32_t flags;
    int32_t maxlen;  // character options only
};

// Sorted by a 16-byte memcmp of the names; optini3 checks it. Obsolete rows stay
// so that old settings fail softly instead of as unknown names.
constexpr OptDef optdefs[OPT_NITEMS] = {
    {"ACLPATH", C, 1024},
    {"ALLOWLINGCMP", B | OBS, 0},
    {"ALLOWMEMLOCK", B, 0},
    {"ALLOWMMAP", B, 0},
    {"ALTBINPATH", C, 256},
    {"APPMAXSEGBIN", I, 0},
    {"BINBUFSIZE", I | DOC, 0},
    {"BTREE_PAGESIZE", I, 0},
    {"BYINDEX", B | DOC, 0},
    {"BYRANGEPENALTY", I, 0},
    {"COMPRESS_LEVEL", I | OBS, 0},
    {"CONCURRENCY", I, 0},
    {"COREFILE", B | DOC, 0},
    {"DATASET_DEFPRIV", C, 256},
    {"DA_CACHEGLOBAL", B | OBS, 0},
    {"DA_IOSTATS", B | OBS, 0},
    {"DA_LOGLEV_T", I | OBS, 0},
    {"DA_TRACEIO", B, 0},
    {"DEBUG", B, 0},
    {"DEFCOMPRESS", C, 8},
    {"DEFENCRYPT", C, 8},
    {"DPFDIRECTIO", B, 0},
    {"FIBSIZE", I, 0},
    {"FMTDOMAIN", C | DOC, 32},
    {"FMTNAMENODE", C | DOC, 256},
    {"FMTNAMEPORT", I | DOC, 0},
    {"GRPBYROWCACHE", D | DOC, 0},
    {"HIMEMENABLE", I, 0},
    {"IDLE_TIMEOUT", I | DOC, 0},
    {"INDEX_MAXMEMORY", I | DOC, 0},
    {"INDEX_MAXVALUES", I | OBS, 0},
    {"INDEX_MMAP", B | OBS, 0},
    {"INDEX_READSIZE", I, 0},
    {"INDEX_SORTSIZE", D | DOC, 0},
    {"KEEPALLOW", B, 0},
    {"LDAP", B | DOC, 0},
    {"LDAPBINDDN", C | DOC, 1024},
    {"LDAPBINDMETH", C | DOC, 256},
    {"LDAPPORT", I | DOC, 0},
    {"LDAPSERVER", C | DOC, 256},
    {"LDAPUSRDOM", C | DOC, 256},
    {"LIBACLINHERIT", B | DOC, 0},
    {"LOCALE", C, 32},
    {"MAXGENNUM", I | DOC, 0},
    {"MAXIOBUF", I, 0},
    {"MAXOBSBUF", I, 0},
    {"MAXPORTNO", I | DOC, 0},
    {"MAXRNGTHREADS", I, 0},
    {"MAXSEGRATIO", I | DOC, 0},
    {"MAXSORTTHREADS", I | DOC, 0},
    {"MAXWHTHREADS", I | DOC, 0},
    {"MERGEBUFSIZE", D, 0},
    {"MINPARTSIZE", D | DOC, 0},
    {"MINPORTNO", I | DOC, 0},
    {"MMAPLIMIT", I, 0},
    {"MMAPLOWMEM", I, 0},
    {"MTMERGE", B, 0},
    {"MVREFRESHTIME", I | DOC, 0},
    {"NLSTRANSCODE", B | DOC, 0},
    {"PASSPATH", C, 1024},
    {"PERFFLAG", I | OBS, 0},
    {"PLMTRACE", B, 0},
    {"RANDOMPLACEDPF", B | DOC, 0},
    {"RANIOBUFMIN", I | DOC, 0},
    {"RECORDFLAGS", I, 0},
    {"REVNUMUPDATE", B | DOC, 0},
    {"SEGSIZE", I | OBS, 0},
    {"SEQIOBUFMIN", I | DOC, 0},
    {"SORTMODE", C, 16},
    {"SORTSIZE", D | DOC, 0},
    {"SORT_ALGORITHM", C | OBS, 0},
    {"SQLAUDLEN", I | DOC, 0},
    {"SQLLOGSIZE", I, 0},
    {"SQLOPTS", C | DOC, 1024},
    {"STARSIZE", D | DOC, 0},
    {"TAGSORT", B, 0},
    {"TMPDOMAIN", C | DOC, 32},
    {"TRACELVL", I, 0},
    {"TRANSFERFLAGS", I, 0},
    {"TRANSFERQUANTUM", I, 0},
    {"TRANSFERRATIO", I, 0},
    {"TRANSFERSIZE", I, 0},
    // Its name sorts here, after the T names: the binary search needs it.
    {"VRTA_NLSPATH", C, 256},
    {"WHAUDLEN", I | DOC, 0},
    {"WHEREAUDIT", B | DOC, 0},
    {"WHERECOSTING", B | DOC, 0},
    {"WORKPATH", C | DOC, 1024},
    {"XCI_MAXMEMORY", I, 0},
};

std::atomic<void*> gbltable{nullptr};
std::mutex gblbuild;

// Finds an item for an initialiser; an unknown or obsolete name is a fault in
// this file, reported and skipped.
OPTITEM* initfind(void* optptr, const char* spell, int line, int* negop) {
    OPTITEM* item = nullptr;
    int neg = 0;
    if (opt_find(optptr, spell, &item, &neg) != 0 || (item->flags & OPF_OBSOLETE)) {
        hsprint("Assertion failed: %s/%d\n", "option/src/optdefi", line);
        return nullptr;
    }
    if (negop) *negop = neg;
    return item;
}

}  // namespace

int optini1() {
    int size = static_cast<int>(sizeof(OPTS));
    for (const OptDef& d : optdefs)
        if (d.flags & OPF_CHAR) size += d.maxlen;
    return size;
}

int optini2(void* shmoptr) {
    if (!shmoptr) return OP_NOTABLE;
    std::memset(shmoptr, 0, static_cast<size_t>(optini1()));
    OPTS* opts = static_cast<OPTS*>(shmoptr);
    opts->opcount = OPT_NITEMS;
    int32_t offset = static_cast<int32_t>(sizeof(OPTS));
    for (int i = 0; i < OPT_NITEMS; i++) {
        OPTITEM& it = opts->optitem[i];
        std::strncpy(it.name, optdefs[i].name, OPT_NAMELEN);
        it.flags = optdefs[i].flags;
        if (it.flags & OPF_CHAR) {
            it.opinfo.cdesc.maxlen = optdefs[i].maxlen;
            it.opinfo.cdesc.offset = offset;
            offset += optdefs[i].maxlen;
        }
    }
    return 0;
}

int opbininit(void* optptr, const char* spell) {
    if (!optptr) return OP_NOTABLE;
    int neg = 0;
    OPTITEM* it = initfind(optptr, spell, __LINE__, &neg);
    if (!it) return OP_NOTFOUND;
    it->opinfo.idesc.ival = neg ? 0 : 1;
    it->flags = (it->flags & ~OPF_SETMASK) | OPF_SERVER;
    return 0;
}

// The limit is always stored; only a non-zero default counts as a value.
int opintinit(void* optptr, const char* spell, int32_t maxval, int32_t defval) {
    if (!optptr) return OP_NOTABLE;
    OPTITEM* it = initfind(optptr, spell, __LINE__, nullptr);
    if (!it) return OP_NOTFOUND;
    it->opinfo.idesc.imax = maxval;
    if (defval != 0) {
        it->opinfo.idesc.ival = defval;
        it->flags = (it->flags & ~OPF_SETMASK) | OPF_SERVER;
    }
    return 0;
}

int opdblinit(void* optptr, const char* spell, double maxval, double defval) {
    if (!optptr) return OP_NOTABLE;
    OPTITEM* it = initfind(optptr, spell, __LINE__, nullptr);
    if (!it) return OP_NOTFOUND;
    it->opinfo.ddesc.dmax = maxval;
    if (defval != 0.0) {
        it->opinfo.ddesc.dval = defval;
        it->flags = (it->flags & ~OPF_SETMASK) | OPF_SERVER;
    }
    return 0;
}

int opcharinit(void* optptr, const char* spell, const char* value, int32_t vallen) {
    if (!optptr) return OP_NOTABLE;
    OPTITEM* it = initfind(optptr, spell, __LINE__, nullptr);
    if (!it) return OP_NOTFOUND;
    CHARDESC& cd = it->opinfo.cdesc;
    if (vallen < 0 || vallen > cd.maxlen) return OP_TOOLONG;
    if (vallen > 0) {
        std::memcpy(static_cast<char*>(optptr) + cd.offset, value, static_cast<size_t>(vallen));
        it->flags = (it->flags & ~OPF_SETMASK) | OPF_SERVER;
    }
    cd.curlen = vallen;
    return 0;
}

int optini3(void* shmoptr) {
    if (!shmoptr) return OP_NOTABLE;
    void* p = shmoptr;
    constexpr int32_t MAX = INT_MAX;

    opbininit(p, "ALLOWMEMLOCK");
    opbininit(p, "ALLOWMMAP");
    opbininit(p, "NOBYINDEX");
    opbininit(p, "NOCOREFILE");
    opbininit(p, "NODPFDIRECTIO");
    opbininit(p, "NOLDAP");
    opbininit(p, "NOLIBACLINHERIT");
    opbininit(p, "NONLSTRANSCODE");
    opbininit(p, "NOPLMTRACE");
    opbininit(p, "RANDOMPLACEDPF");
    opbininit(p, "NOWHEREAUDIT");
    opbininit(p, "WHERECOSTING");
    opbininit(p, "REVNUMUPDATE");

    opintinit(p, "APPMAXSEGBIN", MAX, 0);
    opintinit(p, "BINBUFSIZE", MAX, 32768);
    opintinit(p, "BTREE_PAGESIZE", 65536, 0);
    opintinit(p, "BYRANGEPENALTY", 100, 25);
    opintinit(p, "CONCURRENCY", 4096, 0);
    opintinit(p, "FIBSIZE", 65536, 0);
    opintinit(p, "FMTNAMEPORT", MAX, 0);
    opdblinit(p, "GRPBYROWCACHE", DBL_MAX, 0.0);
    opintinit(p, "HIMEMENABLE", MAX, 0);
    opintinit(p, "IDLE_TIMEOUT", MAX, 0);
    opintinit(p, "INDEX_MAXMEMORY", MAX, 10485760);
    opintinit(p, "INDEX_READSIZE", MAX, 0);
    opdblinit(p, "INDEX_SORTSIZE", DBL_MAX, 33554432.0);
    // A character option initialised as an integer: the limit lands in curlen
    // and no value flag is set, so it reads as unset until it is set. Kept so
    // that tables built elsewhere and here agree byte for byte.
    opintinit(p, "LDAPBINDMETH", 65535, 0);
    opintinit(p, "LDAPPORT", 65535, 0);
    opintinit(p, "MAXGENNUM", 65536, 512);
    opintinit(p, "MAXIOBUF", MAX, 0);
    opintinit(p, "MAXOBSBUF", MAX, 1048576);
    opintinit(p, "MAXPORTNO", MAX, 0);
    opintinit(p, "MAXRNGTHREADS", MAX, 0);
    opintinit(p, "MAXSEGRATIO", 100, 75);
    opintinit(p, "MAXSORTTHREADS", 65536, 0);
    opintinit(p, "MAXWHTHREADS", 65536, 0);
    opdblinit(p, "MERGEBUFSIZE", DBL_MAX, 0.0);
    opdblinit(p, "MINPARTSIZE", DBL_MAX, 16777216.0);
    opintinit(p, "MINPORTNO", MAX, 0);
    opintinit(p, "MMAPLIMIT", MAX, 0);
    opintinit(p, "MMAPLOWMEM", MAX, 0);
    opintinit(p, "MVREFRESHTIME", 86400, 30);
    opintinit(p, "RANIOBUFMIN", 16777216, 4096);
    opintinit(p, "RECORDFLAGS", MAX, 0);
    opintinit(p, "SEQIOBUFMIN", 16777216, 65536);
    opdblinit(p, "SORTSIZE", DBL_MAX, 0.0);
    opintinit(p, "SQLAUDLEN", 4096, 1024);
    opintinit(p, "SQLLOGSIZE", MAX, 0);
    opdblinit(p, "STARSIZE", DBL_MAX, 0.0);
    opintinit(p, "TRACELVL", MAX, 0);
    opintinit(p, "TRANSFERFLAGS", MAX, 0);
    opintinit(p, "TRANSFERQUANTUM", MAX, 0);
    opintinit(p, "TRANSFERRATIO", MAX, 0);
    opintinit(p, "TRANSFERRATIO", MAX, 0);
    opintinit(p, "TRANSFERSIZE", MAX, 0);
    opintinit(p, "WHAUDLEN", 4096, 512);
    opintinit(p, "XCI_MAXMEMORY", MAX, 0);

    // A server setting of 0, not "unset": the default path cannot store a 0.
    int32_t zero = 0;
    opsetop(p, "IDLE_TIMEOUT", &zero, sizeof zero);

    // Every option must have a row in the initialiser above, and the binary
    // search needs the order.
    OPTS* opts = static_cast<OPTS*>(shmoptr);
    if (opts->opcount != OPT_NITEMS) return OP_BADTABLE;
    for (int i = 0; i < opts->opcount; i++) {
        const OPTITEM& it = opts->optitem[i];
        if (i > 0 && std::memcmp(it.name, opts->optitem[i - 1].name, OPT_NAMELEN) <= 0) {
            hsprint("ERROR: Option %.16s Out of Order in option table\n", it.name);
            return OP_BADTABLE;
        }
        if (it.flags & OPF_OBSOLETE) continue;
        bool bad = false;
        switch (it.flags & OPF_TYPEMASK) {
            case OPF_CHAR: bad = it.opinfo.cdesc.maxlen == 0; break;
            case OPF_INTEGER: bad = it.opinfo.idesc.imax == 0; break;
            case OPF_DOUBLE: bad = it.opinfo.ddesc.dmax == 0.0; break;
            default: break;
        }
        if (bad) {
            hsprint("ERROR: Option %.16s improperly initialized\n", it.name);
            return OP_BADTABLE;
        }
    }
    return 0;
}

void* opgtgbl() { return gbltable.load(std::memory_order_acquire); }

void opstgbl(void* tableptr) { gbltable.store(tableptr, std::memory_order_release); }

void* opinitgbl() {
    if (void* t = opgtgbl()) return t;
    // Several layers call this at their start, possibly from different threads.
    std::lock_guard<std::mutex> g(gblbuild);
    if (void* t = opgtgbl()) return t;
    void* t = std::malloc(static_cast<size_t>(optini1()));
    if (!t) return nullptr;
    if (optini2(t) != 0 || optini3(t) != 0) {
        std::free(t);
        return nullptr;
    }
    opstgbl(t);
    return t;
}

void* opclonegbl() {
    void* cur = opgtgbl();
    if (!cur) return nullptr;
    size_t size = static_cast<size_t>(optini1());
    void* copy = std::malloc(size);
    if (!copy) return nullptr;
    std::memcpy(copy, cur, size);
    opstgbl(copy);
    return copy;
}

}  // namespace vrta
