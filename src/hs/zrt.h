// Transport numbers: big-endian integers, floating numbers in IBM
// hexadecimal form, and text, as they travel in wire bodies. A missing value
// travels as its character ('.', '_', 'A' to 'Z') followed by zero bytes.
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

}  // namespace vrta
