// Start and end calls of the layers whose blocks sit in VVGCB slots and that
// may not be built into this module. They are weak: a layer that is absent
// reads as null here and its slot stays empty. A layer that adds itself
// defines the function with exactly this signature.
//
// In a program linked from the static archives, a layer comes in only when
// something else uses it; libvrta.so takes every layer whole.
#pragma once
#include "ssup/vrtadef.h"

namespace vrta {

#define VV_WEAK __attribute__((weak))

VV_WEAK rctype xhgblinit();     // host file services, process part
VV_WEAK void xhgblterm();
VV_WEAK void* xhinit();         // host file services, slot 2
VV_WEAK void xhterm(void* gcb);
VV_WEAK void* xxinit();         // host services, slot 8
VV_WEAK void xxterm(void* gcb);
VV_WEAK void* wginit();         // code generator, slot 6
VV_WEAK void wgterm(void* gcb);
VV_WEAK void* xfinit();         // function library, slot 9
VV_WEAK void xfterm(void* gcb);
// Drops the function library's loaded modules for a thread (slots 9, 10).
VV_WEAK rctype yfdel(int which, void* xfgcb, void* xfload);
VV_WEAK rctype hsnlsinit();     // national language layer
VV_WEAK rctype hsnlsterm();
// The message layer (ssup/xp.h), reached the same way so that the control
// blocks do not drag the printer into every program that allocates memory.
VV_WEAK void* xpinit();         // slot 1
VV_WEAK void xpterm(void* gcb);
VV_WEAK void* xkinit();         // slot 3
VV_WEAK void xkterm(void* gcb);
VV_WEAK rctype xrmksub(int count, ...);

#undef VV_WEAK

}  // namespace vrta
