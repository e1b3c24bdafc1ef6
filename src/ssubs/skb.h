// Key blocks: how a row becomes a byte string that orders correctly under
// memcmp, whatever its columns. Indexes, the sorter and group-by build their
// keys through one of these and then compare bytes only.
#pragma once
#include <cstddef>
#include <cstdint>

#include "hs/hsnls.h"
#include "ssubs/hscsdbl.h"
#include "ssup/vrtadef.h"

namespace vrta {

// A sort sequence: the byte each byte of a character value becomes.
using hs_trntbl_t = unsigned char[256];

constexpr rctype SKB_RC_BADTYPE = static_cast<rctype>(0x80000406u);  // column type not 1 or 2, record length wrong
constexpr rctype SKB_RC_NOMEM = static_cast<rctype>(0x80000407u);
constexpr rctype SKB_RC_NOTRANS = static_cast<rctype>(0x80000408u);  // transcoder could not be opened
constexpr rctype SKB_RC_INVALID = static_cast<rctype>(0x80000220u);  // call not allowed on this block

// creflags.
constexpr int SKB_MAKEKEY = 0x1;    // makekey may be used
constexpr int SKB_DATA = 0x2;       // rows are carried in the record
constexpr int SKB_OBS = 0x4;        // the row number is in the record
constexpr int SKB_OBSNATIVE = 0x8;  // the row number sits behind the key, in native order
constexpr int SKB_MISSING = 0x10;   // test for missing values
constexpr int SKB_HASNUM = 0x20;
constexpr int SKB_HASCHAR = 0x40;
constexpr int SKB_PAD4 = 0x80;      // pad key and record to 4 bytes
constexpr int SKB_SHORTNUM = 0x100; // a numeric column is shorter than 8 bytes

struct SKB_KEY;

struct SKB_MT {
    rctype (*destroy)(SKB_KEY* skb);
    rctype (*addcol)(SKB_KEY* skb, int npos, int nlng, int ntype, int order);
    rctype (*addend)(SKB_KEY* skb, int endflags);
    // Writes record *nkeyrec of keybuf and adds 1 to it; *miss is 1 when all
    // columns are missing (only with SKB_MISSING).
    rctype (*makekey)(SKB_KEY* skb, const void* rowbuf, hs_obsno_t obsno, void* keybuf, long* nkeyrec, int* miss);
    // The columns of a key record back into their places in rowbuf (rowbuf
    // may be null), and its row number when the record holds one.
    rctype (*extractkey)(SKB_KEY* skb, const void* keyrec, void* rowbuf, hs_obsno_t* obsno);
    // 1 when every column of the key is missing.
    int (*ismissing)(SKB_KEY* skb, const void* key);
    int (*cmp)(const void* a, const void* b, size_t n);
    // The lowest (which 1) or highest key.
    void (*fillkey)(SKB_KEY* skb, int which, void* keybuf, long len);
};

struct SKB_COL {
    int32_t npos;   // offset in the row
    int32_t nlng;   // bytes in the row
    int32_t klng;   // bytes in the key
    int32_t ntype;  // 1 numeric, 2 character
    int32_t order;  // 1 descending, 0 ascending
    int32_t koff;   // offset in the key
};

struct SKB_INFO {
    HS_NLSENV* keyenv;
    HS_NLSENV* dataenv;
    const unsigned char* sortseq;  // hs_trntbl_t, or null
    int creflags;
    int totkeylen;   // key with the row number and padding
    int colkeylen;   // the columns alone
    int keypadlen;
    int datalen;     // carried row data
    int reclen;
    int recpadlen;
    int obs_offset;  // -1 without a row number
    int data_offset; // -1 without row data
    int ncols, maxcols;
    SKB_COL* cols;
    const NLS_LIBOPS* nvloc;
    NLS_PIPE* nvtph;
    unsigned char* blankkey;  // key image of a missing character column, colkeylen bytes
};

struct SKB_KEY {
    SKB_MT mt;
    SKB_INFO info;
    SKB_COL defcol;
};

rctype skbinit(SKB_KEY* skb, HS_NLSENV* keyenv, HS_NLSENV* dataenv, const unsigned char* sortseq, int creflags,
               int datalen, int maxcols);
// A block for plain bytes: keylen compared by memcmp, reclen in all.
rctype skbmeminit(SKB_KEY* skb, int keylen, int reclen);

rctype skb_addcol(SKB_KEY* skb, int npos, int nlng, int ntype, int order);
rctype skb_addend(SKB_KEY* skb, int endflags);
rctype skb_makekey(SKB_KEY* skb, const void* rowbuf, hs_obsno_t obsno, void* keybuf, long* nkeyrec, int* miss);
rctype skb_extractkey(SKB_KEY* skb, const void* keyrec, void* rowbuf, hs_obsno_t* obsno);
void skb_fillkey(SKB_KEY* skb, int which, void* keybuf, long len);
void skb_memfill(SKB_KEY* skb, int which, void* keybuf, long len);
int skb_ismiss_char(SKB_KEY* skb, const void* key);
int skb_ismiss_numeric(SKB_KEY* skb, const void* key);
int skb_ismiss_mixed(SKB_KEY* skb, const void* key);
rctype skb_destroy(SKB_KEY* skb);
rctype skb_memdestroy(SKB_KEY* skb);
rctype skb_invalid();

// A number of len bytes widened to a double: the stored bytes are its high ones.
void vzrftrc(const void* source, int len, void* target);
// len bytes of src through a translation table into dst (which may be src).
void hsttrans(void* dst, const void* src, long len, const unsigned char* table);

}  // namespace vrta
