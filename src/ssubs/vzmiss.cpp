#include "ssubs/vz.h"

namespace vrta {

const double missing_tbl[VZ_NMISS] = {
#define M(i) std::bit_cast<double>(vzmissbits(i))
    M(0),  M(1),  M(2),  M(3),  M(4),  M(5),  M(6),  M(7),  M(8),  M(9),  M(10), M(11), M(12), M(13),
    M(14), M(15), M(16), M(17), M(18), M(19), M(20), M(21), M(22), M(23), M(24), M(25), M(26), M(27),
#undef M
};

double vzmissof(char c) {
    if (c == '_') return missing_tbl[0];
    if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
    if (c >= 'A' && c <= 'Z') return missing_tbl[2 + (c - 'A')];
    return missing_tbl[1];
}

char vzmisschar(double d) {
    int r = vzmrank(d);
    if (r == 1) return '_';
    if (r >= 3 && r <= 28) return static_cast<char>('A' + r - 3);
    return '.';
}

}  // namespace vrta
