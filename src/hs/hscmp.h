// Block coders of the runtime: two run-length coders, LZW, the block cipher
// used by the encryption exits, and its two generators. They work on caller
// buffers only and never allocate per call (LZW keeps its tables in `info`).
#pragma once
#include <cstdint>
#include "ssup/vrtadef.h"

namespace vrta {

// Codes of the coders that are not the storage layer's own.
constexpr rctype HS_BADDATA = static_cast<rctype>(0x80000406u);  // bad argument or damaged stream
constexpr rctype HS_NOMEM = static_cast<rctype>(0x80000407u);    // no memory
constexpr rctype HS_OUTFULL = 1029;                              // LZW output reached its limit

// Run length 1, escape byte 25. mode 0 compresses, 1 expands. Result: output
// length; negative when the output room ran out (or the stream is damaged).
long hsrcmp1(int mode, void* pto, const void* pfrom, long tol, long froml);
// Run length 2, token coded. Same contract as hsrcmp1.
long hsrcmp2(int mode, void* pto, const void* pfrom, long tol, long froml);

// LZW control block.
constexpr int XZC_INIT = 0;
constexpr int XZC_COMPRESS = 1;
constexpr int XZC_EXPAND = 2;
constexpr int XZC_TERM = 3;
// Size of the table area behind `info`: 3 pointers, 4919 slots of
// (code, prefix), 4919 suffix bytes at offset 19700.
constexpr long HS_LZWINFO = 24619;

struct HS_CBLK {
    int mode;
    long textlen;               // plain length: input to compress; room, then length, on expand
    long cyphlen;               // coded length: room, then length, on compress; input to expand
    const unsigned char* from;
    unsigned char* to;
    void* info;                 // tables, made by XZC_INIT and freed by XZC_TERM
    int flags;
};

// XZC_INIT: allocate info. XZC_COMPRESS: from/textlen -> to, cyphlen is the
// room on entry and the length on return; HS_OUTFULL when it does not fit.
// XZC_EXPAND: from/cyphlen -> to, textlen is the room then the length;
// HS_BADDATA for a damaged, truncated or too long stream. XZC_TERM frees.
[[nodiscard]] rctype hsclzw(HS_CBLK* cb);

// Block cipher.
constexpr int HS_ENC = 0;
constexpr int HS_DEC = 1;
constexpr int HS_BENCTRACE = 1;  // flags: print the block on entry and exit
constexpr int HS_BENCV6 = 2;     // flags: second generator

struct HS_BENC {
    double datetime;            // the table's creation time, seconds
    int32_t pageno;
    long textlen;
    const unsigned char* from;
    unsigned char* to;          // may equal from
    int mode;
    int flags;
    char keybuf[12];            // blank padded
};

// textlen bytes from `from` to `to`, same length. HS_BADDATA for a creation
// time that does not fit 32 bits or a bad mode; DA_BADKEY-valued
// 0x80000240 for an all-blank key.
[[nodiscard]] rctype hsbenc(HS_BENC* bp);

// 31-bit multiplicative congruential generators; the state is 1..2^31-2.
uint32_t hsran32(uint32_t* seed);
uint32_t hsran32v6(uint32_t* seed);

}  // namespace vrta
