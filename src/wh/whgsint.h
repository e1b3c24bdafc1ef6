// What the files of the group-by scan share among themselves.
#pragma once
#include "hs/sr.h"
#include "wh/whgs.h"

namespace vrta {

// The node head in front of every tree row: key, then data.
constexpr int WHGS_NODE = static_cast<int>(sizeof(zavlS));
constexpr long WHGS_FIRSTBLOCK = 0x10000;
constexpr long WHGS_OUTBUF = 0x10000;
// A block's own head: its WHGS_ZTALLOC, in front of the nodes.
constexpr long WHGS_ZTHDR = (sizeof(WHGS_ZTALLOC) + 7) & ~7L;
constexpr double WHGS_SQRTMAX = 1.3407807929943e+154;
constexpr double WHGS_LOGMAX = 709.78271289338;

// One bin of the merge. The sorter's run record comes first: the merge walks
// the list through it and hands it back to whgsreadbin.
struct WHGS_BIN {
    SR_BIN run;
    WHGS_PTHREAD* thr_handle;
    int64_t startfpos;
    bool is_zavl_bin;
    long currow;
    long lastrow;
    char* inbuf;
    long maxinbufrows;
    long curinbufrow;
    WHGS_BIN* next;
    zavlS* node;                 // a tree bin: the next node
    char* outrec;                // the row handed out, key restored
};

rctype whgsztpoolinit(WHGS_HANDLE* gsh);
void* whgsztpoolget(WHGS_ZTPOOL* ztpool, WHGS_PTHREAD* thr, long size);
void whgsztpoolr(WHGS_ZTPOOL* ztpool, WHGS_PTHREAD* thr);
void whgsztpoolterm(WHGS_HANDLE* gsh);
rctype whgsflush(WHGS_HANDLE* gsh, WHGS_PTHREAD* thr);
rctype whgsbldkey(WHGS_HANDLE* gsh, bool grpby, const WHGS_KEYDESC* keydescp, int ndesc, const char* data,
                  int buf_len, char* key_buf);
void whgs_revwords(char* key, int len);
void whgs_do_minmax(WHGS_HANDLE* gsh, WHGS_COL* col, const char* srcp, int srclen, char* dstp, bool is_new_dst);
// The merge, the finishing of groups and the metascan's answer.
rctype whgsmerge(rctype (*fetch)(char**, long*, void*), void* data, WHGS_HANDLE* gsh);
rctype whgsdometascan(WHGS_HANDLE* gsh);
void whgs_setthread(WHGS_PTHREAD* thr);
bool whgs_blank(WHGS_HANDLE* gsh, const char* s, int len);
// A number of len bytes at p as a double.
double whgs_num(const char* p, int len);
// A double stored in len bytes (its high bytes).
void whgs_putnum(char* p, int len, double v);
void whgs_prepmetascan(WHGS_HANDLE* gsh, int gsflags);
void whgs_freeidxscan(WHGS_IDXSCAN* s);
// An integer option, or dflt when unset.
long whgs_optlong(const char* name, long dflt);

}  // namespace vrta
