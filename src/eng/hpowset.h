// The writer of a WHERE tree's wire form: the byte string that hpowset
// sends as `where` of DS_YOEWSET, and that the direct path reads back.
#pragma once
#include "ssup/vrtadef.h"
#include "ssup/xm.h"
#include "wh/wh.h"

namespace vrta {

// A link of the chain the bytes are built in. A link holds 500 bytes, or one
// piece larger than that alone.
constexpr int XOW_LINKBYTES = 500;
struct XOWBUFR {
    XOWBUFR* next;
    int len;
    char buf[XOW_LINKBYTES];
};
static_assert(sizeof(XOWBUFR) == 512);

// Serialises tree into a chain from pool: 0, 0x80010003 out of memory, or
// 0x8001000f for a node code that has no wire form. On failure nothing is
// left allocated.
rctype xowtput(const XOWOP* tree, xmpid pool, XOWBUFR** out);
// A place for n bytes at the end of the chain whose last link is *cur.
char* put_buf(xmpid pool, XOWBUFR** cur, int n);
// Operand i of a node, through its overflow nodes past the 13th.
const XOWOP* xowgetf(const XOWOP* node, int i);
// The 8-byte name without its trailing blanks into out (9 bytes); its length.
int get_char8z(const char* name8, char* out);
// The engine's two host tags, 8 characters each.
void ozinf(char tag1[8], char tag2[8]);

// Total bytes of a chain, and the chain copied into one block of that size.
long xowlen(const XOWBUFR* chain);
void xowcopy(const XOWBUFR* chain, void* dest);
void xowfree(xmpid pool, XOWBUFR* chain);

}  // namespace vrta
