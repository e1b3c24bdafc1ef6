// The exit manager: the built-in compression and encryption exits, and the
// loading of a site's own exits from shared objects. One DA_XCB per exit per
// process; a table holds a DA_XCEXT with the exit's per-table handle.
#include <dlfcn.h>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <string>

#include "sda/daxc.h"
#include "sda/da.h"
#include "sda/darc.h"
#include "hs/hs.h"
#include "hs/hscmp.h"
#include "option/op.h"
#include "ssup/thr.h"

namespace vrta {

namespace {

// Guards the exit list and every xcb's refCount; taken inside libLock.
mutex_t xcbLock = PTHREAD_MUTEX_INITIALIZER;

constexpr int CRYPT_KEYLEN = 12;

// Run length 1 and 2 --------------------------------------------------------

int darllin(int* xcflags, void** xchdl) {
    *xcflags = DA_XCCOMP;
    *xchdl = nullptr;
    return 0;
}
void darlltm(void*) {}
int darlloh(void*, const char*, const char*, int, double, int, const char*, int*, char*, int rawmaxbuf,
            int* iomaxbuf, void** xcthdl) {
    *iomaxbuf = rawmaxbuf;
    *xcthdl = nullptr;
    return 0;
}
int darllch(void*, int*, char*) { return 0; }
int darllcv(void*, int, const char* rawbuf, int rawlen, char* iobuf, int* iolen) {
    const long tol = rawlen < *iolen ? rawlen : *iolen;
    const long r = hsrcmp1(0, iobuf, rawbuf, tol, rawlen);
    if (r < 0) return 1;  // does not shrink: keep raw
    *iolen = static_cast<int>(r);
    return 0;
}
int darlluc(void*, int, const char* iobuf, int iolen, char* rawbuf, int* rawlen) {
    const long r = hsrcmp1(1, rawbuf, iobuf, *rawlen, iolen);
    if (r < 0) return -1;
    *rawlen = static_cast<int>(r);
    return 0;
}

int darl2in(int* xcflags, void** xchdl) { return darllin(xcflags, xchdl); }
void darl2tm(void*) {}
int darl2oh(void* h, const char* lp, const char* t, int m, double c, int kl, const char* kb, int* bl, char* bb,
            int rawmaxbuf, int* iomaxbuf, void** xcthdl) {
    return darlloh(h, lp, t, m, c, kl, kb, bl, bb, rawmaxbuf, iomaxbuf, xcthdl);
}
int darl2ch(void*, int*, char*) { return 0; }
int darl2cv(void*, int, const char* rawbuf, int rawlen, char* iobuf, int* iolen) {
    const long tol = rawlen < *iolen ? rawlen : *iolen;
    const long r = hsrcmp2(0, iobuf, rawbuf, tol, rawlen);
    if (r < 1) return 1;
    *iolen = static_cast<int>(r);
    return 0;
}
int darl2uc(void*, int, const char* iobuf, int iolen, char* rawbuf, int* rawlen) {
    const long r = hsrcmp2(1, rawbuf, iobuf, *rawlen, iolen);
    if (r < 0) return -1;
    *rawlen = static_cast<int>(r);
    return 0;
}

// Block cipher ----------------------------------------------------------------

struct CRYH {
    double datetime;
    int flags;  // generator choice for hsbenc
    char key[CRYPT_KEYLEN];
};

int dacryin(int* xcflags, void** xchdl) {
    *xcflags = DA_XCFIXED | DA_XCBAG | DA_XCCRYPT;
    *xchdl = nullptr;
    return 0;
}
int dacry6in(int* xcflags, void** xchdl) {
    *xcflags = DA_XCFIXED | DA_XCBAG | DA_XCCRYPT;
    *xchdl = reinterpret_cast<void*>(static_cast<intptr_t>(HS_BENCV6));
    return 0;
}
void dacrytm(void*) {}

[[nodiscard]] rctype cryrun(const CRYH* h, const char* key, int pageno, int mode, const void* from, void* to, long len) {
    HS_BENC b{};
    b.datetime = h->datetime;
    b.pageno = pageno;
    b.textlen = len;
    b.from = static_cast<const unsigned char*>(from);
    b.to = static_cast<unsigned char*>(to);
    b.mode = mode;
    b.flags = h->flags;
    std::memcpy(b.keybuf, key, CRYPT_KEYLEN);
    return hsbenc(&b);
}

int dacryoh(void* xchdl, const char*, const char*, int mode, double cretime, int keylen, const char* keybuf,
            int* baglen, char* bagbuf, int rawmaxbuf, int* iomaxbuf, void** xcthdl) {
    char key[CRYPT_KEYLEN];
    std::memset(key, ' ', sizeof key);
    if (keylen < 0 || !keybuf) keylen = 0;
    for (int i = 0; i < keylen; ++i) {
        // A longer key would be silently cut; refuse unless the rest is blank.
        if (i >= CRYPT_KEYLEN) {
            if (keybuf[i] != ' ') return -3;
        } else {
            key[i] = keybuf[i];
        }
    }
    bool blank = true;
    for (char c : key) blank = blank && c == ' ';
    if (blank) return -2;

    CRYH* h = static_cast<CRYH*>(std::calloc(1, sizeof(CRYH)));
    if (!h) return -1;
    h->datetime = cretime;
    h->flags = static_cast<int>(reinterpret_cast<intptr_t>(xchdl));
    std::memcpy(h->key, key, sizeof key);
    if (mode & DA_XCMCREATE) {
        // The bag is the key under itself: it lets a later open tell a wrong key.
        if (cryrun(h, key, 0, HS_ENC, key, bagbuf, CRYPT_KEYLEN) != 0) {
            std::free(h);
            return -3;
        }
        *baglen = CRYPT_KEYLEN;
    } else {
        if (*baglen != CRYPT_KEYLEN) {
            std::free(h);
            return -3;
        }
        char plain[CRYPT_KEYLEN];
        if (cryrun(h, key, 0, HS_DEC, bagbuf, plain, CRYPT_KEYLEN) != 0) {
            std::free(h);
            return -3;
        }
        if (mode & DA_XCMSTOREDKEY) {
            std::memcpy(h->key, plain, sizeof plain);
        } else if (std::memcmp(plain, key, sizeof key) != 0) {
            std::free(h);
            return -2;
        }
    }
    *iomaxbuf = rawmaxbuf;
    *xcthdl = h;
    return 0;
}
int dacrych(void* xcthdl, int*, char*) {
    std::free(xcthdl);
    return 0;
}
// Page numbers of blocks start at 1; page 0 is the key check. Block
// 0x7fffffff wraps to a negative page, which is still its own.
int blockpage(int blockno) { return static_cast<int>(static_cast<uint32_t>(blockno) + 1u); }

int dacrycv(void* xcthdl, int blockno, const char* rawbuf, int rawlen, char* iobuf, int* iolen) {
    const CRYH* h = static_cast<const CRYH*>(xcthdl);
    if (!h || rawlen < 0 || *iolen < rawlen) return -1;
    if (cryrun(h, h->key, blockpage(blockno), HS_ENC, rawbuf, iobuf, rawlen) != 0) return -1;
    *iolen = rawlen;
    return 0;
}
int dacryuc(void* xcthdl, int blockno, const char* iobuf, int iolen, char* rawbuf, int* rawlen) {
    const CRYH* h = static_cast<const CRYH*>(xcthdl);
    if (!h || iolen < 0 || *rawlen < iolen) return -1;
    if (cryrun(h, h->key, blockpage(blockno), HS_DEC, iobuf, rawbuf, iolen) != 0) return -1;
    *rawlen = iolen;
    return 0;
}

// LZW ---------------------------------------------------------------------------

struct LZWH {
    mutex_t lock;  // the tables are shared by every thread of the table
    HS_CBLK cb;
};

int dalzwin(int* xcflags, void** xchdl) {
    *xcflags = DA_XCCOMP;
    *xchdl = nullptr;
    return 0;
}
void dalzwtm(void*) {}
int dalzwoh(void*, const char*, const char*, int, double, int, const char*, int*, char*, int rawmaxbuf,
            int* iomaxbuf, void** xcthdl) {
    LZWH* h = static_cast<LZWH*>(std::calloc(1, sizeof(LZWH)));
    if (!h) return -1;
    h->cb.mode = XZC_INIT;
    if (hsclzw(&h->cb) != 0) {
        std::free(h);
        return -1;
    }
    mutex_init(&h->lock);
    *iomaxbuf = rawmaxbuf;
    *xcthdl = h;
    return 0;
}
int dalzwch(void* xcthdl, int*, char*) {
    LZWH* h = static_cast<LZWH*>(xcthdl);
    if (!h) return 0;
    h->cb.mode = XZC_TERM;
    rcignore(hsclzw(&h->cb));  // ending only frees the coder's tables
    mutex_destroy(&h->lock);
    std::free(h);
    return 0;
}
int dalzwcv(void* xcthdl, int, const char* rawbuf, int rawlen, char* iobuf, int* iolen) {
    LZWH* h = static_cast<LZWH*>(xcthdl);
    if (!h) return -1;
    mutex_lock(&h->lock);
    h->cb.mode = XZC_COMPRESS;
    h->cb.from = reinterpret_cast<const unsigned char*>(rawbuf);
    h->cb.textlen = rawlen;
    h->cb.to = reinterpret_cast<unsigned char*>(iobuf);
    h->cb.cyphlen = rawlen < *iolen ? rawlen : *iolen;
    const rctype rc = hsclzw(&h->cb);
    const long out = h->cb.cyphlen;
    mutex_unlock(&h->lock);
    if (rc == HS_OUTFULL) return 1;
    if (rc != 0) return -1;
    *iolen = static_cast<int>(out);
    return 0;
}
int dalzwuc(void* xcthdl, int, const char* iobuf, int iolen, char* rawbuf, int* rawlen) {
    LZWH* h = static_cast<LZWH*>(xcthdl);
    if (!h) return -1;
    mutex_lock(&h->lock);
    h->cb.mode = XZC_EXPAND;
    h->cb.from = reinterpret_cast<const unsigned char*>(iobuf);
    h->cb.cyphlen = iolen;
    h->cb.to = reinterpret_cast<unsigned char*>(rawbuf);
    h->cb.textlen = *rawlen;
    const rctype rc = hsclzw(&h->cb);
    const long out = h->cb.textlen;
    mutex_unlock(&h->lock);
    if (rc != 0) return -1;
    *rawlen = static_cast<int>(out);
    return 0;
}

// The manager ---------------------------------------------------------------

DA_XCB builtins[] = {
    {nullptr, {darl2in, darl2tm, darl2oh, darl2ch, darl2cv, darl2uc}, {'V', 'R', 'T', 'A', 'R', 'L', 'C', '2'}, nullptr, nullptr, 0, 0, 0},
    {nullptr, {darllin, darlltm, darlloh, darllch, darllcv, darlluc}, {'V', 'R', 'T', 'A', 'R', 'L', 'L', 'C'}, nullptr, nullptr, 0, 0, 0},
    {nullptr, {dacryin, dacrytm, dacryoh, dacrych, dacrycv, dacryuc}, {'V', 'R', 'T', 'A', 'C', 'R', 'Y', 'P'}, nullptr, nullptr, 0, 0, 0},
    {nullptr, {dacry6in, dacrytm, dacryoh, dacrych, dacrycv, dacryuc}, {'.', 'V', 'R', 'T', 'A', 'C', 'R', '6'}, nullptr, nullptr, 0, 0, 0},
    {nullptr, {dalzwin, dalzwtm, dalzwoh, dalzwch, dalzwcv, dalzwuc}, {'V', 'R', 'T', 'A', 'L', 'Z', 'W', 'C'}, nullptr, nullptr, 0, 0, 0},
};

DA_XCB*& xcbhead() { return *reinterpret_cast<DA_XCB**>(&dagcb.xcbs); }

// Up to 8 characters of name, blank padded and upper case.
void normname(const char* in, char out[8]) {
    std::memset(out, ' ', 8);
    for (int i = 0; i < 8 && in && in[i]; ++i) out[i] = static_cast<char>(std::toupper(static_cast<unsigned char>(in[i])));
}

DA_XCB* findxcb(const char name[8]) {
    for (DA_XCB* x = xcbhead(); x; x = x->next)
        if (std::memcmp(x->name, name, 8) == 0) return x;
    return nullptr;
}

void registerbuiltins() {
    for (DA_XCB& b : builtins) {
        if (findxcb(b.name)) continue;
        b.next = xcbhead();
        xcbhead() = &b;
    }
}

// Loads <VRTA_LIBRARY_PATH>/<name>.so and its six entries.
[[nodiscard]] rctype loadxcb(const char name[8], DA_XCB** rxcb) {
    std::string lname;
    for (int i = 0; i < 8 && name[i] != ' '; ++i) lname += static_cast<char>(std::tolower(static_cast<unsigned char>(name[i])));
    std::string path;
    if (const char* env = std::getenv("VRTA_LIBRARY_PATH"); env && *env) {
        if (std::strlen(env) > 1012) {
            hsprint("daxcmgr: Error loading %s: Reason=%s\n", lname.c_str(), "VRTA_LIBRARY_PATH too long");
            return DA_NOEXIT;
        }
        path = env;
        path += '/';
    }
    path += lname;
    path += ".so";
    // A name is a file name in one directory, never a path of its own.
    if (lname.empty() || lname.find('/') != std::string::npos) {
        hsprint("daxcmgr: Error loading %s: Reason=%s\n", path.c_str(), "Bad exit name");
        return DA_NOEXIT;
    }
    dlerror();
    void* hdl = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!hdl) {
        const char* why = dlerror();
        hsprint("daxcmgr: Error loading %s: Reason=%s\n", path.c_str(), why ? why : "Unknown dlopen failure");
        return DA_NOEXIT;
    }
    static const char* const suffix[6] = {"_init", "_term", "_open_hook", "_close_hook", "_convert", "_unconvert"};
    void* fn[6];
    for (int i = 0; i < 6; ++i) {
        const std::string sym = lname + suffix[i];
        fn[i] = dlsym(hdl, sym.c_str());
        if (!fn[i]) {
            if (i == 0) hsprint("daxcmdr: Error getting %s function from %s\n", sym.c_str(), path.c_str());
            else hsprint("daxcmgr: Error getting %s function from %s\n", sym.c_str(), path.c_str());
            dlclose(hdl);
            return DA_NOEXIT;
        }
    }
    DA_XCB* x = static_cast<DA_XCB*>(std::calloc(1, sizeof(DA_XCB)));
    if (!x) {
        dlclose(hdl);
        return DA_NOEXIT;
    }
    x->mt.init = reinterpret_cast<da_xc_init_t>(fn[0]);
    x->mt.term = reinterpret_cast<da_xc_term_t>(fn[1]);
    x->mt.open_hook = reinterpret_cast<da_xc_open_hook_t>(fn[2]);
    x->mt.close_hook = reinterpret_cast<da_xc_close_hook_t>(fn[3]);
    x->mt.convert = reinterpret_cast<da_xc_convert_t>(fn[4]);
    x->mt.unconvert = reinterpret_cast<da_xc_unconvert_t>(fn[5]);
    std::memcpy(x->name, name, 8);
    x->dlhdl = hdl;
    x->next = xcbhead();
    xcbhead() = x;
    *rxcb = x;
    return 0;
}

struct XCLOCK {
    XCLOCK() { mutex_lock(&xcbLock); }
    ~XCLOCK() { mutex_unlock(&xcbLock); }
};

}  // namespace

