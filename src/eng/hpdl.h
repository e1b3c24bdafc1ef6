// Domain assign and deassign: the engine's list of domains and the calls
// the engine vector reaches for them.
#pragma once
#include "eng/hpd.h"
#include "eng/hpdopt.h"

namespace vrta {

constexpr rctype HPD_RC_NONAME = static_cast<rctype>(0x80040012u);  // neither a name nor options
constexpr rctype HPD_RC_NOALIAS = 0x00040013;                        // alias target not assigned

// Domain information for the host: name and value pairs.
struct W_INFPAIR {
    char name[32];
    char value[256];
};
struct W_INFSTR {
    int count;
    W_INFPAIR pair[9];
};

// The domain of an exact 8-byte libref in a list, or null.
HPDLIB* hpzlib(HPDLIB* head, const char* name8);
// Opens the domain's own socket at port s of its server.
rctype hpolsrv(hpdlib lib, int s);
// Frees a domain and all it owns; unlinks it from its engine's list.
void hpdlfree(hpdlib lib);
// The directory of member memname below the domain x: its path and a "/".
rctype hpldir(const HPDLIB* x, const char* memname, int meml, char* out, int cap, int* outl);

}  // namespace vrta

extern "C" {
rctype hpdlasg(void* engid, vrta::yhlibref* name, char* eng_name, void** phs_name, int* sz, void* eng_opts,
               int* format, XHEATTR** libattr, void** usertokp, int* flagsp);
rctype hpdldas(void* engid, vrta::yhlibref* name);
rctype hpdlins(void* engid, vrta::yhlibref* name, vrta::W_INFSTR** info);
rctype hpdlinr(vrta::W_INFSTR* info);
// A directory assigned on the connection of the domain libx: hpdlasgn the
// member directory memname below it (its length plus one in *sz), hpllasg a
// path as it stands. *libp receives the new domain; hpdldas gives it back.
rctype hpdlasgn(void* libx, char* name, char* memname, void** phs_name, int* sz, int create, void** libp);
rctype hpllasg(void* libx, char* name, void* phs_name, int sz, int create, void** libp);
}
