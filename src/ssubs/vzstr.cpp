#include "ssubs/vz.h"

namespace vrta {

void vzMP(char* s, int len) {
    for (int i = 0; i < len; i++)
        if (s[i] >= 'a' && s[i] <= 'z') s[i] = static_cast<char>(s[i] - 'a' + 'A');
}

int vzstrip(const char* s, int len) {
    while (len > 0 && s[len - 1] == ' ') len--;
    return len > 0 ? len : 0;
}

int vzAL(char c, const char* s, int len) {
    for (int i = 0; i < len; i++)
        if (s[i] != c) return 0;
    return 1;
}

}  // namespace vrta