[[nodiscard]] rctype daxcini() {
    XCLOCK g;
    registerbuiltins();
    return 0;
}

[[nodiscard]] rctype daxcname(int flags, const char* xcname, char* resname) {
    char name[8];
    normname(xcname, name);
    const char* opt = nullptr;
    const char* dflt = nullptr;
    if (std::memcmp(name, "DEFAULT ", 8) == 0) {
        if (flags & 1) {
            opt = "DEFCOMPRESS";
            dflt = "VRTARLC2";
        } else if (flags & 2) {
            opt = "DEFENCRYPT";
            dflt = "VRTACRYP";
        }
    }
    if (opt) {
        char val[64] = {};
        int len = 0;
        void* tab = opgtgbl();
        if (tab && opgetop(tab, opt, val, &len) >= 0 && len > 0 && len < 9) {
            val[len] = 0;
            // An option of blanks alone leaves the default.
            if (std::strspn(val, " ") == static_cast<size_t>(len)) normname(dflt, name);
            else normname(val, name);
        } else {
            normname(dflt, name);
        }
    }
    std::memcpy(resname, name, 8);
    return 0;
}

[[nodiscard]] rctype daldxcb(const char* algname, DA_XCB** rxcb) {
    char name[8];
    normname(algname, name);
    XCLOCK g;
    registerbuiltins();
    DA_XCB* x = findxcb(name);
    if (!x) {
        rctype rc = loadxcb(name, &x);
        if (rc != 0) return rc;
    }
    if (!x->inited) {
        int flags = 0;
        void* hdl = nullptr;
        if (x->mt.init(&flags, &hdl) != 0) {
            hsprint("daxcmgr: xc_init failed for %.8s\n", x->name);
            return DA_NOEXIT;
        }
        x->xcflags = flags;
        x->xchdl = hdl;
        x->inited = 1;
    }
    ++x->refCount;
    *rxcb = x;
    return 0;
}

