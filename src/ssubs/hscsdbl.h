// Sortable doubles: a number's bytes turned so that memcmp orders them as
// the numbers order, and back.
#pragma once

namespace vrta {

// value holds len bytes (1 to 8): the high bytes of a little-endian double.
void hscsdbl(void* value, int len);
void hsrsdbl(void* value, int len);
void vvzstrev(void* value, int len);

}  // namespace vrta
