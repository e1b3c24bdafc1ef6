#include "ssubs/hscsdbl.h"

#include <cstdint>

namespace vrta {

void vvzstrev(void* value, int len) {
    auto* p = static_cast<uint8_t*>(value);
    for (int i = 0, j = len - 1; i < j; i++, j--) {
        uint8_t t = p[i];
        p[i] = p[j];
        p[j] = t;
    }
}

void hscsdbl(void* value, int len) {
    if (len < 1) return;
    auto* p = static_cast<uint8_t*>(value);
    bool negzero = p[len - 1] == 0x80;
    for (int i = 0; negzero && i < len - 1; i++) negzero = p[i] == 0;
    // Negative numbers are complemented so that larger magnitudes sort lower;
    // negative zero takes the sign bit as positive zero does.
    if ((p[len - 1] & 0x80) && !negzero) {
        for (int i = 0; i < len; i++) p[i] = static_cast<uint8_t>(~p[i]);
    } else {
        p[len - 1] |= 0x80;
    }
    vvzstrev(p, len);
}

void hsrsdbl(void* value, int len) {
    if (len < 1) return;
    auto* p = static_cast<uint8_t*>(value);
    vvzstrev(p, len);
    if (p[len - 1] > 127) {
        p[len - 1] &= 0x7f;
    } else {
        for (int i = 0; i < len; i++) p[i] = static_cast<uint8_t>(~p[i]);
    }
}

}  // namespace vrta
