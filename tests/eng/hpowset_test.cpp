// The wire form of a WHERE tree: its bytes, its chain of links, and the round
// trip text -> tree -> wire -> tree -> text.
#include <gtest/gtest.h>

#include <bit>
#include <random>
#include <string>
#include <vector>

#include "../wh/whwire.h"
#include "eng/hpowset.h"
#include "vrta/vrtawh.h"

using namespace vrta;
using namespace whtest;

namespace {

Bytes unhex(const std::string& h) {
    Bytes b;
    for (size_t i = 0; i < h.size();) {
        if (h[i] == ' ' || h[i] == '|') {
            i++;
            continue;
        }
        b.push_back(static_cast<uint8_t>(std::stoi(h.substr(i, 2), nullptr, 16)));
        i += 2;
    }
    return b;
}

rctype wire(const SQLOP* t, Bytes* out) {
    XOWBUFR* chain = nullptr;
    rctype rc = xowtput(t, XM_THREADPOOL, &chain);
    if (rc) return rc;
    out->resize(xowlen(chain));
    xowcopy(chain, out->data());
    xowfree(XM_THREADPOOL, chain);
    return 0;
}

struct Owned {
    SQLOP* t;
    ~Owned() { free_tree(&t, nullptr); }
};

const char* HEAD = "30303036 00 534f4c2d78363420 58363420 20202020";  // "0006", "SOL-x64 ", "X64     "
const char* TAIL = "30303036 00";

TEST(XowWrite, TreesHaveTheBytesWorkedOutByHand) {
    // (A=1), A the first column, a double.
    Owned eq{op(OP_CEQ, {namen("A", -8, 1), litn(1.0)})};
    Bytes b;
    ASSERT_EQ(wire(eq.t, &b), 0);
    std::string want = std::string("00000063 ") + HEAD +
                       "| 00000104 00000002 00000000"                     // CEQ, 2 operands
                       "| 00000001 00000000 fffffff8 00000001 41"         // NAME, its name
                       "  00000001 00000008 00000001"                     // numeric, 8 bytes, column 1
                       "| 00000002 00000000 fffffff8 4110000000000000"    // LITN in transport form
                       "  000000000000f03f 00000000 " +                   // the same in host order, a plain number
                       TAIL;
    EXPECT_EQ(b, unhex(want));

    // A set of strings out of order: its literals go as code 28.
    SQLOP* lb = litc("b");
    SQLOP* la = litc("a");
    lb->nodeflags |= WH_NF_UNORDERED;
    la->nodeflags |= WH_NF_UNORDERED;
    Owned in{op(OP_IN, {namen("C", 4, 2), op(OP_SET, {lb, la})})};
    ASSERT_EQ(wire(in.t, &b), 0);
    want = std::string("0000006b ") + HEAD +
           "| 000000f1 00000002 00000000"
           "| 00000001 00000000 00000004 00000001 43 00000002 00000004 00000002"
           "| 0000017c 00000002 00000000"
           "| 0000001c 00000002 00000001 6200"
           "| 0000001c 00000002 00000001 6100 " +
           TAIL;
    EXPECT_EQ(b, unhex(want));

    // A null tree is three zero words.
    ASSERT_EQ(wire(nullptr, &b), 0);
    EXPECT_EQ(b, unhex(std::string("00000026 ") + HEAD + "000000000000000000000000" + TAIL));

    // A packed set, a format and a function name.
    SQLOP* sn = node(OP_SETN);
    sn->u.setleaf.num = 2;
    sn->u.setleaf.len = 8;
    auto* d = static_cast<double*>(calloc(2, 8));
    d[0] = 1.0;
    d[1] = -118.625;
    sn->u.setleaf.p = d;
    Owned mix{op(OP_LAND, {sn, op(OP_FLST, {funcn("PUT", 20), fmtn("BEST", 12, 0)}, 20)})};
    ASSERT_EQ(wire(mix.t, &b), 0);
    want = std::string("00000085 ") + HEAD +
           "| 000000dd 00000002 00000000"
           "| 0000001e 00000000 00000000 00000002 00000008 4110000000000000 c276a00000000000"
           "| 00000140 00000002 00000014"
           "| 00000015 00000000 00000014 00000003 505554"
           "| 00000013 00000000 00000000 00000004 42455354 0000000c 00000000 " +
           TAIL;
    EXPECT_EQ(b, unhex(want));

    // Leaves of the full form that only the writer knows.
    SQLOP* tabl = node(OP_TABL);
    tabl->extra = 3;
    std::memcpy(tabl->u.tleaf.lib, "MYLIB   ", 8);
    std::memcpy(tabl->u.tleaf.mem, "MEM", 3);
    tabl->u.tleaf.memlen = 3;
    char opt[] = "abc";
    tabl->u.tleaf.opt = opt;
    tabl->u.tleaf.optlen = 3;
    tabl->u.tleaf.ds = 7;
    SQLOP* jtag = node(OP_JTAG);
    jtag->u.jtag.jds = 9;
    SQLOP* sobt = node(OP_SOBT);
    std::memcpy(sobt->u.sob.mem, "M1", 2);
    sobt->u.sob.memlen = 2;
    sobt->u.sob.alias[0] = 'A';
    sobt->u.sob.aliaslen = 1;
    sobt->u.sob.dsnum = 5;
    Owned full{op(OP_LAND, {tabl, jtag, sobt, node(OP_BYNM)})};
    ASSERT_EQ(wire(full.t, &b), 0);
    want = std::string("0000007f ") + HEAD +
           "| 000000dd 00000004 00000000"
           "| 00000007 00000003 00000000 4d594c4942000000 00000003 4d454d 616263 00000007"
           "| 00000010 00000000 00000000 00000009"
           "| 00000017 00000000 00000000 00000002 4d31 00000001 41 00000005"
           "| 0000000f 00000000 00000000 " +
           TAIL;
    EXPECT_EQ(b, unhex(want));
}

TEST(XowWrite, CodesWithoutAWireFormAreRefusedAndNothingIsKept) {
    for (int code : {int{OP_SUBQ}, int{OP_SUBP}, int{OP_SYM}, int{OP_UNDO}, int{OP_XNAM}, int{OP_LITC29}, 32, 35}) {
        Owned t{op(OP_LAND, {litn(1), node(static_cast<short>(code))})};
        XOWBUFR* chain = reinterpret_cast<XOWBUFR*>(1);
        EXPECT_EQ(xowtput(t.t, XM_THREADPOOL, &chain), static_cast<rctype>(0x8001000fu)) << code;
        EXPECT_EQ(chain, nullptr);
    }
}

TEST(XowWrite, PiecesFillLinksOfFiveHundredBytesAndBigOnesGoAlone) {
    xmpid pool = xmpoolc(4096, 4096, 0);
    ASSERT_NE(pool, nullptr);
    auto* first = static_cast<XOWBUFR*>(xmalloc(pool, sizeof(XOWBUFR), XM_ZERO));
    XOWBUFR* cur = first;
    // An empty link takes exactly 500.
    ASSERT_NE(put_buf(pool, &cur, 500), nullptr);
    EXPECT_EQ(cur, first);
    EXPECT_EQ(first->len, 500);
    ASSERT_NE(put_buf(pool, &cur, 1), nullptr);
    EXPECT_NE(cur, first);
    // 500 more no longer fit with the 1 already there.
    XOWBUFR* second = cur;
    ASSERT_NE(put_buf(pool, &cur, 499), nullptr);
    EXPECT_EQ(cur, second);
    char* big = put_buf(pool, &cur, 1200);
    ASSERT_NE(big, nullptr);
    std::memset(big, 'x', 1200);  // the whole piece is writable
    EXPECT_EQ(cur->len, 1200);
    XOWBUFR* bigl = cur;
    ASSERT_NE(put_buf(pool, &cur, 1), nullptr);
    EXPECT_NE(cur, bigl);
    EXPECT_EQ(xowlen(first), 500 + 1 + 499 + 1200 + 1);
    xowfree(pool, first);
    xmpoold(pool);

    // A literal longer than a link and a node of 14 operands write and read back.
    std::string longtext(700, 'L');
    std::vector<SQLOP*> kids;
    for (int i = 0; i < 13; i++) kids.push_back(op(OP_CEQ, {namen("A", -8, 1), litn(i)}));
    SQLOP* land = node(OP_LAND);
    for (size_t i = 0; i < kids.size(); i++) set_child(land, static_cast<int>(i), kids[i]);
    set_child(land, 13, op(OP_CEQ, {namen("S", 700, 2), litc(longtext)}));
    Owned t{land};
    EXPECT_EQ(xowgetf(land, 13), get_child(land, 13));
    Bytes b;
    ASSERT_EQ(wire(land, &b), 0);
    SQLOP* back = nullptr;
    ASSERT_EQ(wh_getatree(b.data(), static_cast<long>(b.size()), &back), 0);
    Owned bo{back};
    EXPECT_EQ(back->u.node.narg, 14);
    EXPECT_EQ(say(back), say(land));
    EXPECT_NE(say(back).find("(S='" + longtext + "')"), std::string::npos);
}

// ------------------------------------------------------------ round trips

// The reader's tree against the writer's: the same in all but what the wire
// form itself moves (the column's words, the unordered mark).
void sametree(const SQLOP* h, const SQLOP* e, const std::string& where) {
    ASSERT_EQ(h == nullptr, e == nullptr) << where;
    if (!h) return;
    ASSERT_EQ(h->code, e->code) << where;
    EXPECT_EQ(h->type, e->type) << where;
    switch (h->code) {
    case OP_NAME:
        EXPECT_EQ(std::string(h->u.vleaf.name, h->u.vleaf.namelen), std::string(e->u.vleaf.name, e->u.vleaf.namelen));
        EXPECT_EQ(h->u.vleaf.nvar0, e->u.vleaf.nvar0) << where;
        // The column's kind and length arrive where the reader keeps leng and offset.
        EXPECT_EQ(e->u.vleaf.leng, h->type < 0 ? 1 : 2) << where;
        EXPECT_EQ(e->u.vleaf.offset, h->u.vleaf.leng) << where;
        return;
    case OP_LITN:
        EXPECT_EQ(std::bit_cast<uint64_t>(h->u.nleaf.nbr), std::bit_cast<uint64_t>(e->u.nleaf.nbr)) << where;
        EXPECT_EQ(std::memcmp(h->u.nleaf.nbr_collatable, e->u.nleaf.nbr_collatable, 8), 0) << where;
        EXPECT_EQ(h->u.nleaf.datetype, e->u.nleaf.datetype) << where;
        return;
    case OP_LITC:
        EXPECT_EQ(std::string(h->u.cleaf.c, h->u.cleaf.leng), std::string(e->u.cleaf.c, e->u.cleaf.leng)) << where;
        return;
    case OP_FUNC:
        EXPECT_EQ(std::string(h->u.func.name, h->u.func.namelen), std::string(e->u.func.name, e->u.func.namelen));
        return;
    default:
        break;
    }
    ASSERT_EQ(h->u.node.narg, e->u.node.narg) << where;
    bool unordered = false;
    for (int i = 0; i < h->u.node.narg; i++) {
        const SQLOP* hc = get_child(h, i);
        if (hc && hc->code == OP_LITC && (hc->nodeflags & WH_NF_UNORDERED)) unordered = true;
        sametree(hc, get_child(e, i), where + "/" + std::to_string(i));
    }
    // Literals marked out of order mark their set on the way.
    EXPECT_EQ((e->nodeflags & WH_NF_UNORDERED) != 0, unordered && h->code == OP_SET) << where;
}

const WH_PCOL RCOLS[] = {{"A", 1, 1, 8, 0, 1},   {"B", 1, 1, 8, 8, 2},     {"QTY", 3, 1, 4, 16, 3},
                         {"S", 1, 2, 12, 20, 4}, {"CITY", 4, 2, 30, 32, 5}};

// Random clauses of the language, written as people write them.
struct Gen {
    std::mt19937 rng;
    explicit Gen(unsigned seed) : rng(seed) {}
    int pick(int n) { return static_cast<int>(rng() % n); }
    std::string sp() { return pick(3) ? " " : (pick(2) ? "" : "  "); }
    std::string number() {
        switch (pick(6)) {
        case 0: return std::to_string(pick(1000));
        case 1: return std::to_string(pick(100000)) + "." + std::to_string(pick(1000));
        case 2: return std::to_string(1 + pick(9)) + "e" + std::to_string(pick(40) - 20);
        case 3: return pick(2) ? "." : (pick(2) ? "._" : std::string(".") + static_cast<char>('A' + pick(26)));
        case 4: return "-" + std::to_string(pick(50));
        default: return std::to_string(pick(7)) + "." + std::to_string(1000000 + pick(9000000));
        }
    }
    // Strings that the renderer's quoting gives back as they are.
    std::string string() {
        static const char* bits[] = {"a", "Lima", " ", "%", "_", "\"", "x y", "Oslo", "0", "é"};
        std::string v = pick(5) == 0 ? "'" : "";
        int n = pick(4);
        for (int i = 0; i < n; i++) v += bits[pick(10)];
        if (!v.empty() && v[0] == '\'') {
            std::string w;
            for (char c : v)
                if (c != '"') w += c;
            v = w;
        }
        char q = pick(2) ? '\'' : '"';
        std::string out(1, q);
        for (char c : v) {
            out += c;
            if (c == q) out += c;
        }
        return out + q;
    }
    std::string num(int d) {
        if (d <= 0 || pick(3) == 0) {
            static const char* cols[] = {"a", "B", "qty"};
            return pick(2) ? std::string(cols[pick(3)]) : number();
        }
        switch (pick(7)) {
        case 5: return pick(2) ? "abs(" + num(d - 1) + ")" : "length(" + chr(d - 1) + ")";
        case 6: return "mean(" + num(d - 1) + "," + sp() + num(d - 1) + ")";
        case 0: return num(d - 1) + sp() + "+-*/"[pick(4)] + sp() + num(d - 1);
        case 1: return "-" + num(d - 1);
        case 2: return num(d - 1) + sp() + "**" + sp() + num(d - 1);
        case 3: return "(" + num(d - 1) + ")";
        default: return num(d - 1);
        }
    }
    std::string chr(int d) {
        if (d <= 0 || pick(2)) return pick(2) ? (pick(2) ? "s" : "City") : string();
        switch (pick(4)) {
        case 0: return "upcase(" + chr(d - 1) + ")";
        case 1: return "substr(" + chr(d - 1) + ", " + num(d - 1) + (pick(2) ? ", 2)" : ")");
        case 2: return "trim(" + chr(d - 1) + ")";
        default: return chr(d - 1) + sp() + "||" + sp() + chr(d - 1);
        }
    }
    std::string list(bool numeric) {
        std::string l = "(";
        int n = 1 + pick(pick(4) == 0 ? 30 : 4);
        for (int i = 0; i < n; i++) {
            if (i) l += ",", l += sp();
            l += numeric ? number() : string();
        }
        return l + ")";
    }
    std::string pred(int d) {
        static const char* cmp[] = {"=", "<>", "^=", "<", "<=", ">", ">=", "not ="};
        static const char* ccmp[] = {"=:", "<:", ">=:", "not =:", "=*", "not =*"};
        const char* c = cmp[pick(8)];
        std::string gap = c[0] == 'n' ? " " : sp();
        switch (pick(10)) {
        case 0: return num(d) + gap + c + gap + num(d);
        case 1: return chr(d) + gap + c + gap + chr(d);
        case 2: return chr(d) + " " + ccmp[pick(6)] + " " + chr(d);
        case 3: return num(d) + (pick(2) ? " not" : "") + " in " + list(true);
        case 4: return chr(d) + (pick(2) ? " not" : "") + (pick(3) ? " in " : " in: ") + list(false);
        case 5: return num(d) + (pick(2) ? " not" : "") + " between " + num(d) + " and " + num(d);
        case 6: return chr(d) + (pick(2) ? " not" : "") + (pick(2) ? " like " : " contains ") + chr(d);
        case 7: return num(d) + " is " + (pick(2) ? "not " : "") + (pick(2) ? "null" : "missing");
        case 8: return "missing(" + (pick(2) ? num(d) : chr(d)) + ")";
        default: return pick(2) ? num(d) : chr(d);
        }
    }
    std::string cond(int d) {
        if (d <= 0) return pred(1);
        switch (pick(6)) {
        case 0: return cond(d - 1) + " and " + cond(d - 1);
        case 1: return cond(d - 1) + " or " + cond(d - 1) + (pick(2) ? " and " + cond(d - 1) : "");
        case 2: return "not " + cond(d - 1);
        case 3: return "(" + cond(d - 1) + ")";
        default: return pred(2);
        }
    }
};

struct Pass {
    std::string text;
    Bytes wire;
};

// One pass: parse, write, read back, render. The reader's tree must match
// the parser's, and render the same.
bool pass(const std::string& in, Pass* out, std::string* why) {
    SQLOP* h = nullptr;
    WH_PERR err{};
    rctype rc = whparse(in.data(), static_cast<int>(in.size()), RCOLS, 5, &h, &err);
    if (rc) {
        *why = "parse: " + std::string(err.text);
        return false;
    }
    Owned ho{h};
    if (wire(h, &out->wire) != 0) {
        *why = "write";
        return false;
    }
    SQLOP* e = nullptr;
    whlin_t lin{};
    rc = getbooltree(nullptr, nullptr, out->wire.data(), static_cast<long>(out->wire.size()), &lin, nullptr, &e);
    if (rc) {
        *why = "read back";
        return false;
    }
    Owned eo{e};
    sametree(h, e, "root");
    out->text = say(e);
    EXPECT_EQ(out->text, say(h));
    return !::testing::Test::HasFailure();
}

TEST(XowRoundTrip, GeneratedClausesAreStableAfterOnePass) {
    Gen g(1729);
    const int rounds = std::getenv("VRTA_LONG") ? 20000 : 600;
    for (int r = 0; r < rounds; r++) {
        std::string t1 = g.cond(1 + g.pick(3));
        Pass p1, p2, p3;
        std::string why;
        ASSERT_TRUE(pass(t1, &p1, &why)) << why << "\n  " << t1;
        // The rendered text reads again as the same tree: once round, nothing moves.
        ASSERT_TRUE(pass(p1.text, &p2, &why)) << why << "\n  " << t1 << "\n  " << p1.text;
        ASSERT_TRUE(pass(p2.text, &p3, &why)) << why << "\n  " << p2.text;
        ASSERT_EQ(p3.text, p2.text) << t1;
        ASSERT_EQ(p3.wire, p2.wire) << t1;
    }
}

// ------------------------------------------------------------ the exported calls

TEST(VrtaWh, ParseAndShowThroughTheModulesCalls) {
    const VRTAWHCOL cols[] = {{"AMOUNT", -1, 1, 8, 0}, {"CITY", 4, 2, 10, 8}};
    void* w = nullptr;
    int wl = 0;
    char msg[200];
    ASSERT_EQ(vrtawhparse("amount > 100 and city in ('Lima','Oslo')", -1, cols, 2, &w, &wl, msg, sizeof msg), 0)
        << msg;
    EXPECT_EQ(msg[0], 0);
    char* text = nullptr;
    ASSERT_EQ(vrtawhshow(w, wl, VRTAWH_TEXT, &text), 0);
    EXPECT_STREQ(text, "((AMOUNT>100) and CITY in ('Lima', 'Oslo'))");
    vrtawhfree(text);
    ASSERT_EQ(vrtawhshow(w, wl, VRTAWH_TREE, &text), 0);
    EXPECT_EQ(std::string(text).substr(0, 13), "TREE GRAPH :\n");
    EXPECT_NE(std::string(text).find("\\--LITC['Oslo']"), std::string::npos) << text;
    vrtawhfree(text);
    // A wire form cut short does not show.
    EXPECT_EQ(vrtawhshow(w, wl - 1, VRTAWH_TEXT, &text), WH_RC_BADWIRE);
    EXPECT_EQ(text, nullptr);
    vrtawhfree(w);

    EXPECT_EQ(vrtawhparse("amount > 'x'", -1, cols, 2, &w, &wl, msg, sizeof msg), WH_RC_TYPES);
    EXPECT_STREQ(msg, "at column 10: '>' compares a number with a character value");
    EXPECT_EQ(w, nullptr);
    char small[12];
    EXPECT_EQ(vrtawhparse("nosuch = 1", -1, cols, 2, &w, &wl, small, sizeof small), WH_RC_NOCOLUMN);
    EXPECT_STREQ(small, "at column 1");
    const VRTAWHCOL bad[] = {{"X", -1, 3, 8, 0}};
    EXPECT_EQ(vrtawhparse("x = 1", -1, bad, 1, &w, &wl, msg, sizeof msg), WH_RC_NULLARG);
    EXPECT_EQ(vrtawhparse(nullptr, 0, cols, 2, &w, &wl, msg, sizeof msg), WH_RC_NULLARG);
    EXPECT_EQ(vrtawhshow(w, 0, 3, &text), WH_RC_NULLARG);
}

}  // namespace

