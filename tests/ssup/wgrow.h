// A row conversion shaped program, built the way a table's row conversion
// drives the code generator: one loop over the rows of a block, and for each
// column either a conversion (two address computations, two parameters and a
// TRANS_) or a move, with neighbouring moves merged. Shared by the tests and
// the benchmark.
#pragma once
#include <cstring>
#include <vector>
#include "ssup/wg.h"
#include "wgref.h"

namespace wgrow {

using namespace vrta;

struct Col {
    bool number;  // an 8-byte double of a big-endian IEEE host; else characters
    int pos;
    int len;
};

// ncols columns: about three in five numbers, the rest text of 4 to 16 bytes.
inline std::vector<Col> layout(int ncols, int* rowsize) {
    std::vector<Col> cols;
    int pos = 0;
    unsigned x = 12345;
    for (int i = 0; i < ncols; i++) {
        x = x * 1103515245 + 12345;
        bool number = (x >> 16) % 5 < 3;
        int len = number ? 8 : 4 + static_cast<int>((x >> 8) % 13);
        cols.push_back({number, pos, len});
        pos += len;
    }
    *rowsize = pos;
    return cols;
}

// The objects of the call block, in the order a conversion declares them.
struct Block {
    objloc basefrom, baseto, offfrom, offto, numobs, curobs, obssize, wglabel;
    objloc src, dst;  // field addresses
};

constexpr long FOREIGN = WG_FFOREIGN | WG_FBIG;

// Builds the program as instructions (for the interpreter and for wgemit).
inline std::vector<wgref::Inst> program(const std::vector<Col>& cols, const Block& b) {
    std::vector<wgref::Inst> code;
    auto e = [&](int op, int type, unsigned long mod, unsigned long a, unsigned long bb, unsigned long r) {
        code.push_back({op, type, mod, r, a, bb});
    };
    e(MOV_, WG_TPTR, WG_MIMMA, 0, 0, b.curobs);
    e(MOV_, WG_TPTR, WG_MIMMA, 0, 0, b.offfrom);
    e(MOV_, WG_TPTR, WG_MIMMA, 0, 0, b.offto);
    e(LABEL_, WG_TINT, 0, 0, 0, b.wglabel);
    auto addr = [&](objloc base, objloc off, long pos, objloc into) {
        e(ADDR_, WG_TCHAR, 0, base, off, into);
        e(ADDR_, WG_TCHAR, WG_MIMMB, into, static_cast<unsigned long>(pos), into);
    };
    for (size_t i = 0; i < cols.size(); i++) {
        const Col& c = cols[i];
        if (c.number) {
            addr(b.basefrom, b.offfrom, c.pos, b.src);
            addr(b.baseto, b.offto, c.pos, b.dst);
            e(IPARM_, WG_TINT, WG_MIMMA | WG_MIMMB, static_cast<unsigned long>(FOREIGN), 8, 0);
            e(IPARM_, WG_TINT, WG_MIMMA | WG_MIMMB, static_cast<unsigned long>(WG_FNATIVE), 8, 0);
            e(TRANS_, WG_TDBL, 0, b.src, 0, b.dst);
            continue;
        }
        // Text that stays as it is: one move for a run of neighbours.
        int len = c.len;
        while (i + 1 < cols.size() && !cols[i + 1].number) len += cols[++i].len;
        addr(b.basefrom, b.offfrom, c.pos, b.src);
        addr(b.baseto, b.offto, c.pos, b.dst);
        e(IPARM_, WG_TINT, WG_MIMMB, b.src, static_cast<unsigned long>(len), 0);
        e(IPARM_, WG_TINT, WG_MIMMB, b.dst, static_cast<unsigned long>(len), 0);
        e(MOVEGEN_, WG_TCHAR, 0, 0, 0, 0);
    }
    e(ADD_, WG_TPTR, 0, b.offfrom, b.obssize, b.offfrom);
    e(ADD_, WG_TPTR, 0, b.offto, b.obssize, b.offto);
    e(ADD_, WG_TPTR, WG_MIMMB, b.curobs, 1, b.curobs);
    e(BLT_, WG_TPTR, 0, b.curobs, b.numobs, b.wglabel);
    e(TERM_, WG_TINT, 0, 0, 0, b.curobs);
    return code;
}

// Declares the objects (all zero) and emits the program.
inline wrcode build(VGSEGHD* s, const std::vector<Col>& cols, Block* b, std::vector<wgref::Inst>* out) {
    objloc* o[] = {&b->basefrom, &b->baseto, &b->offfrom, &b->offto, &b->numobs, &b->curobs, &b->obssize, &b->wglabel, &b->src, &b->dst};
    for (objloc* p : o)
        if (wrcode rc = wgdfobj(s, nullptr, 0, p)) return rc;
    *out = program(cols, *b);
    for (const wgref::Inst& in : *out)
        if (wrcode rc = wgemit(s, in.op, in.type, in.mod, in.a, in.b, in.r)) return rc;
    if (wrcode rc = wgclose(s)) return rc;
    return wgbind(s);
}

// Rows of a block as a big-endian host sends them.
inline void fill(unsigned char* rows, long nrows, int rowsize, const std::vector<Col>& cols) {
    for (long r = 0; r < nrows; r++) {
        unsigned char* row = rows + r * rowsize;
        for (const Col& c : cols) {
            if (c.number) {
                double d = static_cast<double>(r) * 1.5 - c.pos;
                uint64_t u;
                memcpy(&u, &d, 8);
                for (int k = 0; k < 8; k++) row[c.pos + k] = static_cast<unsigned char>(u >> (56 - 8 * k));
            } else {
                for (int k = 0; k < c.len; k++) row[c.pos + k] = static_cast<unsigned char>('A' + (r + k + c.pos) % 26);
            }
        }
    }
}

// Sets the call block for one block of rows, as the block loop does.
inline void setblock(VGSEGHD* s, const Block& b, const void* from, void* to, long nrows, int rowsize) {
    auto* v = static_cast<char*>(wggudlp(s));
    auto put = [v](objloc o, long x) { memcpy(v + o, &x, 8); };
    put(b.basefrom, reinterpret_cast<long>(from));
    put(b.baseto, reinterpret_cast<long>(to));
    put(b.numobs, nrows);
    put(b.obssize, rowsize);
}

}  // namespace wgrow
