// The row pointer cursor of the direct access API: rows by number, in the
// order an index or a WHERE clause gives them.
#pragma once
#include <cstddef>
#include <cstdint>

#include "directapi/sp.h"

namespace vrta {

// The rows a cursor may deliver, from and to a row number.
struct SP_BOUNDS {
    int64_t lo, hi;
};

struct SP_PNT {
    SP_FID* spfid;
    DA_IOCB* iocb;
    void* spix;          // the index it follows, when one is set
    long bufsize;
    long numobs;         // row numbers in obsvec
    int64_t* obsvec;     // row numbers wanted
    int64_t* ordvec;     // the same in the order they are read
    int64_t* rowvec;     // numbers of the rows read, when the table has deleted rows
    long obsperbuf;
    long iobufsize;
    DA_IOB iobvec;       // the cursor's buffer
    char* rows;          // iobufsize bytes
    SP_BOUNDS* bp;       // null: every row
    SP_BOUNDS bounds;
    int eof;
};

// Makes a cursor of strsize bytes (a larger record may begin with SP_PNT),
// its vectors and row buffer in one allocation.
[[nodiscard]] rctype sp_initpnt(size_t strsize, void* vfid, long bufsize, int64_t startobs, int64_t endobs, void** newpnt);

}  // namespace vrta
