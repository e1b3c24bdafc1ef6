// Transport numbers: big-endian integers, floating numbers in IBM
// hexadecimal form, and text, as they travel in wire bodies. The table of
// special missing values lives here too, since the transport form of a
// double is where they are named.
#pragma once
#include <cstdint>

namespace vrta {

// A big-endian integer of len bytes (1 to 8), sign extended by zrtint.
int64_t zrtint(const void* source, int len);
uint64_t zrtinu(const void* source, int len);
// Writes len bytes big-endian; with len 2 zctint first clips the value to
// -32768..32767, zctinu does not clip.
void zctint(int64_t value, void* dest, int len);
void zctinu(uint64_t value, void* dest, int len);

// A number of len bytes (at most 8; a shorter one holds the high bytes) in
// IBM hexadecimal form, to and from this machine's double.
double zrtdbl(const void* source, int len);
void zctdbl(double value, void* dest, int len);

// Text is carried as it stands.
void zrtchr(const void* source, char* dest, int len);
void zctchr(const char* source, void* dest, int len);

// Special missing values: "_", "." and "A" to "Z", in that order. A double is
// missing when its top 16 bits are all ones; its rank is the negated signed
// value of byte 5 (low byte first), here the complement of its character.
constexpr int HS_NMISSING = 28;
extern const double missing_tbl[HS_NMISSING];
// The entry of c ('.', '_', 'A' to 'Z'), or -1.
int hsmissix(int c);
// The standard missing value ".".
double hsmissing();
bool hsismiss(double v);
// The character of a missing value ('.' for one not in the table), 0 when v is
// not missing.
int hsmisschar(double v);

}  // namespace vrta
