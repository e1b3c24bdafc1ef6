// Memory sources below the pools: high memory (anonymous maps or malloc, as
// the HIMEMENABLE option says) and executable memory for generated code.
#pragma once
#include <cstddef>

namespace vrta {

struct HSMEMGCB;

// Sets up the block once and returns it; stored in HS_GCB.hsmemgcb.
HSMEMGCB* hsmeminit();
void hsmemterm(void* vgcb);
// 0: plain malloc; 1: anonymous maps; 2: maps with a trace line per call.
int hshimemenabled();
void* hshimalloc(size_t msize);
void hshifree(void* maddr, size_t msize);
// Read and write, for code that is made read+execute once written (never
// both at once); *zeroed is set to 1 on success.
void* hscgmalloc(size_t size, int* zeroed);
void hscgfree(void* addr, size_t size);

}  // namespace vrta
