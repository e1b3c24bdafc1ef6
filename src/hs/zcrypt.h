// Scrambling of texts on the wire login and in access tables: each 3-byte
// group becomes a 4-byte group under a modular power. Both ends of a
// conversation are built from this one implementation.
#pragma once
#include <cstdint>
#include "ssup/vrtadef.h"

namespace vrta {

// Coded length of len bytes of text: one head group, then the text groups.
constexpr long zcryptlen(long len) { return (len + 5) / 3 * 4; }

// base ** power mod modulus, for a modulus below 2^32.
uint32_t zpowmod(uint32_t base, uint32_t power, uint32_t modulus);
// One group: 24 bits to 32 (encode) or back (decode, 0 when out of range).
uint32_t zscode(uint32_t group, int decode);

// Codes len bytes (len < 2^24) of from into zcryptlen(len) bytes at to.
// 0, or 0x80000406 for a bad length.
[[nodiscard]] rctype zncrypt(const void* from, long len, void* to);
// Decodes clen bytes; the text (at most tolen bytes) goes to `to` and its
// length to *len. 0x80000406 for a damaged text or too little room.
[[nodiscard]] rctype zdcrypt(const void* from, long clen, void* to, long tolen, long* len);

// The same pair under the runtime's names.
[[nodiscard]] rctype hsncryp(const void* from, long len, void* to);
[[nodiscard]] rctype hsdcryp(const void* from, long clen, void* to, long tolen, long* len);

}  // namespace vrta
