// Column descriptions between their wire form and the host's, and the
// scrambling of a table password for the wire.
#include <algorithm>
#include <cstring>

#include "eng/hpdmsg.h"
#include "eng/hpdo.h"

namespace vrta {

namespace {

int trimmed(const char* p, int n) {
    while (n > 0 && (p[n - 1] == ' ' || p[n - 1] == 0)) --n;
    return n;
}

// The password table: a fixed key the two ends share. XOR and a turn by
// the byte's place, so that equal bytes of a password do not look alike.
constexpr unsigned char PWKEY[12] = {0x5a, 0xc3, 0x17, 0x8e, 0x21, 0xf4, 0x6b, 0x90, 0x3d, 0xa8, 0x0f, 0xe6};

unsigned char rotl(unsigned char b, int n) { return static_cast<unsigned char>((b << n) | (b >> (8 - n))); }

}  // namespace

void nettokor(const DS_NAMESTR_V8* np, NAMESTR* nm, char* v, char* l) {
    std::memset(nm, 0, sizeof *nm);
    int slot = np->nvar0 - 1;  // the caller has checked the column's number
    char* name = v + 32 * slot;
    int nl = trimmed(np->nname, 32);
    std::memcpy(name, np->nname, nl);
    nm->name = name;
    nm->namel = nl;
    char* label = l + 256 * slot;
    int ll = std::clamp(np->nlabell, 0, 256);
    if (ll > 0) std::memcpy(label, np->nlabel, ll);
    nm->label = label;
    nm->labell = ll;
    nm->ntype = static_cast<int8_t>(np->ntype);
    nm->nindex = static_cast<int8_t>(np->nindex);
    nm->nsort = static_cast<int8_t>(np->nsort);
    nm->nfj = static_cast<int8_t>(np->nfj);
    nm->nsubtype = static_cast<int8_t>(np->nsubtype);
    nm->npkey = static_cast<int8_t>(np->npkey);
    nm->nfkey = static_cast<int8_t>(np->nfkey);
    nm->flags = np->flags;
    nm->npos = np->npos;
    nm->nlng = np->nlng;
    nm->nvar0 = np->nvar0;
    std::memcpy(nm->nform, np->nform, 32);
    std::memcpy(nm->niform, np->niform, 32);
    nm->nfl = np->nfl;
    nm->nfd = np->nfd;
    nm->nifl = np->nifl;
    nm->nifd = np->nifd;
    nm->vrtaflag = np->spare1;
}

void kortonet(const NAMESTR* nm, DS_NAMESTR_V8* np) {
    std::memset(np, 0, sizeof *np);
    std::memset(np->name, ' ', sizeof np->name);
    std::memset(np->nname, ' ', sizeof np->nname);
    std::memcpy(np->nname, nm->name, std::clamp(nm->namel, 0, 32));
    np->ntype = static_cast<char>(nm->ntype);
    np->nsubtype = static_cast<char>(nm->nsubtype);
    np->nindex = static_cast<char>(nm->nindex);
    np->npkey = static_cast<char>(nm->npkey);
    np->nfkey = static_cast<char>(nm->nfkey);
    np->nsort = static_cast<char>(nm->nsort);
    np->nfj = static_cast<char>(nm->nfj);
    np->nlabel = nm->labell > 0 ? nm->label : "";
    np->nlabell = std::max(nm->labell, 0);
    np->flags = nm->flags;
    np->npos = nm->npos;
    np->nlng = static_cast<int16_t>(nm->nlng);
    np->nvar0 = nm->nvar0;
    std::memcpy(np->nform, nm->nform, 32);
    std::memcpy(np->niform, nm->niform, 32);
    np->nfl = nm->nfl;
    np->nfd = nm->nfd;
    np->nifl = nm->nifl;
    np->nifd = nm->nifd;
    np->spare1 = nm->vrtaflag;
}

void yhpwcrp(const char in[12], unsigned char out[12]) {
    for (int i = 0; i < 12; ++i) out[i] = rotl(static_cast<unsigned char>(in[i]) ^ PWKEY[i], 1 + i % 7);
}

void yhpwdcr(const unsigned char in[12], char out[12]) {
    for (int i = 0; i < 12; ++i) out[i] = static_cast<char>(rotl(in[i], 8 - (1 + i % 7)) ^ PWKEY[i]);
}

}  // namespace vrta