[[nodiscard]] rctype dafrxcb(DA_XCB* xcb) {
    if (!xcb) return DA_BADARG;
    XCLOCK g;
    if (xcb->refCount > 0 && --xcb->refCount == 0) {
        if (xcb->inited) xcb->mt.term(xcb->xchdl);
        xcb->xchdl = nullptr;
        xcb->inited = 0;
    }
    return 0;
}

[[nodiscard]] rctype daxccheck(const DA_XCB* xcb, int flags, const char* asked) {
    if (asked && asked[0] == '.') return DA_BADARG;
    if ((flags & 1) && !(xcb->xcflags & DA_XCCOMP)) return DA_NOCOMPRESS;
    if ((flags & 2) && !(xcb->xcflags & DA_XCCRYPT)) return DA_NOENCRYPT;
    return 0;
}

[[nodiscard]] rctype daxcopen(DA_XCEXT* xcext, const char* libpath, const char* table, double cretime, int rawmaxbuf) {
    DA_XCB* x = xcext->xcb;
    if (!x) return DA_BADARG;
    int baglen = xcext->xchdr.baglen;
    if (baglen < 0 || baglen > static_cast<int>(sizeof xcext->xchdr.bagbuf)) baglen = 0;
    int iomax = 0;
    void* th = nullptr;
    const int rc = x->mt.open_hook(x->xchdl, libpath ? libpath : "", table ? table : "", xcext->xcmode, cretime,
                                   xcext->keylen, xcext->keybuf, &baglen,
                                   reinterpret_cast<char*>(xcext->xchdr.bagbuf), rawmaxbuf, &iomax, &th);
    if (rc == -2) return DA_BADKEY;
    if (rc != 0) return DA_EXITREFUSED;
    // An exit that claims more bag than the record holds is refused here
    // rather than trusted later.
    if (baglen < 0 || baglen > static_cast<int>(sizeof xcext->xchdr.bagbuf) || iomax <= 0) {
        x->mt.close_hook(th, &baglen, reinterpret_cast<char*>(xcext->xchdr.bagbuf));
        return DA_EXITREFUSED;
    }
    xcext->xchdr.baglen = baglen;
    xcext->xcthdl = th;
    xcext->iomaxbuf = iomax;
    return 0;
}

