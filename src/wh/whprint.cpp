// The tree printer of debug traces, and the names of codes and index types.
#include <cstring>

#include "ssup/thr.h"
#include "ssubs/vz.h"
#include "wh/wh.h"

namespace vrta {

namespace {

struct MNEM {
    short code;
    const char* name;
};

constexpr MNEM mnemtbl[] = {
    {0, "NULL"},   {1, "NAME"},   {2, "LITN"},   {3, "LITC"},   {4, "FNAM"},   {5, "STAR"},
    {6, "USER"},   {7, "TABL"},   {8, "WNAM"},   {9, "ANAM"},   {10, "LABL"},  {11, "HNAM"},
    {12, "SUBQ"},  {13, "SUBP"},  {14, "SYM"},   {15, "BYNM"},  {16, "JTAG"},  {17, "UNDO"},
    {18, "CLR"},   {19, "FMT"},   {20, "NTGR"},  {21, "FUNC"},  {22, "DREF"},  {23, "SOBT"},
    {24, "SAY"},   {25, "EXTL"},  {26, "XNAM"},  {27, "EXTQ"},  {30, "SETN"},  {31, "SETC"},
    {70, "SAME"},  {220, "LOR"},  {221, "LAND"}, {222, "LNOT"}, {240, "INOT"}, {241, "IN"},
    {242, "NIN"},  {243, "BETW"}, {244, "NBTW"}, {245, "LIKE"}, {246, "NLKE"}, {247, "CONT"},
    {248, "NCON"}, {249, "ISNL"}, {250, "NTNL"}, {251, "TIN"},  {252, "TNIN"}, {255, "SDX"},
    {256, "NSDX"}, {260, "CEQ"},  {261, "CNE"},  {262, "CLT"},  {263, "CLE"},  {264, "CGT"},
    {265, "CGE"},  {270, "CTEQ"}, {271, "CTNE"}, {272, "CTLT"}, {273, "CTLE"}, {274, "CTGT"},
    {275, "CTGE"}, {280, "AADD"}, {281, "ASUB"}, {282, "AMUL"}, {283, "ADIV"}, {284, "ANEG"},
    {285, "APOW"}, {286, "APOS"}, {300, "CONC"}, {305, "MIN"},  {306, "MAX"},  {320, "FLST"},
    {324, "FTRN"}, {360, "RANB"}, {361, "RANL"}, {362, "RANH"}, {363, "RANN"}, {380, "SET"},
    {383, "STNX"},
};
static_assert(sizeof mnemtbl / sizeof mnemtbl[0] == 79);

// Slot per code, filled from the table once.
const char* mnemslot[WH_NCODES];
char unknownslot[WH_NCODES][12];
pthread_once_t mnemonce = PTHREAD_ONCE_INIT;

void mneminit() {
    for (int c = 0; c < WH_NCODES; c++) {
        std::snprintf(unknownslot[c], sizeof unknownslot[c], "-CODE%03d", c);
        mnemslot[c] = unknownslot[c];
    }
    for (const MNEM& m : mnemtbl) mnemslot[m.code] = m.name;
}

constexpr int PFX = 255;       // prefix room
constexpr int LEVELCOLS = 10;  // columns per level
constexpr int MAXCOL = 245;
constexpr int SET_SHOWN = 25;

bool printable(const char* s, int n) {
    for (int i = 0; i < n; i++)
        if (static_cast<unsigned char>(s[i]) < 0x20 || static_cast<unsigned char>(s[i]) > 0x7e) return false;
    return true;
}

void printlitc(FILE* fp, const char* s, int n) {
    if (printable(s, n)) {
        std::fprintf(fp, "['%*.*s']", n, n, s);
        return;
    }
    std::fprintf(fp, "['");
    for (int i = 0; i < n; i++) std::fprintf(fp, "%02X", static_cast<unsigned char>(s[i]));
    std::fprintf(fp, "'X]");
}

void printnum(FILE* fp, double v, bool close) {
    if (vzismiss(v)) std::fprintf(fp, "[.");
    else std::fprintf(fp, "[%g", v);
    if (close) std::fprintf(fp, "]");
}

void printleaf(FILE* fp, const SQLOP* n, const SQLOP* parent) {
    switch (n->code) {
    case OP_LITC:
    case OP_LABL:
        printlitc(fp, n->u.cleaf.c, n->u.cleaf.leng);
        break;
    case OP_LITN: {
        static const char* const dt[] = {"", " DATE", " TIME", " DATETIME"};
        int t = n->u.nleaf.datetype;
        printnum(fp, n->u.nleaf.nbr, false);
        std::fprintf(fp, "%s]", t >= 0 && t <= 3 ? dt[t] : "");
        break;
    }
    case OP_FMT:
        std::fprintf(fp, "[%.*s%d.%d]", n->u.fmt.namelen, n->u.fmt.name, n->u.fmt.wid, n->u.fmt.ndec);
        break;
    case OP_FUNC:
        std::fprintf(fp, "[%.*s()]", n->u.func.namelen, n->u.func.name);
        break;
    case OP_SETN:
    case OP_SETC: {
        const SQLSETLF& l = n->u.setleaf;
        for (int i = 0; i < l.num && i < SET_SHOWN; i++) {
            if (n->code == OP_SETN) {
                printnum(fp, static_cast<const double*>(l.p)[i], true);
            } else {
                const char* e = static_cast<const char*>(l.p) + static_cast<long>(i) * l.len;
                printlitc(fp, e, static_cast<int>(strnlen(e, l.len)));
            }
        }
        if (l.num > SET_SHOWN) std::fprintf(fp, "<%d more>", l.num - SET_SHOWN);
        break;
    }
    case OP_NAME:
    case OP_FNAM: {
        std::fprintf(fp, "[%.*s]", n->u.vleaf.namelen, n->u.vleaf.name);
        // What planning chose for the comparison above this column.
        const WH_IDX* x = parent && parent->nodeinfo ? &parent->nodeinfo->idx : nullptr;
        if (x && x->status == WH_XST_ALL && x->idxnum > 0) std::fprintf(fp, " <%d>", x->idxnum);
        break;
    }
    default:
        break;
    }
}

void printnode(FILE* fp, const SQLOP* n, const SQLOP* parent, int level, char* pfx, char marker) {
    int col = level * LEVELCOLS;
    if (col > MAXCOL) {
        std::fprintf(fp, " ... overflow in print_treenode ...\n");
        return;
    }
    // Lines above this node's own get a bar in its column unless it is the
    // first child; lines below unless it is the last.
    pfx[col] = marker == '/' || marker == ' ' ? ' ' : '|';
    int narg = n && n->code >= OP_FIRSTOP ? n->u.node.narg : 0;
    if (narg > 0) printnode(fp, get_child(n, 0), n, level + 1, pfx, '/');
    std::fwrite(pfx, 1, col, fp);
    std::fprintf(fp, "%c--", marker);
    if (!n) {
        std::fprintf(fp, "<empty>\n");
    } else {
        std::fprintf(fp, "%s", whmnemonic(n->code));
        if (n->code < OP_FIRSTOP) printleaf(fp, n, parent);
        std::fprintf(fp, "\n");
    }
    pfx[col] = marker == '\\' || marker == ' ' ? ' ' : '|';
    for (int i = 1; i < narg; i++) printnode(fp, get_child(n, i), n, level + 1, pfx, i + 1 < narg ? '-' : '\\');
    pfx[col] = ' ';
}

}  // namespace

const char* whmnemonic(int code) {
    if (code < 0 || code >= WH_NCODES) return "-BADCODE-";
    pthread_once(&mnemonce, mneminit);
    return mnemslot[code];
}

void tree_print(const char* message, const SQLOP* tree, FILE* fp) {
    if (!fp) return;
    if (message) std::fprintf(fp, "%s\n", message);
    else std::fprintf(fp, "TREE GRAPH :\n");
    if (!tree) {
        std::fprintf(fp, " --<empty>\n");
        return;
    }
    char pfx[PFX + 1];
    std::memset(pfx, ' ', sizeof pfx);
    printnode(fp, tree, nullptr, 0, pfx, ' ');
    std::fflush(fp);
}

const char* whidxtype(int itype, bool forcebt) {
    switch (itype) {
    case WH_IXT_SHY:  // deliberately named as the plain segment bitmap
    case WH_IXT_SBM:
        return "SBM";
    case WH_IXT_SBT:
        return "SBT";
    case WH_IXT_GBT:
        return forcebt ? "FBT" : "GBT";
    default:
        return "???";
    }
}

}  // namespace vrta
