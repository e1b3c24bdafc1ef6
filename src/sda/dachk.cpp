// Checks of a table's description and columns as they come from its MDF.
// Everything after open trusts these numbers to size buffers, place columns
// in a row and count rows, so a damaged field must stop the open here, with
// the file and the field named, rather than become a wild pointer later.
#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <utility>
#include <vector>

#include "hs/hs.h"
#include "sda/dafid.h"
#include "sda/darc.h"

namespace vrta {

namespace {

constexpr int32_t MAXCHARLEN = 32767;  // widest character column
constexpr int32_t MAXNAMELEN = 32;     // column, format and informat names
constexpr int32_t MAXLABELLEN = 256;
// A block of more than one row is a buffer the layer allocates whole.
constexpr int64_t MAXMULTIBLOCK = 64LL << 20;

struct Ctx {
    DA_FCB* fcb;
    char file[sizeof(DA_FDPSTAT::name)];
};

void fileof(DA_FCB* fcb, char* out, size_t size) {
    DA_FDPSTAT ps;
    if (fcb->mdfd && fcb->mdfd->fdpstat && fcb->mdfd->fdpstat(fcb->mdfd, 0, &ps) >= 0)
        snprintf(out, size, "%s", ps.name);
    else
        snprintf(out, size, "%s.mdf", fcb->iname);
}

[[nodiscard]] rctype bad(const Ctx& c, const char* record, int col, const char* field, int64_t value) {
    char where[32] = "";
    if (col > 0) snprintf(where, sizeof where, " of column %d", col);
    hsprint("daopfcb: Damaged field %s%s in %s: Value=%" PRId64 ": File=%s Reason=%s\n", field, where, record,
            value, c.file, hsstrer(DA_INTERNAL));
    return DA_INTERNAL;
}

da_off_t mdfsize(DA_FCB* fcb) { return fcb->mdfd && fcb->mdfd->filesize ? *fcb->mdfd->filesize : 0; }

}  // namespace

[[nodiscard]] rctype dachkxoe(DA_FCB* fcb, const DA_DSFHEAD& h, const DA_XOEODS& x) {
    Ctx c{fcb, {}};
    fileof(fcb, c.file, sizeof c.file);
    const da_off_t end = mdfsize(fcb);
    static const char* const lname[] = {"links[0]", "links[1]", "links[2]", "links[3]", "links[4]",
                                        "links[5]", "links[6]", "links[7]", "links[8]", "links[9]",
                                        "links[10]", "links[11]", "links[12]"};
    for (int i = 0; i < DA_NUMLINKS; ++i) {
        da_off_t l = h.links[i];
        if (l == -1) continue;
        if (l < fcb->hdrOff || l >= end)
            return bad(c, "DA_DSFHEAD", 0, i < 13 ? lname[i] : "links", l);
    }
    if (x.numobs < 0) return bad(c, "DA_XOEODS", 0, "numobs", x.numobs);
    if (x.numdelete < 0 || x.numdelete > x.numobs) return bad(c, "DA_XOEODS", 0, "numdelete", x.numdelete);
    if (x.nindexes < 0) return bad(c, "DA_XOEODS", 0, "nindexes", x.nindexes);
    // A table killed between create and its columns has none yet; the open
    // refuses it later, this check only guards what the numbers size.
    if (x.nvar < 0) return bad(c, "DA_XOEODS", 0, "nvar", x.nvar);
    if (x.nvar == 0) return 0;
    // The name vector lies inside the MDF: that bounds nvar before anything
    // is allocated for it.
    if (h.links[DA_LNKNAMES] < 0 || static_cast<int64_t>(x.nvar) * static_cast<int64_t>(sizeof(DA_NAME7ODS)) > end - h.links[DA_LNKNAMES])
        return bad(c, "DA_XOEODS", 0, "nvar", x.nvar);
    if (x.obslen <= 0 || x.obslen > static_cast<int64_t>(x.nvar) * MAXCHARLEN)
        return bad(c, "DA_XOEODS", 0, "obslen", x.obslen);
    // The two row lengths agree in every table we write; when they do not,
    // the row length is what a reader would trust.
    if (x.ioreclen != x.obslen) return bad(c, "DA_XOEODS", 0, "obslen", x.obslen);
    bool exit = (x.flags & (DA_XOECOMP | DA_XOECRYPT)) != 0;
    int32_t ods = (exit || x.semtype == DA_SEMDATA) ? x.obslen : static_cast<int32_t>((x.obslen + 5LL) / 3 * 4);
    if (x.odsreclen != ods) return bad(c, "DA_XOEODS", 0, "odsreclen", x.odsreclen);
    if (x.blockfactor < 1) return bad(c, "DA_XOEODS", 0, "blockfactor", x.blockfactor);
    int64_t bs = static_cast<int64_t>(x.blockfactor) * x.obslen;
    if (x.blocksize != bs) return bad(c, "DA_XOEODS", 0, "blocksize", x.blocksize);
    if (x.blockfactor > 1 && bs > MAXMULTIBLOCK) return bad(c, "DA_XOEODS", 0, "blockfactor", x.blockfactor);
    if (x.idxsegsize < 1) return bad(c, "DA_XOEODS", 0, "idxsegsize", x.idxsegsize);
    if (x.partsize < 0 || (x.partsize > 0 && x.partfactor < 1))
        return bad(c, "DA_XOEODS", 0, "partsize", x.partsize);
    if (x.partfactor < 0 || (x.partsize > 0 && x.partfactor > x.partsize / x.odsreclen))
        return bad(c, "DA_XOEODS", 0, "partfactor", x.partfactor);
    if (x.dsorg != DA_ORGREAD && x.dsorg != DA_ORGUPDATE) return bad(c, "DA_XOEODS", 0, "dsorg", x.dsorg);
    if (x.blockgrow < 0 || x.blockgrow > MAXMULTIBLOCK) return bad(c, "DA_XOEODS", 0, "blockgrow", x.blockgrow);
    if (x.label_l < 0 || x.label_l > MAXLABELLEN) return bad(c, "DA_XOEODS", 0, "label_l", x.label_l);
    bool stored = x.semtype == DA_SEMXCVBS || x.semtype == DA_SEMXCFBS;
    if (exit != stored) return bad(c, "DA_XOEODS", 0, "semtype", x.semtype);
    if (x.flags & DA_XOEEXPORT) {
        if (x.transfersize < x.obslen || x.transfersize > std::max<int64_t>(MAXMULTIBLOCK, x.obslen))
            return bad(c, "DA_XOEODS", 0, "transfersize", x.transfersize);
        if (x.transferfactor != x.transfersize / x.obslen)
            return bad(c, "DA_XOEODS", 0, "transferfactor", x.transferfactor);
    }
    return 0;
}

[[nodiscard]] rctype dachkvars(DA_FCB* fcb, const DA_NAME7ODS* v, int32_t nvar) {
    Ctx c{fcb, {}};
    fileof(fcb, c.file, sizeof c.file);
    const DA_XOEODS& x = fcb->xoe;
    int64_t sum = 0;
    for (int32_t i = 0; i < nvar; ++i) {
        const DA_NAME7ODS& n = v[i];
        const int col = i + 1;
        if (n.type != 1 && n.type != 2) return bad(c, "DA_NAME7ODS", col, "type", n.type);
        int32_t maxlen = n.type == 1 ? 8 : MAXCHARLEN;
        if (n.nlng < 1 || n.nlng > maxlen) return bad(c, "DA_NAME7ODS", col, "nlng", n.nlng);
        if (n.npos < 0 || n.npos > x.obslen - n.nlng) return bad(c, "DA_NAME7ODS", col, "npos", n.npos);
        if (n.name_l < 1 || n.name_l > MAXNAMELEN) return bad(c, "DA_NAME7ODS", col, "name_l", n.name_l);
        if (n.label_l < 0 || n.label_l > MAXLABELLEN) return bad(c, "DA_NAME7ODS", col, "label_l", n.label_l);
        if (n.nform_l < 0 || n.nform_l > MAXNAMELEN) return bad(c, "DA_NAME7ODS", col, "nform_l", n.nform_l);
        if (n.niform_l < 0 || n.niform_l > MAXNAMELEN) return bad(c, "DA_NAME7ODS", col, "niform_l", n.niform_l);
        struct {
            int32_t pid;
            int16_t l;
            const char* field;
        } strs[] = {{n.namepid, n.name_l, "namepid"},
                    {n.labelpid, n.label_l, "labelpid"},
                    {n.nformpid, n.nform_l, "nformpid"},
                    {n.niformpid, n.niform_l, "niformpid"}};
        for (const auto& s : strs)
            if (s.l > 0 && !dastrpaddr(fcb->phdl, s.pid, s.l)) return bad(c, "DA_NAME7ODS", col, s.field, s.pid);
        sum += n.nlng;
    }
    // The row is exactly its columns, rounded to 8 for an aligned row that
    // starts with an 8-byte number: a longer one would make every reader
    // step past the rows on disk.
    if (x.flags & DA_XOEALIGN)
        for (int32_t i = 0; i < nvar; ++i)
            if (v[i].npos == 0 && v[i].type == 1 && v[i].nlng == 8) sum = (sum + 7) & ~7LL;
    if (sum != x.obslen) return bad(c, "DA_XOEODS", 0, "obslen", x.obslen);
    // Columns share no byte: one moved onto another would show its bytes as
    // two values.
    std::vector<std::pair<int32_t, int32_t>> at(nvar);
    for (int32_t i = 0; i < nvar; ++i) at[i] = {v[i].npos, i};
    std::sort(at.begin(), at.end());
    for (int32_t k = 1; k < nvar; ++k) {
        const DA_NAME7ODS& prev = v[at[k - 1].second];
        if (at[k].first < prev.npos + prev.nlng) return bad(c, "DA_NAME7ODS", at[k].second + 1, "npos", at[k].first);
    }
    return 0;
}

}  // namespace vrta
