// Index planning inside whinit: which nodes of a clause an index of the
// table can answer, the split of the tree into an INDEX tree and a row
// test, pruning by the indexes' stored minimum and maximum, and the choice
// among the evaluation methods.
#pragma once
#include <cstdint>
#include <vector>

#include "ix/ixfe.h"
#include "ix/ixlist.h"
#include "wh/wh.h"

namespace vrta {

// One compare of a value against [min, max]: 0x100 always true, 0x200 always
// false, 0 undecided.
int whminmaxcmp(wh_env_t* env, int code, const SQLOP* val, const SQLOP* mn, const SQLOP* mx);

// Labels the tree: each node's idx.status, ntype and chosen index. *iflags
// may change (a packed set turns costing on and sequential plans off).
rctype chk4indexes(WH_HANDLE* wh, SQLOP* tree, int* iflags);
// Cuts *tree by status: what the indexes answer goes to *xtree.
rctype treesplit(WH_HANDLE* wh, SQLOP** tree, SQLOP** xtree);
// Drops index nodes decided by the indexes' stored minimum and maximum;
// *result 256 when the INDEX tree is always true, 512 always false, else 0.
rctype prune_xtree(WH_HANDLE* wh, SQLOP** xtree, int* result);
// analyze_indexes, near-unique pruning and the plan: sets WHF_EVAL1/3/4,
// WHF_SEGLIST and WHF_PLANNED in wh->call_flags.
rctype wh_plan_indextree(WH_HANDLE* wh, int* iflags, void* gshandle);
// Child arg of the INDEX tree (-1: all of it) moved to the row test.
rctype move_indexnode(WH_HANDLE* wh, int arg);
// Removes null slots of a node's children.
void shiftnodeargs(SQLOP* n);
// The indexes the leaves of an INDEX tree use, "A, B (2 columns)", into buf.
int whindexnames(const SQLOP* xtree, char* buf, int buflen);
// Opens the index of each leaf of the INDEX tree that has one; an index that
// cannot be opened leaves its leaf without (all its segments).
rctype openindexes(WH_HANDLE* wh);
// The segments that can hold a match of the INDEX tree, into wh->seglist
// (null: all of them); with costing each node's estimate of rows as well.
rctype gatherseglists(WH_HANDLE* wh, bool costing);
// Costing of an INDEX tree over the table's segments: threads cut to the
// work, index nodes that would not skip reading moved to the row test.
rctype wh_cost_indextree(WH_HANDLE* wh, int iflags, int* maxthreadsp);
// The distinct values an index holds, as its record says.
int64_t whnumvals(const da_keystr_t* k);
void whfreeseglist(WH_HANDLE* wh);
// The segment numbers (from 0) of wh->seglist, rising.
rctype whsegments(WH_HANDLE* wh, std::vector<int64_t>* segs);
// Row numbers of the eval3 node's keys through the index's global scan, up
// to *obs_count of them (in: room); fewer than asked means the node is done.
// With rewind_flag the node's first key starts again. bounds keeps rows.
rctype wheval3(WH_HANDLE* wh, int rewind_flag, hs_obsno_t* obs_ptr, const IX_BOUNDS_T* bounds, int64_t* obs_count);
// The rows of the whole INDEX tree as one list, rewound.
rctype wheval4(WH_HANDLE* wh, ix_list_t** obs_list);
// Whether every leaf of the INDEX tree can give its rows by key ranges.
rctype whprobesok(WH_HANDLE* wh, bool* ok);
// whsyncx's work: the plan's open indexes take in what another opener added.
rctype whsyncleaves(WH_HANDLE* wh, int idxcnt, const void* idxarr);
void whfreeev3(WH_HANDLE* wh);
// The indexes planning left out because they need a rebuild, "A, B".
int whskippedindexes(const WH_HANDLE* wh, char* buf, int buflen);
// The index records read for planning, freed with the handle.
void whixmeta_free(WH_HANDLE* wh);

// Statistics of planning: nodes moved to the row test.
extern long nunique_pruning;
extern long cost_pruning;

}  // namespace vrta
