// The row pointer cursor of the direct access API: rows by number, in the
// order an index or a WHERE clause gives them.
#pragma once
#include <cstddef>
#include <cstdint>

#include "directapi/sp.h"
#include "ix/ixfe.h"

namespace vrta {

// An index opened through the API.
struct SP_INDEX {
    SP_FID* spfid;
    IX_INDEX_T* ixfp;
    u_sname ixname;
};

struct SP_PNT {
    SP_FID* spfid;
    DA_IOCB* iocb;
    SP_INDEX* spix;      // the index it follows, once set
    long bufsize;
    long numobs;         // row numbers in obsvec
    int64_t* obsvec;     // row numbers wanted; after a read, those delivered
    int64_t* ordvec;     // the same in the order they are read
    int64_t* rowvec;     // numbers of the rows read, when the table has deleted rows
    long obsperbuf;
    long iobufsize;
    DA_IOB iobvec;       // the cursor's buffer
    char* rows;          // iobufsize bytes
    IX_BOUNDS_T* bp;     // null: every row
    IX_BOUNDS_T bounds;
    int eof;
    ix_list_t* list;     // spptgetlist's rows
    int64_t markobs;     // spptmark: rows are passed over until this one; 0 once found
    int64_t nrows, nasked, ndropped;
};

// Makes a cursor of strsize bytes (a larger record may begin with SP_PNT),
// its vectors and row buffer in one allocation.
[[nodiscard]] rctype sp_initpnt(size_t strsize, void* vfid, long bufsize, int64_t startobs, int64_t endobs, void** newpnt);

// The rows of the nobs numbers in obsvec into obsbuf, in obsvec's order,
// deleted ones passed over; obsvec then holds the numbers of the rows
// delivered and *numobs their count.
[[nodiscard]] rctype sp_readobs(SP_PNT* pnt, long nobs, char* obsbuf, long* numobs);

}  // namespace vrta
