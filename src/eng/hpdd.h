// Members of a domain by name: the list of its tables, read in pieces.
#pragma once
#include "eng/hpd.h"

namespace vrta {

constexpr rctype HPD_RC_EOF = 518;  // no more members

// A member list being read.
struct HPDDIR {
    HPDLIB* lib;
    int id;      // the server's number for the list
    int eof;     // the server has no more
    int count;   // pairs in hand
    int pos;     // next pair to hand out
    char pairs[64 * 40];  // name (32) and type (8), blank-padded
};

}  // namespace vrta

extern "C" {
// Opens the list of the domain's members: *dirp for hpddrd and hpdcls.
rctype hpddopn(void* engid, vrta::yhlibref* libref, void** dirp);
// The next member: its name (room 33, terminated), length and type (8
// bytes); 518 after the last.
rctype hpddrd(void* dirp, char* name, int* namel, char* type);
rctype hpdcls(void* dirp);
}
