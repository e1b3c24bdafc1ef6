// LZW coder of stored blocks: variable width codes from 9 to 12 bits, packed
// least significant bit first, behind a one-byte root size. When the code
// space of a width is used up the coder sends `clear` and widens, but keeps
// counting codes from where it was; the expander mirrors that count.
#include <cstdlib>
#include <cstring>
#include "hs/hscmp.h"

namespace vrta {

namespace {

using u8 = unsigned char;

constexpr int TABSIZE = 4919;
constexpr uint16_t EMPTY = 0xFFFF;
constexpr int MAXWIDTH = 12;
constexpr int MAXCODES = 1 << MAXWIDTH;

struct SLOT {
    uint16_t code;
    uint16_t prefix;
};

// Layout of the info area: the three pointers, then the slots and suffixes.
struct INFO {
    SLOT* slots;
    u8* suffix;
    void* spare;  // kept for the layout; strings are built in place
};
static_assert(sizeof(INFO) == 24);
static_assert(24 + TABSIZE * sizeof(SLOT) == 19700);
static_assert(19700 + TABSIZE == HS_LZWINFO);

INFO* infoof(HS_CBLK* cb) { return static_cast<INFO*>(cb->info); }

void emptytab(INFO* in) {
    std::memset(in->slots, 0xFF, TABSIZE * sizeof(SLOT));
}

struct BITOUT {
    u8* op;
    u8* oend;
    uint64_t acc = 0;
    int nbits = 0;
    // 0, or HS_OUTFULL once the output limit is reached.
    rctype put(unsigned code, int width) {
        acc |= static_cast<uint64_t>(code) << nbits;
        nbits += width;
        while (nbits >= 8) {
            if (op == oend) return HS_OUTFULL;
            *op++ = static_cast<u8>(acc);
            acc >>= 8;
            nbits -= 8;
        }
        return 0;
    }
    rctype flush() {
        if (nbits > 0) {
            if (op == oend) return HS_OUTFULL;
            *op++ = static_cast<u8>(acc);
            acc = 0;
            nbits = 0;
        }
        return 0;
    }
};

rctype compress(HS_CBLK* cb) {
    INFO* in = infoof(cb);
    const long n = cb->textlen;
    if (n <= 0) {
        cb->cyphlen = 0;
        return 0;
    }
    const u8* ip = cb->from;
    BITOUT out{cb->to, cb->to + cb->cyphlen};
    constexpr unsigned clear = 256, eoi = 257;
    unsigned nextfree = 258;
    int width = 9;
    unsigned maxcode = 511;
    emptytab(in);
    rctype rc;
    if ((rc = out.put(8, 8)) || (rc = out.put(clear, width))) return rc;
    unsigned p = ip[0];
    for (long i = 1; i < n; ++i) {
        const unsigned c = ip[i];
        int key = static_cast<int>((c << 4) ^ p);
        const int step = key == 0 ? 1 : TABSIZE - key;
        bool hit = false;
        for (;;) {
            SLOT& s = in->slots[key];
            if (s.code == EMPTY) break;
            if (s.prefix == p && in->suffix[key] == c) {
                p = s.code;
                hit = true;
                break;
            }
            key -= step;
            if (key < 0) key += TABSIZE;
        }
        if (hit) continue;
        if (nextfree <= maxcode) {
            in->slots[key].code = static_cast<uint16_t>(nextfree++);
            in->slots[key].prefix = static_cast<uint16_t>(p);
            in->suffix[key] = static_cast<u8>(c);
        }
        if ((rc = out.put(p, width))) return rc;
        if (nextfree > maxcode && width < MAXWIDTH) {
            if ((rc = out.put(clear, width))) return rc;
            ++width;
            maxcode = (1u << width) - 1;
            emptytab(in);
        }
        p = c;
    }
    if ((rc = out.put(p, width)) || (rc = out.put(eoi, width)) || (rc = out.flush())) return rc;
    cb->cyphlen = out.op - cb->to;
    return 0;
}

rctype expand(HS_CBLK* cb) {
    INFO* in = infoof(cb);
    if (cb->cyphlen <= 0) {
        cb->textlen = 0;
        return 0;
    }
    // Indexed by code here: the string's length (EMPTY when undefined) and
    // its prefix code in the slots, its last byte in suffix.
    SLOT* tab = in->slots;
    u8* suffix = in->suffix;

    const u8* ip = cb->from;
    const u8* iend = ip + cb->cyphlen;
    u8* op = cb->to;
    u8* oend = op + cb->textlen;
    uint64_t acc = 0;
    int nbits = 0;
    auto get = [&](int width, unsigned* code) {
        while (nbits < width) {
            if (ip == iend) return false;
            acc |= static_cast<uint64_t>(*ip++) << nbits;
            nbits += 8;
        }
        *code = static_cast<unsigned>(acc & ((1u << width) - 1));
        acc >>= width;
        nbits -= width;
        return true;
    };

    unsigned root;
    if (!get(8, &root) || root < 2 || root > 8) return HS_BADDATA;
    const unsigned clear = 1u << root, eoi = clear + 1;
    unsigned nextfree = clear + 2;
    int width = static_cast<int>(root) + 1;
    unsigned maxcode = (1u << width) - 1;
    auto reset = [&]() {
        for (unsigned k = clear; k < MAXCODES; ++k) tab[k].code = EMPTY;
    };
    for (unsigned k = 0; k < clear; ++k) {
        tab[k].code = 1;
        tab[k].prefix = EMPTY;
        suffix[k] = static_cast<u8>(k);
    }
    reset();
    unsigned prev = 0;
    unsigned pending = 0;   // code reserved for prev + first byte of the next string
    bool havepending = false;
    u8 prevfirst = 0;
    for (;;) {
        unsigned code;
        if (!get(width, &code)) return HS_BADDATA;  // ends before eoi
        if (code == eoi) break;
        if (code == clear) {
            if (nextfree > maxcode && width < MAXWIDTH) {
                ++width;
                maxcode = (1u << width) - 1;
            }
            reset();
            havepending = false;
            continue;
        }
        // Each defined code knows its string's length, so the string is
        // written straight into place from its last byte back.
        if (code >= MAXCODES) return HS_BADDATA;
        unsigned k = code;
        long len = tab[code].code;
        u8 first;
        if (tab[code].code == EMPTY) {
            // Only the code being defined right now may be used early: it is
            // the previous string and that string's first byte again.
            if (!havepending || code != pending) return HS_BADDATA;
            k = prev;
            len = tab[prev].code + 1L;
            if (oend - op < len) return HS_BADDATA;
            op[len - 1] = prevfirst;
        } else if (oend - op < len) {
            return HS_BADDATA;  // longer than the block can be
        }
        {
            u8* p = op + tab[k].code;
            while (k >= clear) {
                *--p = suffix[k];
                k = tab[k].prefix;
            }
            *--p = static_cast<u8>(k);
            first = static_cast<u8>(k);
        }
        op += len;
        if (havepending) {
            tab[pending].code = static_cast<uint16_t>(tab[prev].code + 1);
            tab[pending].prefix = static_cast<uint16_t>(prev);
            suffix[pending] = first;
            havepending = false;
        }
        prev = code;
        prevfirst = first;
        if (nextfree <= maxcode) {
            pending = nextfree++;
            havepending = pending < MAXCODES;
        }
    }
    cb->textlen = op - cb->to;
    return 0;
}

}  // namespace

rctype hsclzw(HS_CBLK* cb) {
    switch (cb->mode) {
    case XZC_INIT: {
        void* mem = std::calloc(1, HS_LZWINFO);
        if (!mem) return HS_NOMEM;
        INFO* in = static_cast<INFO*>(mem);
        u8* base = static_cast<u8*>(mem);
        in->slots = reinterpret_cast<SLOT*>(base + sizeof(INFO));
        in->suffix = base + 19700;
        in->spare = nullptr;
        cb->info = mem;
        return 0;
    }
    case XZC_COMPRESS:
        if (!cb->info) return HS_BADDATA;
        return compress(cb);
    case XZC_EXPAND:
        if (!cb->info) return HS_BADDATA;
        return expand(cb);
    case XZC_TERM:
        if (cb->info) {
            std::free(cb->info);
            cb->info = nullptr;
        }
        return 0;
    default:
        return HS_BADDATA;
    }
}

}  // namespace vrta
