// Control blocks: the table of per-layer blocks (VVGCB), its per-thread copy
// (VVLCB), threads that carry such a copy, and per-thread exit handlers.
#pragma once
#include <cstdint>
#include "ssup/thr.h"
#include "ssup/vrtadef.h"
#include "ssup/xm.h"

namespace vrta {

constexpr int VV_NSLOTS = 14;

// Slots of the table.
constexpr int VV_SLOT_XM = 0;      // memory manager (per thread only)
constexpr int VV_SLOT_XP = 1;      // message and print layer
constexpr int VV_SLOT_XH = 2;      // host file services
constexpr int VV_SLOT_XK = 3;      // message file block
constexpr int VV_SLOT_WG = 6;      // code generator
constexpr int VV_SLOT_XX = 8;      // host services, second block
constexpr int VV_SLOT_XF = 9;      // function library
constexpr int VV_SLOT_XFLOAD = 10; // function library load block
constexpr int VV_SLOT_FNZ = 12;    // per-thread functions work block

// lcbflag bits of vvcthrl.
constexpr int VV_LCB_XM = 0x1;
constexpr int VV_LCB_XP = 0x2;
constexpr int VV_LCB_XH = 0x4;
constexpr int VV_LCB_SHAREPOOL = 0x10;
constexpr int VV_LCB_XX = 0x80;
constexpr int VV_LCB_INHXH = 0x40000;
constexpr int VV_LCB_INHXX = 0x800000;

constexpr rctype VV_RC_NOMEM = static_cast<rctype>(0x80010003u);     // no storage
constexpr rctype VV_RC_INTERNAL = static_cast<rctype>(0x80010005u);  // thread key or start-up failure

// The global table; the host shares it with us by copying these 128 bytes.
struct VVGCB {
    char eye[4];                  // "VGCB"
    uint32_t pad;
    void* gcb[VV_NSLOTS];
    thread_key_t lcbkey;          // 0: no key was ever made
    uint32_t pad2;
};
static_assert(sizeof(VVGCB) == 128);
static_assert(offsetof(VVGCB, gcb) == 8);
static_assert(offsetof(VVGCB, lcbkey) == 120);

constexpr int VV_XMAX = 10;
struct VV_XENT {
    void (*exitfp)(void*);
    void* exitap;
};
// A thread's exit handlers, run in the order of registration at its end.
struct VV_XVEC {
    int exiting;
    int used;
    VV_XENT ent[VV_XMAX];
};
static_assert(sizeof(VV_XVEC) == 168);

// Removes every entry with this function and argument, keeping the order.
inline void vvxvremove(VV_XVEC* x, void (*exitfp)(void*), void* exitap) {
    int n = 0;
    for (int i = 0; i < x->used; i++)
        if (x->ent[i].exitfp != exitfp || x->ent[i].exitap != exitap) x->ent[n++] = x->ent[i];
    for (int i = n; i < x->used; i++) x->ent[i] = VV_XENT{};
    x->used = n;
}

// One per thread made by vvcthrl. The first fields have the shape of VVGCB,
// so a pointer to it may be read as a table.
struct VVLCB {
    char eye[4];                  // "VLCB"
    uint32_t pad;
    void* gcb[VV_NSLOTS];
    thread_key_t lcbkey;
    uint32_t pad2;
    void* thrarg;
    void* (*rtn)(void*);
    xmpid pool;                   // what pool id -1 resolves to in this thread
    int lcbflag;
    VV_XVEC* xvec;                // made on first vvaexit
    char usertok[28];             // PSTOKEN
    char plainuser[8];            // blank padded, not terminated
    char plaingroup[8];
    char fmtdomain[33];
    sema_t* thr_init_done;        // on the creator's stack while it waits
    mutex_t lcb_lock;             // held by the creator while the thread starts
    int thr_init_status;
    int lcbmade;                  // lcbflag bits whose block this thread's start made
};
static_assert(offsetof(VVLCB, gcb) == offsetof(VVGCB, gcb));
static_assert(offsetof(VVLCB, lcbkey) == offsetof(VVGCB, lcbkey));

// The process's table.
VVGCB* vvgcbp();

void* vvgvgcb(int which);
void vvsvgcb(int which, void* gcbptr);
void* vvgvlcb(int which);
void vvsvlcb(int which, void* gcbptr);
// The calling thread's block, or null.
VVLCB* vvlcb();

void vvimport(const void* arg);
int vvinit();
int vvterm();

[[nodiscard]] rctype vvcthrl(void* stack, size_t size, void* (*rtn)(void*), void* arg, long flags, thread_t* thrid,
               int lcbflag);
[[nodiscard]] rctype vvthrlexit(void* status);
// The key's destructor: runs the exit handlers and frees what the thread start made.
void vvstlcb(void* lcb);
[[nodiscard]] rctype vvaexit(void (*exitfp)(void*), void* exitap);
[[nodiscard]] rctype vvuexit(void (*exitfp)(void*), void* exitap);

void vvsetuser(const char* plainuser, const char* plaingroup, const void* usertok);
void vvgetuser(char** plainuser, char** plaingroup, char** usertok);
char* vvtokptr();
char* vvunamptr();
void vvsetfmt(const char* fmtdomain, int fmtlen);
char* vvgetfmt();

}  // namespace vrta
