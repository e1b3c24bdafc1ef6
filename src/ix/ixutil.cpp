// What every part of the index layer shares.
#include <cstdlib>

#include "hs/hs.h"
#include "ix/ix.h"

namespace vrta {

void ix_assertion_failure(const char* file, int line) {
    hsprint("Assertion failed: %s/%d\n", file, line);
    abort();
}

}  // namespace vrta
