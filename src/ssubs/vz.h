// Numeric and string routines shared by the layers: blank-padded character
// values and missing numbers.
#pragma once
#include <bit>
#include <cstdint>

namespace vrta {

// Upper-cases len bytes in place; only the 26 ASCII letters change, so that
// names compare the same whatever the data's encoding.
void vzMP(char* s, int len);
// The length of s without its trailing blanks.
int vzstrip(const char* s, int len);
// 1 when every one of the len bytes is c (also when len is 0).
int vzAL(char c, const char* s, int len);

// A number is missing when its top 16 bits are all ones. Its rank is the
// negated sixth byte, so that "._" < "." < ".A" < ... < ".Z" and ordinary
// numbers (rank 0) sort above them all.
constexpr int VZ_NMISS = 28;
// Index 0 is "._", 1 is ".", 2 to 27 are ".A" to ".Z".
extern const double missing_tbl[VZ_NMISS];

constexpr uint64_t vzmissbits(int index) {
    return 0xFFFF000000000000ull | (uint64_t(0xFF - index) << 40);
}
// The standard missing value ".", the result of every failed computation.
constexpr double VZ_MISSING = std::bit_cast<double>(vzmissbits(1));

inline bool vzismiss(double d) { return (std::bit_cast<uint64_t>(d) >> 48) == 0xFFFF; }
inline int vzmrank(double d) {
    return vzismiss(d) ? -static_cast<int8_t>((std::bit_cast<uint64_t>(d) >> 40) & 0xFF) : 0;
}
// The missing value written as "." followed by c ('_', 'A' to 'Z', or a
// blank for "." itself); lower-case letters are taken as upper. Any other
// character gives the standard missing value.
double vzmissof(char c);
// The letter that shows a missing value: '.', '_' or 'A' to 'Z'.
char vzmisschar(double d);

}  // namespace vrta
