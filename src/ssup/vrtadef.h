// Basic types shared by every layer of the module.
#pragma once
#include <cstdint>
#include <cstddef>

namespace vrta {

// Return code: 0 success, negative failure, positive warning or note.
// Bit 31 error, bit 30 literal text from xrmksub, bit 29 note,
// bits 23..16 message group, bits 15..0 message number.
using rctype = int32_t;
using wrcode = int32_t;

// Row number, counted from 1; a deleted row keeps its number.
using hs_obsno_t = int64_t;
// Offset in a logical or physical file.
using da_off_t = int64_t;

// Builds a code from its parts.
constexpr rctype rcmake(bool error, unsigned group, unsigned number) {
    return static_cast<rctype>((error ? 0x80000000u : 0u) | ((group & 0xffu) << 16) | (number & 0xffffu));
}
constexpr unsigned rcgroup(rctype rc) { return (static_cast<uint32_t>(rc) >> 16) & 0xffu; }
// The number within the group, as message files count it: 200 per high byte.
constexpr unsigned rcnumber(rctype rc) {
    return ((static_cast<uint32_t>(rc) >> 8) & 0xffu) * 200 + (static_cast<uint32_t>(rc) & 0xffu);
}

// Sets a code aside on purpose: clean-up after an earlier failure, where the
// first code is the one to report, or a call that cannot fail there.
inline void rcignore(rctype) {}

}  // namespace vrta