[[nodiscard]] rctype daxcclose(DA_XCEXT* xcext) {
    DA_XCB* x = xcext->xcb;
    if (!x) return DA_BADARG;
    int baglen = xcext->xchdr.baglen;
    const int rc = x->mt.close_hook(xcext->xcthdl, &baglen, reinterpret_cast<char*>(xcext->xchdr.bagbuf));
    xcext->xcthdl = nullptr;
    if (baglen >= 0 && baglen <= static_cast<int>(sizeof xcext->xchdr.bagbuf)) xcext->xchdr.baglen = baglen;
    return rc == 0 ? 0 : DA_EXITREFUSED;
}

[[nodiscard]] rctype daxcconvert(DA_XCEXT* xcext, int64_t vbn, const void* raw, int rawlen, void* io, int* iolen, bool allowraw) {
    DA_XCB* x = xcext->xcb;
    int len = xcext->iomaxbuf;
    const int rc = x->mt.convert(xcext->xcthdl, static_cast<int>(vbn & 0x7fffffff), static_cast<const char*>(raw),
                                 rawlen, static_cast<char*>(io), &len);
    if (rc == 1 && allowraw) return 1;
    if (rc != 0) return DA_CONVFAIL;
    if (len < 0 || len > xcext->iomaxbuf) return DA_CONVBIG;
    // No rows fit in no bytes: storing such a block would lose them.
    if (len == 0 && rawlen > 0) {
        hsprint("daxcconvert: Exit %.8s converted %d bytes to none: VBN=%lld Reason=%s\n", x->name, rawlen,
                static_cast<long long>(vbn), hsstrer(DA_CONVFAIL));
        return DA_CONVFAIL;
    }
    *iolen = len;
    return 0;
}

[[nodiscard]] rctype daxcunconvert(DA_XCEXT* xcext, int64_t vbn, const void* io, int iolen, void* raw, int* rawlen) {
    DA_XCB* x = xcext->xcb;
    int len = *rawlen;
    const int rc = x->mt.unconvert(xcext->xcthdl, static_cast<int>(vbn & 0x7fffffff), static_cast<const char*>(io),
                                   iolen, static_cast<char*>(raw), &len);
    if (rc != 0 || len < 0 || len > *rawlen) return DA_UNCONVFAIL;
    *rawlen = len;
    return 0;
}

void dancode(uint32_t key, void* bufp, long bsize) {
    // The key loses this step after every word, so equal words in a record
    // do not scramble alike.
    constexpr uint32_t STEP = 0x61C88647u;
    unsigned char* p = static_cast<unsigned char*>(bufp);
    for (long i = 0; i + 4 <= bsize; i += 4) {
        uint32_t w;
        std::memcpy(&w, p + i, 4);
        w ^= key;
        std::memcpy(p + i, &w, 4);
        key -= STEP;
    }
}

}  // namespace vrta
