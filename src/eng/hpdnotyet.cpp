// Entries whose request the engine does not serve yet. Each sits in its own
// slot under its own name, so the vector's layout is final today; the code
// that serves one removes its name from VRTA_HPD_NOTYET in hpd.h.
#include <cstring>

#include "eng/hpd.h"
#include "ssup/xp.h"

namespace vrta {

rctype hpdnotyet(const char* entry) {
    const int len = static_cast<int>(std::strlen(entry));
    xrmksub(1, entry, len);
    // The same text the code stands for, in the log, with the entry's name.
    xpmlog(static_cast<int>(rcgroup(XP_RC_NOTYET)), static_cast<int>(rcnumber(XP_RC_NOTYET)), entry);
    return XP_RC_NOTYET;
}

}  // namespace vrta

extern "C" {
#define VRTA_HPD_DEFINE(name) \
    rctype name() { return vrta::hpdnotyet(#name); }
VRTA_HPD_NOTYET(VRTA_HPD_DEFINE)
#undef VRTA_HPD_DEFINE
}
