// Between wgbind and the back end: what the check of the whole stream found,
// and the entry points of code generation.
#pragma once
#include "ssup/vgint.h"

namespace vrta {

struct VGCOUNTS {
    unsigned long* labels;  // label ids, sorted
    long nlabels;
    long nrels;             // room for branch records
    long nlabdata;          // labels whose address is taken
    long nlits;             // literal pool entries
    long nstmt;
    long ninst;
    unsigned char* lits;    // the literal pool
};

// How an instruction uses its r, a and b fields.
constexpr int VGU_NONE = 0, VGU_READ = 1, VGU_WRITE = 2, VGU_LABEL = 4, VGU_IMM = 8;
void vgopuse(const PINST* p, int use[3]);

// Writes the code between s->stcode and limit; a failure leaves by
// err_jbuf (1: the substitution says what, 2: no memory).
void vggenerate(VGSEGHD* s, VGCOUNTS* cnt, unsigned char* limit);
// Frees what generation needed, also after a failure.
void vggenend(VGSEGHD* s);

}  // namespace vrta
