// Memory pools: the allocator every layer of the module draws from.
#pragma once
#include <cstddef>
#include "ssup/vrtadef.h"

namespace vrta {

struct XMPOOL;
struct XMGCB;

// A pool id is a pool record, or one of the special values below.
using xmpid = XMPOOL*;
inline xmpid const XM_NOPOOL = nullptr;                          // allocation gives null
inline xmpid const XM_THREADPOOL = reinterpret_cast<xmpid>(-1);  // the thread's pool, else the default pool
inline xmpid const XM_SUPVPOOL = reinterpret_cast<xmpid>(-2);    // the supervisor pool

// Allocation flags.
constexpr int XM_ZERO = 0x4;       // zero the returned memory
constexpr int XM_NOMOVE = 0x8;     // xmrealc must not move the block
constexpr int XM_HEADER = 0x20;    // 8-byte length header in front of the block
constexpr int XM_STACK = 0x200;    // xmpoolc: a stack pool
constexpr int XM_HIMEM = 0x1000;   // puddles from hshimalloc
constexpr int XM_CODEGEN = 0x2000; // puddles from hscgmalloc (executable)

// The mark of an empty allocation: xmalloc of length 0.
inline void* const XM_EMPTY = reinterpret_cast<void*>(1);

constexpr rctype XM_RC_NOSTORAGE = static_cast<rctype>(0x80040001u);
constexpr rctype XM_RC_BADPOOL = static_cast<rctype>(0x80040002u);

XMGCB* xminit();
void xmterm(XMGCB* gcb);
[[nodiscard]] rctype xmemsize(unsigned long memsize);
void* xmalloc(xmpid pid, long len, int flags);
void xmfree(xmpid pid, void* addr, long len);
void* xmrealc(xmpid pid, void* oaddr, long olen, long nlen, int flags);
void* xmemex(long len);
xmpid xmpoolc(long isa, long osa, int flags);
void xmpoold(xmpid pid);
[[nodiscard]] rctype xmpoolr(xmpid pid);
[[nodiscard]] rctype xmpcfxd(xmpid* pid, long size, long n_isa, long n_osa, int flags, int tid);
xmpid vvxmpid();

}  // namespace vrta
