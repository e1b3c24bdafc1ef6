// The process option table: lookup and update by name.
#pragma once
#include "ssup/vrtadef.h"

namespace vrta {

// The table is one contiguous image; callers pass its address.
void* opgtgbl();
void opstgbl(void* tableptr);

// Reads an option into value (4 bytes binary/integer, 8 bytes double,
// *vallen bytes character). Negative: -1 wrong type for a NO name, -2 unset.
int opgetop(void* optptr, const char* spell, void* value, int* vallen);
// A binary option's value (0 or 1), -1 other type, -2 unset.
int opbingt(void* optptr, const char* spell);

}  // namespace vrta
