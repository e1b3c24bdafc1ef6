// Helpers shared by the library and member lock files; not for other layers.
#pragma once
#include <cctype>
#include <string>

namespace vrta {

// At most max characters of s (up to a NUL), blanks around them dropped,
// folded to lower case. Member types come as blank-padded 8-byte fields.
inline std::string lowertrim(const char* s, int max) {
    std::string out;
    for (int i = 0; s && i < max && s[i]; i++) out.push_back(static_cast<char>(tolower(static_cast<unsigned char>(s[i]))));
    size_t b = out.find_first_not_of(' ');
    if (b == std::string::npos) return std::string();
    size_t e = out.find_last_not_of(' ');
    return out.substr(b, e - b + 1);
}

// A member name: NUL-terminated; empty when longer than a member name may be.
inline std::string lowername(const char* s) {
    std::string n = lowertrim(s, 64);
    return n.size() > 32 ? std::string() : n;
}

}  // namespace vrta
