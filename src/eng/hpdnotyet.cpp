// Entries whose request the engine does not serve yet. Each sits in its own
// slot under its own name, so the vector's layout is final today; the code
// that serves one removes its name from VRTA_HPD_NOTYET in hpd.h.
#include <cstring>

#include "eng/hpd.h"
#include "hs/hs.h"
#include "ssup/xp.h"

namespace vrta {

rctype hpdnotyet(const char* entry) {
    xrmksub(1, entry, static_cast<int>(std::strlen(entry)));
    hsprint("%s: this request is not available yet\n", entry);
    return XP_RC_NOTYET;
}

}  // namespace vrta

extern "C" {
#define VRTA_HPD_DEFINE(name) \
    rctype name() { return vrta::hpdnotyet(#name); }
VRTA_HPD_NOTYET(VRTA_HPD_DEFINE)
#undef VRTA_HPD_DEFINE
}
