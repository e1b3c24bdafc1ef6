// Run-time helpers that generated code calls. Area helpers take their
// arguments in one order: source, source length, destination, destination
// length, and a table or flags (RDI, RSI, RDX, RCX, R8). Lengths outside what
// a helper can do make it do nothing; it never reads or writes past them.
#pragma once
#include "ssup/vrtadef.h"

namespace vrta {

using VGHELP = long (*)(const void* src, long sl, void* dst, long dl, long x);

// Numbers between this machine's double (sl or dl bytes: the high bytes of
// the double) and the stored forms of other machines: x is the format word of
// the side that is not native.
long vvgctdbl(const void* src, long sl, void* dst, long dl, long fmt);   // to transport
long vvgcidbl(const void* src, long sl, void* dst, long dl, long fmt);   // to IBM
long vvgcvdbl(const void* src, long sl, void* dst, long dl, long fmt);   // to VAX
long vvgcedbl(const void* src, long sl, void* dst, long dl, long fmt);   // to another IEEE host
long vvgrtdbl(const void* src, long sl, void* dst, long dl, long fmt);
long vvgridbl(const void* src, long sl, void* dst, long dl, long fmt);
long vvgrvdbl(const void* src, long sl, void* dst, long dl, long fmt);
long vvgredbl(const void* src, long sl, void* dst, long dl, long fmt);

// Integers of 1 to 8 bytes: nb both native, bs a little-endian other side,
// srt native to big-endian, sct big-endian to native; u: unsigned.
long vvgnbint(const void* src, long sl, void* dst, long dl, long fmt);
long vvgnbinu(const void* src, long sl, void* dst, long dl, long fmt);
long vvgbsint(const void* src, long sl, void* dst, long dl, long fmt);
long vvgbsinu(const void* src, long sl, void* dst, long dl, long fmt);
long vvgsrtint(const void* src, long sl, void* dst, long dl, long fmt);
long vvgsrtinu(const void* src, long sl, void* dst, long dl, long fmt);
long vvgsctint(const void* src, long sl, void* dst, long dl, long fmt);
long vvgsctinu(const void* src, long sl, void* dst, long dl, long fmt);

// Each byte through a 256-byte table, cut or padded with the table's blank.
long vvgtxxlt(const void* src, long sl, void* dst, long dl, long table);

// Moves. Character moves copy forward byte by byte and pad with blanks (or
// with the byte in x); vvgmvdbl puts the sl bytes at the high end of a zeroed
// double and takes the high dl bytes out.
long vvgmvch(const void* src, long sl, void* dst, long dl, long x);
long vvgmvchar(const void* src, long sl, void* dst, long dl, long pad);
long vvgmvdbl(const void* src, long sl, void* dst, long dl, long x);
long vvgpadb(const void* src, long used, void* dst, long dl, long pad);
long vvgexpand(const void* src, long sl, void* dst, long dl, long byte);
long vvgxtoyup(const void* src, long sl, void* dst, long dl, long x);
long vvgnechup(const void* src, long sl, void* dst, long dl, long x);
long vvgeqchup(const void* src, long sl, void* dst, long dl, long x);

// Numbers to and from a form whose bytes compare as the numbers do.
long vvgmvcoll(const void* src, long sl, void* dst, long dl, long x);
long vvgmvcolldesc(const void* src, long sl, void* dst, long dl, long x);
long vvgmvdecoll(const void* src, long sl, void* dst, long dl, long x);
long vvgmvdecolldesc(const void* src, long sl, void* dst, long dl, long x);
long vvgmvcollarea(const void* src, long sl, void* dst, long dl, long flags);

// Strings: append (returns the new used length), keep the larger or smaller,
// compare (-1, 0, 1; the shorter padded with blanks).
long vvgcatf(const void* src, long sl, void* dst, long dl, long used);
long vvgcatv(const void* src, long sl, void* dst, long dl, long used);
long vvgmaxv(const void* src, long sl, void* dst, long dl, long x);
long vvgminv(const void* src, long sl, void* dst, long dl, long x);
long vvgmaxf(const void* src, long sl, void* dst, long dl, long x);
long vvgminf(const void* src, long sl, void* dst, long dl, long x);
long vvgcmps(const void* a, long al, void* b, long bl, long x);
long vvgcmpst(const void* a, long al, void* b, long bl, long table);

// Vectors of n doubles.
long vvgandr(const void* v, long n, void*, long, long);
long vvgorr(const void* v, long n, void*, long, long);
long vvgandrn(const void* v, long n, void*, long, long);
long vvgorrn(const void* v, long n, void*, long, long);
long vvgcmpr(const void* a, long an, void* b, long bn, long x);
double vvgminr(const void* v, long n, void*, long, long);
double vvgmaxr(const void* v, long n, void*, long, long);

// Numbers and text; arithmetic that gives a missing value instead of trapping.
long vvgn2t(const void* bits, long, void* dst, long dl, long);
double vvgt2n(const void* src, long sl, void*, long, long);
long vvgcvlr(double v);
double vvgdiv(double a, double b);
double vvgmodr(double a, double b);

// The order MIN_ and MAX_ use: missing values lowest, then by the number,
// -0 below +0; a key whose unsigned order is that order.
unsigned long vgcollkey(unsigned long bits);

// The helper of a TRANS_, or null when the formats cannot be converted.
VGHELP vgtranshelper(int type, long fsrc, long fdst, unsigned long modifier);

}  // namespace vrta
