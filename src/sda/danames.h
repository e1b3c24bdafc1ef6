// Names of a table's files: logical file names, physical partition names and
// the names the storage layer makes up for nameless tables, utility and work
// files.
#pragma once

#include <cstdint>
#include <ctime>
#include <sys/types.h>

#include "ssup/vrtadef.h"

namespace vrta {

// Logical file name of a member: the name folded to lower case, a point, and
// the extension of kind (DA_NTDSMDF .. DA_NTDSCDF, 0..6); kinds 2, 3 and 5
// append suffix (the index name), kind 4 uses suffix as the extension.
// fileName needs dsnlen + sfxlen + 6 bytes. Negative lengths mean strlen.
// Returns the length of the name, or -1 for an unknown kind.
int dadsnam(int kind, const char* dsname, int dsnlen, const char* suffix, int sfxlen, char* fileName);

// FD flags that change partition names.
constexpr int DA_PFNOLDFMT = 0x10000;  // suffix "vrta"
constexpr int DA_PFNOWNFIB = 0x400;    // partition 0 holds the FIB: fuid "0", revno 0

// Physical partition name "<basename>.<fuid>.<pno>.<revno>.vrta9". Returns the
// length, or -1 when it does not fit in size bytes.
int damkpfn(char* parfile, int flags, const char* basename, int revno, const char* fuid, int pno,
            int size = 1024);

// The parts of a partition name; pointers into the name that was parsed.
struct DA_PFNPARTS {
    const char* name;
    int name_l;
    const char* type;
    int type_l;
    const char* fuid;
    int fuid_l;
    int pno;
    int revno;
    const char* sfx;
    int sfx_l;
};
// Splits a partition name: two fields from the left, three from the right,
// fuid in between (it may hold points). 0, or -1 when fileName is no
// partition name; with chkext the suffix must be "vrta9".
int dafdpfn(const char* fileName, DA_PFNPARTS* parts, bool chkext);

// The same partition file name under another revision: fileName (a path or
// a bare name) with its revno field replaced. The length, or -1 when it is no
// partition name or out is too small.
int darevpfn(const char* fileName, int revno, char* out, int size);

// Metadata path id: the first metapath as one word, each component led by
// "_": "/data/meta/" gives "_data_meta", the root gives "". Returns the
// length, or -1 when it does not fit.
int dagmpid(const char* mdpath, int mdlen, char* fuid, int size = 1024);

// pid + low 32 bits of the thread id + time + seqno.
uint32_t dagfuid(uint32_t seqno);

// Name given to a table created without one (17 characters and a NUL):
// dagfuid printed "%8.8x" with "$" first ("#" eighth for a cluster), "_", pid.
void damkmdfn(int kind, uint32_t fuid, pid_t pid, char out[18]);
// Temporary utility file: "$" and 7 hexadecimal digits of seq.
void damkutln(uint32_t seq, char out[9]);
// Work file "vrta_%8.8X.%8.8X" (pid, time).
void damkwrkn(pid_t pid, uint32_t t, char out[23]);
// A work file name that does not exist yet in dir: the time is raised by one
// until the name is free. out gets the name only. 0, 0x80000220 for a
// small buffer, 0x8000021c when no name is free.
[[nodiscard]] rctype dafreewrk(const char* dir, pid_t pid, time_t now, char* out, int size);

}  // namespace vrta
