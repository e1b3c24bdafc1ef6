// Evaluation of WHERE trees and planning: what scans, cursors and the
// group-by scan call.
#pragma once
#include <cstdint>
#include <cstdio>

#include "wh/wh.h"

namespace vrta {

// ---------------------------------------------------------------- plan flags
constexpr int WHF_EVAL1 = 0x0001;
constexpr int WHF_EVAL2 = 0x0002;
constexpr int WHF_EVAL3 = 0x0004;
constexpr int WHF_EVAL4 = 0x0008;
constexpr int WHF_PLANNED = 0x0020;
constexpr int WHF_SEGLIST = 0x0040;
constexpr int WHF_TRUE = 0x0100;
constexpr int WHF_FALSE = 0x0200;
constexpr int WHF_NONE = 0x1000;
constexpr int WHF_SOME = 0x2000;
constexpr int WHF_ALL = 0x4000;
constexpr int WHF_EVAL5 = 0x8000;

// iflags, the caller's request word.
constexpr int WHI_NOINDEX = 0x01;
constexpr int WHI_SEQ = 0x02;
constexpr int WHI_COSTING = 0x08;
constexpr int WHI_RENDER = 0x10;
constexpr int WHI_NOCOST = 0x20;

// whevalprep flags.
constexpr int WHP_COPY = 0x2000;
constexpr int WHP_JOIN = 0x0800;

// A failed pattern match of the locale library's entry.
constexpr rctype WH_RC_LIKEFAIL = static_cast<rctype>(0x80000420u);

// ---------------------------------------------------------------- evaluation
// Evaluates tree on the row at rec (null for a tree of literals). *resp is 1
// for true. result, when not null, receives the value: code 2 with nleaf.nbr,
// or code 3 with cleaf.c and cleaf.leng (short copied text in cleaf.string).
rctype wheval(wh_env_t* whenv, SQLOP* tree, const char* rec, SQLOP* result, int kor_clause, int* resp);
// wheval on nrows rows of rowlen bytes, each row's truth into match[i].
// Compares of columns with literals run over many rows at once; every node
// still sees the rows, and only the rows, that a row-at-a-time evaluation
// would show it.
rctype whevalrows(wh_env_t* whenv, SQLOP* tree, const char* rows, long nrows, int rowlen, int kor_clause,
                  uint8_t* match);
// The row test of a plan: true with no tree.
rctype wheval2(WH_HANDLE* wh, const char* rec, int* resp);
// Compare outcome of two literal results: 1 less, 2 equal, 4 greater; ctype 1
// cuts strings to the shorter length.
int whecmp(wh_env_t* whenv, const SQLOP* temp1, const SQLOP* temp2, int ctype);
// The tree one evaluation thread may use: with WHP_COPY a private copy when
// the tree keeps scratch in its nodes, with WHP_JOIN the INDEX tree joined in.
rctype whevalprep(WH_HANDLE* wh, SQLOP** tree_handle, int flags);
rctype whevalterm(SQLOP** tree_handle, int termflags);
// A private copy of tree (scratch not shared) for a thread of its own.
rctype whtreecopy(const SQLOP* tree, SQLOP** copy);

// Pattern match; action 0 compile and free, 1 keep the compiled pattern in
// *pfirst, 2 recompile, 3 only free. 1 match, 0 none.
int whlike(const char* string, int lens, const char* pattern, int lenp, int action, void** pfirst, int is_like);
void whlikefree(void** pfirst);
// Zero-based place of str2 in str1, or -1. A length of 0 is empty, below 0 strlen.
long strndx(const char* str1, long len1, const char* str2, long len2);
// Sound code of in: at most len characters into out; returns its length.
int whsoundx(const char* in, int len, char* out);
// Whether the first four bytes of the two sound codes agree.
bool whsndx(const char* a, int la, const char* b, int lb);

// ---------------------------------------------------------------- planning
struct DA_NAMESTR;
// Plans clause (a wire form, or null when the table has a stored clause) for
// the table fid. *maxthreadsp is lowered to what is worthwhile. *wh_handle may
// hold the previous handle: it is always released.
rctype whinit(HS_NLSENV* targenv, const void* clause, DA_FID* fid, int iflags, int* maxthreadsp, int* call_flags,
              FILE* fp, int exidxcnt, void* exidxarr, void* gcb_handle, void* gshandle, WH_HANDLE** wh_handle);
rctype whterm(WH_HANDLE* handle);
rctype whsyncx(WH_HANDLE* wh_handle, int idxcnt, const void* idxarr);
rctype whgetseglist(WH_HANDLE* handle, void** list);
// Whether "column code valu" is decided by the column's stored min and max
// (valu a literal, or for IN a set): 0x100 always true, 0x200 always false,
// 0 undecided.
int whevalminmax(wh_env_t* env, int code, SQLOP* valu, const DA_NAMESTR* v);
// Checks a function call against the library and fills its FUNC leaf.
rctype wh_asgn_func(WH_HANDLE* wh, SQLOP* flst);
// The words of the plan flags as whinit traces them, into buf.
void whflagwords(int flags, char* buf, int buflen);

// Bytes of a wire form as its first word gives them, or -1.
long whwirelen(const void* wire);

}  // namespace vrta