namespace {

// The reader fed damaged copies of real clauses' wire forms: a tree or the
// wire code, never anything else.
TEST(XowRoundTrip, DamagedWireFormsAreRefusedCleanly) {
    Gen g(99);
    std::mt19937 rng(7);
    const int rounds = std::getenv("VRTA_LONG") ? 50000 : 1500;
    for (int r = 0; r < rounds; r++) {
        Pass p;
        std::string why;
        ASSERT_TRUE(pass(g.cond(2), &p, &why)) << why;
        Bytes b = p.wire;
        for (int f = 1 + static_cast<int>(rng() % 3); f > 0; f--) {
            size_t at = rng() % b.size();
            if (rng() % 4 == 0) b.resize(at);
            else b[at] = static_cast<uint8_t>(rng());
            if (b.empty()) break;
        }
        SQLOP* t = nullptr;
        rctype rc = wh_getatree(b.data(), static_cast<long>(b.size()), &t);
        if (rc == 0) {
            EXPECT_NE(say(t), "<failed>");
            free_tree(&t, nullptr);
        } else {
            EXPECT_TRUE(rc == WH_RC_BADWIRE || rc == WH_RC_NULLARG) << std::hex << rc;
            EXPECT_EQ(t, nullptr);
        }
    }
}

}  // namespace
