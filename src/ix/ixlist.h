// Row lists: the answer of an index, a chain of segments in rising order of
// base, each one a bitmap of the segment's rows. A segment may stay in its
// stored form in the index file until an operation or a read needs its
// bits, so that a list of many segments costs little until it is used.
//
// Results: 0, 1 for a bad argument (or, for ixrtrve, the end of the list),
// and the index layer's negative codes when a stored segment can't be read.
#pragma once
#include <cstdint>

#include "ix/bm.h"

namespace vrta {

// Comparisons of a condition on a key.
enum ix_compare_t : int { IX_EQ = 0, IX_NE = 1, IX_GT = 2, IX_GE = 3, IX_LT = 4, IX_LE = 5 };
// List operations.
enum ix_listop_t : int { IX_AND = 0, IX_OR = 1, IX_XOR = 2, IX_NOT = 3 };

// The read cursor: the segment, the word in it (for a segment kept as a
// list of rows, the place in that list) and the bit of the word.
struct IX_BSEG_SEEK_T {
    IX_BITMAP_SEGMENT_R* cur_seg;  // the list's head before the first read, null at the end
    int64_t word_offset;
    uint32_t mask;
};

struct IX_LISTPV_T {
    IX_BSEG_SEEK_T seek;
    IX_BITMAP_SEGMENT_R head;  // dummy: head.next is the first segment
    DA_IDX* iid;               // the file the stored segments are in, null for none
    int64_t segsize;           // -1 until known
};
using ix_list_t = IX_LISTPV_T;

// Life of a list. ixgetl: 1 without memory.
rctype ixgetl(ix_list_t** list);
void ixfreel(ix_list_t* list);
// Drops every segment; the list keeps its segment size and file.
void ixclearl(ix_list_t* list);
// A copy of from in to (whose segments are dropped first); stored segments stay stored.
rctype ixcopyl(ix_list_t* from, ix_list_t* to);
// 1 when the list has a segment.
int ixhasl(const ix_list_t* list);
// Ties a list to the file of its stored segments and their size.
void ixbindl(ix_list_t* list, DA_IDX* iid, int64_t segsize);
// A segment in its stored form, taken as it is (the list must have no
// segment at its base). 1 for a base that isn't the first row of a segment.
rctype ixaddseg(ix_list_t* list, const IX_BITMAP_SEGMENT_D& disk);
// ORs a stored segment (in the list's file) into the list: taken as it is
// when the list has none at its base, else read and folded in by words.
rctype ixorseg(ix_list_t* list, const IX_BITMAP_SEGMENT_D& disk);

// Puts a row into a list; 1 for a row below 1 or a list of another segment size.
rctype ixadnum(ix_list_t* list, hs_obsno_t obs_no, int64_t seg_size);
// r = a op b, for IX_AND, IX_OR, IX_XOR; r may be a or b.
rctype ixop(ix_list_t* a, ix_list_t* b, ix_list_t* r, int op);
// r = NOT a within each segment of a, or (a has none) within segment segno;
// rows past numobs are never set.
rctype ixunary(ix_list_t* a, ix_list_t* r, int op, int64_t segno, int64_t segsize, hs_obsno_t numobs);
// Keeps the rows first..last only.
rctype ixcutl(ix_list_t* list, hs_obsno_t first, hs_obsno_t last);
// Clears the rows past numobs.
rctype ixmaskl(ix_list_t* list, hs_obsno_t numobs);

// Reading back: up to *n rows in rising order from the cursor into obs_no;
// *n gets how many. 0 while rows remain, 1 when the list is read to its end.
void ixrwndl(ix_list_t* list);
rctype ixrtrve(ix_list_t* list, hs_obsno_t* obs_no, int64_t* n);
rctype ixcntl(ix_list_t* list, int64_t* count);

}  // namespace vrta
