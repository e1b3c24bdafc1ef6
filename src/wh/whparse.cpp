// The WHERE language people type, parsed into the host-side tree.
//
//   clause    := or END
//   or        := and ("or" and)*
//   and       := not ("and" not)*
//   not       := "not" not | predicate
//   predicate := value [compare value | ["not"] "like" value | ["not"] "contains" value
//                | ["not"] "between" value "and" value | ["not"] "in" "(" constants ")"
//                | ["not"] "in:" "(" strings ")" | "is" ["not"] ("null" | "missing")]
//   value     := sum ("||" sum)*
//   sum       := product (("+" | "-") product)*
//   product   := power (("*" | "/") power)*
//   power     := unary ["**" power]
//   unary     := ("-" | "+") unary | primary
//   primary   := number | string | missing | column | function "(" [value ("," value)*] ")"
//                | "missing" "(" value ")" | "(" or ")"
//
// Unary minus binds tighter than "**", so that the renderer's unbracketed
// negation reads back as the same tree. A minus on a numeric literal is
// folded into the literal.
#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "ssubs/hscsdbl.h"
#include "ssubs/vz.h"
#include "wh/wh.h"
#include "wh/whfunc.h"

namespace vrta {

namespace {

// Nesting of parentheses, function calls and prefix operators.
constexpr int MAXNEST = 200;
constexpr int MAXSTR = 32767;  // longest string a node's type can describe

enum Kind { K_NUM, K_CHR, K_COND };

const char* kindname(Kind k) { return k == K_NUM ? "a number" : k == K_CHR ? "a character value" : "a condition"; }

enum TokKind { T_END, T_WORD, T_NUM, T_STR, T_MISS, T_SYM };

struct Token {
    TokKind kind = T_END;
    int pos = 0;   // byte offset in the clause
    int len = 0;   // bytes of the token in the clause
    std::string text;  // a word as written, a string's value, a symbol
    double num = 0;
};

// A tree the parser holds: freed unless handed on.
struct Tree {
    SQLOP* n = nullptr;
    Kind kind = K_COND;
    int pos = 0;     // where it starts in the clause
    int height = 0;  // levels below the root
    Tree() = default;
    Tree(const Tree&) = delete;
    Tree& operator=(const Tree&) = delete;
    Tree(Tree&& o) noexcept : n(o.n), kind(o.kind), pos(o.pos), height(o.height) { o.n = nullptr; }
    Tree& operator=(Tree&& o) noexcept {
        if (this != &o) {
            drop();
            n = o.n;
            kind = o.kind;
            pos = o.pos;
            height = o.height;
            o.n = nullptr;
        }
        return *this;
    }
    ~Tree() { drop(); }
    void drop() {
        if (n) free_tree(&n, nullptr);
    }
    SQLOP* release() {
        SQLOP* r = n;
        n = nullptr;
        return r;
    }
};

bool wordch(char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_' || c == '$';
}
bool digit(char c) { return c >= '0' && c <= '9'; }

bool ieq(const std::string& a, const char* b) {
    size_t n = std::strlen(b);
    if (a.size() != n) return false;
    for (size_t i = 0; i < n; i++) {
        char c = a[i];
        if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
        char d = b[i];
        if (d >= 'a' && d <= 'z') d = static_cast<char>(d - 'a' + 'A');
        if (c != d) return false;
    }
    return true;
}

constexpr const char* KEYWORDS[] = {"and", "or", "not", "in", "between", "like", "is", "null", "missing", "contains"};

bool keyword(const std::string& w) {
    for (const char* k : KEYWORDS)
        if (ieq(w, k)) return true;
    return false;
}

// Symbols, longest first.
constexpr const char* SYMBOLS[] = {"<=:", ">=:", "^=:", "~=:", "!=:", "**", "||", "=:", "<:", ">:", "<=", ">=",
                                   "<>", "^=", "~=", "!=", "=*", "=", "<", ">", "+", "-", "*", "/", "(",
                                   ")", ","};

struct Parser {
    const char* src;
    int len;
    const WH_PCOL* cols;
    int ncols;
    WH_PERR* err;
    Token tok;
    int next = 0;   // offset of the next token
    int nest = 0;
    rctype rc = 0;
    const WH_PAGG* agg = nullptr;  // aggregates the caller takes, or null
    bool inagg = false;

    // ------------------------------------------------------------ errors
    rctype fail(rctype code, int pos, const char* fmt, ...) __attribute__((format(printf, 4, 5))) {
        if (rc) return rc;
        rc = code;
        if (err) {
            err->col = pos + 1;
            va_list ap;
            va_start(ap, fmt);
            int n = std::snprintf(err->text, sizeof err->text, "at column %d: ", pos + 1);
            std::vsnprintf(err->text + n, sizeof err->text - n, fmt, ap);
            va_end(ap);
        }
        return rc;
    }
    std::string shown(const Token& t) const {
        if (t.kind == T_END) return "the end of the clause";
        std::string s(src + t.pos, std::min(t.len, 40));
        return "'" + s + (t.len > 40 ? "...'" : "'");
    }
    rctype expected(const char* what) { return fail(WH_RC_SYNTAX, tok.pos, "expected %s, found %s", what, shown(tok).c_str()); }

    // ------------------------------------------------------------ tokens
    bool lex() {
        int i = next;
        while (i < len && (src[i] == ' ' || src[i] == '\t' || src[i] == '\n' || src[i] == '\r')) i++;
        tok = Token{};
        tok.pos = i;
        if (i >= len) {
            tok.kind = T_END;
            next = i;
            return true;
        }
        char c = src[i];
        int j = i;
        if (digit(c) || (c == '.' && i + 1 < len && digit(src[i + 1]))) {
            while (j < len && digit(src[j])) j++;
            if (j < len && src[j] == '.') {
                j++;
                while (j < len && digit(src[j])) j++;
            }
            if (j < len && (src[j] == 'e' || src[j] == 'E')) {
                int k = j + 1;
                if (k < len && (src[k] == '+' || src[k] == '-')) k++;
                if (k < len && digit(src[k])) {
                    j = k;
                    while (j < len && digit(src[j])) j++;
                }
            }
            if (j < len && wordch(src[j])) {
                fail(WH_RC_SYNTAX, i, "a number runs into '%c'", src[j]);
                return false;
            }
            std::string t(src + i, j - i);
            errno = 0;
            double v = std::strtod(t.c_str(), nullptr);
            if (!std::isfinite(v)) {
                fail(WH_RC_SYNTAX, i, "the number %s is out of range", t.c_str());
                return false;
            }
            tok.kind = T_NUM;
            tok.num = v;
        } else if (c == '.') {
            // ".", "._", ".A" to ".Z": missing values.
            j = i + 1;
            char m = '.';
            if (j < len && wordch(src[j])) {
                char l = src[j];
                if (l >= 'a' && l <= 'z') l = static_cast<char>(l - 'a' + 'A');
                if (!((l >= 'A' && l <= 'Z') || l == '_') || (j + 1 < len && wordch(src[j + 1]))) {
                    fail(WH_RC_SYNTAX, i, "a missing value is '.', '._' or '.' and one letter");
                    return false;
                }
                m = l;
                j++;
            }
            tok.kind = T_MISS;
            tok.num = vzmissof(m);
        } else if (wordch(c)) {
            while (j < len && wordch(src[j])) j++;
            tok.kind = T_WORD;
            tok.text.assign(src + i, j - i);
            // "in:" is one word: the truncated set test.
            if (ieq(tok.text, "in") && j < len && src[j] == ':') {
                j++;
                tok.kind = T_SYM;
                tok.text = "in:";
            }
        } else if (c == '\'' || c == '"') {
            // A doubled quote stands for itself.
            j = i + 1;
            for (;;) {
                if (j >= len) {
                    fail(WH_RC_SYNTAX, i, "the string that starts here is not closed");
                    return false;
                }
                if (src[j] == c) {
                    if (j + 1 < len && src[j + 1] == c) {
                        tok.text += c;
                        j += 2;
                        continue;
                    }
                    j++;
                    break;
                }
                tok.text += src[j++];
            }
            if (tok.text.size() > MAXSTR) {
                fail(WH_RC_SYNTAX, i, "a string is longer than %d bytes", MAXSTR);
                return false;
            }
            tok.kind = T_STR;
        } else {
            for (const char* s : SYMBOLS) {
                size_t n = std::strlen(s);
                if (static_cast<size_t>(len - i) >= n && std::memcmp(src + i, s, n) == 0) {
                    tok.kind = T_SYM;
                    tok.text = s;
                    j = i + static_cast<int>(n);
                    break;
                }
            }
            if (tok.kind != T_SYM) {
                if (static_cast<unsigned char>(c) >= 0x20 && static_cast<unsigned char>(c) < 0x7f)
                    fail(WH_RC_SYNTAX, i, "the character '%c' has no meaning here", c);
                else
                    fail(WH_RC_SYNTAX, i, "the byte 0x%02X has no meaning here", static_cast<unsigned char>(c));
                return false;
            }
        }
        tok.len = j - i;
        next = j;
        return true;
    }
    bool issym(const char* s) const { return tok.kind == T_SYM && tok.text == s; }
    bool isword(const char* w) const { return tok.kind == T_WORD && ieq(tok.text, w); }

    // ------------------------------------------------------------ nodes
    rctype node(short code, short type, SQLOP** out) {
        if (rctype r = get_node(out)) return fail(r, tok.pos, "out of memory");
        (*out)->code = code;
        (*out)->type = type;
        return 0;
    }
    // An operator over the given operands, which it takes over.
    Tree op(short code, short type, Kind kind, int pos, std::vector<Tree>& kids) {
        Tree t;
        t.kind = kind;
        t.pos = pos;
        if (node(code, type, &t.n)) return t;
        for (size_t i = 0; i < kids.size(); i++) {
            if (rctype r = set_child(t.n, static_cast<int>(i), kids[i].n)) {
                fail(r, pos, "out of memory");
                return t;
            }
            kids[i].release();
            t.height = std::max(t.height, kids[i].height + 1);
        }
        if (t.height > WH_MAXDEPTH) fail(WH_RC_DEEP, pos, "the clause is nested more than %d levels deep", WH_MAXDEPTH);
        return t;
    }
    Tree op2(short code, short type, Kind kind, int pos, Tree a, Tree b) {
        std::vector<Tree> k;
        k.push_back(std::move(a));
        k.push_back(std::move(b));
        return op(code, type, kind, pos, k);
    }
    Tree litn(double v, int pos) {
        Tree t;
        t.kind = K_NUM;
        t.pos = pos;
        if (node(OP_LITN, -8, &t.n)) return t;
        t.n->u.nleaf.nbr = v;
        std::memcpy(t.n->u.nleaf.nbr_collatable, &v, 8);
        hscsdbl(t.n->u.nleaf.nbr_collatable, 8);
        return t;
    }
    Tree litc(const std::string& s, int pos) {
        Tree t;
        t.kind = K_CHR;
        t.pos = pos;
        if (node(OP_LITC, static_cast<short>(s.size()), &t.n)) return t;
        if (rctype r = wh_setlitc(t.n, s.data(), static_cast<int>(s.size()))) fail(r, pos, "out of memory");
        return t;
    }

    // ------------------------------------------------------------ grammar
    Tree orexpr() { return chain(OP_LOR, "or", &Parser::andexpr); }
    Tree andexpr() { return chain(OP_LAND, "and", &Parser::notexpr); }

    // One operator over one or more operands in a row, kept as one node.
    Tree chain(short code, const char* word, Tree (Parser::*sub)()) {
        int pos = tok.pos;
        Tree first = (this->*sub)();
        if (rc || !isword(word)) return first;
        std::vector<Tree> kids;
        kids.push_back(std::move(first));
        while (!rc && isword(word)) {
            if (!lex()) return Tree{};
            kids.push_back((this->*sub)());
        }
        if (rc) return Tree{};
        return op(code, 0, K_COND, pos, kids);
    }

    Tree notexpr() {
        if (!isword("not")) return predicate();
        int pos = tok.pos;
        if (++nest > MAXNEST) return deep(pos);
        if (!lex()) return Tree{};
        Tree a = notexpr();
        nest--;
        if (rc) return a;
        std::vector<Tree> k;
        k.push_back(std::move(a));
        return op(OP_LNOT, 0, K_COND, pos, k);
    }

    Tree deep(int pos) {
        fail(WH_RC_DEEP, pos, "the clause is nested more than %d levels deep", MAXNEST);
        return Tree{};
    }

    // The compare operators and their codes.
    short comparecode() const {
        if (tok.kind != T_SYM) return 0;
        struct C {
            const char* s;
            short code;
        };
        static const C tbl[] = {{"=", OP_CEQ},    {"^=", OP_CNE},   {"~=", OP_CNE},   {"!=", OP_CNE},
                                {"<>", OP_CNE},   {"<", OP_CLT},    {"<=", OP_CLE},   {">", OP_CGT},
                                {">=", OP_CGE},   {"=:", OP_CTEQ},  {"^=:", OP_CTNE}, {"~=:", OP_CTNE},
                                {"!=:", OP_CTNE}, {"<:", OP_CTLT},  {"<=:", OP_CTLE}, {">:", OP_CTGT},
                                {">=:", OP_CTGE}, {"=*", OP_SDX}};
        for (const C& c : tbl)
            if (tok.text == c.s) return c.code;
        return 0;
    }

    bool needvalue(const Tree& t, const char* role) {
        if (rc) return false;
        if (t.kind != K_COND) return true;
        fail(WH_RC_TYPES, t.pos, "%s must be a value, not a condition", role);
        return false;
    }
    bool needkind(const Tree& t, Kind k, const char* role) {
        if (!needvalue(t, role)) return false;
        if (t.kind == k) return true;
        fail(WH_RC_TYPES, t.pos, "%s must be %s, not %s", role, kindname(k), kindname(t.kind));
        return false;
    }
    bool samekind(const Tree& a, const Tree& b, const char* what) {
        if (!needvalue(a, what) || !needvalue(b, what)) return false;
        if (a.kind == b.kind) return true;
        fail(WH_RC_TYPES, b.pos, "%s compares %s with %s", what, kindname(a.kind), kindname(b.kind));
        return false;
    }

    Tree predicate() {
        Tree left = value();
        if (rc) return left;
        bool neg = false;
        if (isword("not")) {
            neg = true;
            if (!lex()) return Tree{};
        }
        if (short code = comparecode()) {
            if (neg) {
                // "not =", "not =:" and "not =*" are the negated forms.
                if (code == OP_CEQ) code = OP_CNE;
                else if (code == OP_CTEQ) code = OP_CTNE;
                else if (code == OP_SDX) code = OP_NSDX;
                else return expectedT("'=', '=:' or '=*' after 'not'");
            }
            std::string sym = tok.text;
            if (!lex()) return Tree{};
            Tree right = value();
            if (rc) return Tree{};
            if (code == OP_SDX || code == OP_NSDX) {
                if (!needkind(left, K_CHR, "the left of =*") || !needkind(right, K_CHR, "the right of =*"))
                    return Tree{};
            } else if (!samekind(left, right, ("'" + sym + "'").c_str())) {
                return Tree{};
            }
            return op2(code, 0, K_COND, left.pos, std::move(left), std::move(right));
        }
        if (isword("like") || isword("contains")) {
            bool like = isword("like");
            short code = like ? (neg ? OP_NLKE : OP_LIKE) : (neg ? OP_NCON : OP_CONT);
            if (!lex()) return Tree{};
            Tree right = value();
            if (rc || !needkind(left, K_CHR, like ? "the left of 'like'" : "the left of 'contains'") ||
                !needkind(right, K_CHR, like ? "a pattern" : "what 'contains' looks for"))
                return Tree{};
            return op2(code, 0, K_COND, left.pos, std::move(left), std::move(right));
        }
        if (isword("between")) {
            if (!lex()) return Tree{};
            Tree lo = value();
            if (rc) return Tree{};
            if (!isword("and")) return expectedT("'and' of 'between'");
            if (!lex()) return Tree{};
            Tree hi = value();
            if (rc || !samekind(left, lo, "'between'") || !samekind(left, hi, "'between'")) return Tree{};
            int at = left.pos;
            std::vector<Tree> k;
            k.push_back(std::move(left));
            k.push_back(std::move(lo));
            k.push_back(std::move(hi));
            return op(neg ? OP_NBTW : OP_BETW, 0, K_COND, at, k);
        }
        if (isword("in") || issym("in:")) return inlist(std::move(left), neg, issym("in:"));
        if (isword("is")) {
            if (neg) return expectedT("'in', 'like', 'between', 'contains' or a comparison after 'not'");
            if (!lex()) return Tree{};
            bool isnot = isword("not");
            if (isnot && !lex()) return Tree{};
            if (!isword("null") && !isword("missing")) return expectedT("'null' or 'missing'");
            if (!lex() || !needvalue(left, "what 'is null' tests")) return Tree{};
            int at = left.pos;
            std::vector<Tree> k;
            k.push_back(std::move(left));
            return op(isnot ? OP_NTNL : OP_ISNL, 0, K_COND, at, k);
        }
        if (neg) return expectedT("'in', 'like', 'between', 'contains' or a comparison after 'not'");
        return left;
    }
    Tree expectedT(const char* what) {
        expected(what);
        return Tree{};
    }

    // A constant of a set: a number (with its sign), a missing value or a string.
    Tree constant() {
        int pos = tok.pos;
        if (tok.kind == T_STR) {
            Tree t = litc(tok.text, pos);
            if (!rc) lex();
            return t;
        }
        double sign = 1;
        if (issym("-") || issym("+")) {
            sign = issym("-") ? -1 : 1;
            if (!lex()) return Tree{};
            if (tok.kind != T_NUM) return expectedT("a number after the sign");
        }
        if (tok.kind == T_NUM || tok.kind == T_MISS) {
            Tree t = litn(tok.kind == T_NUM ? sign * tok.num : tok.num, pos);
            if (!rc) lex();
            return t;
        }
        return expectedT("a number, a missing value or a string in the list");
    }

    Tree inlist(Tree left, bool neg, bool truncated) {
        int pos = left.pos;
        const char* what = truncated ? "'in:'" : "'in'";
        if (!lex()) return Tree{};
        if (!issym("(")) return expectedT("'(' of the list");
        if (!lex()) return Tree{};
        std::vector<Tree> elems;
        for (;;) {
            Tree e = constant();
            if (rc) return Tree{};
            if (truncated && e.kind != K_CHR) {
                fail(WH_RC_TYPES, e.pos, "the list of 'in:' holds strings only");
                return Tree{};
            }
            if (!samekind(left, e, what)) return Tree{};
            elems.push_back(std::move(e));
            if (issym(",")) {
                if (!lex()) return Tree{};
                continue;
            }
            if (issym(")")) break;
            return expectedT("',' or ')' in the list");
        }
        if (!lex()) return Tree{};
        if (left.kind == K_NUM) {
            // Numbers are searched on the assumption that they ascend.
            std::stable_sort(elems.begin(), elems.end(), [](const Tree& a, const Tree& b) {
                double x = a.n->u.nleaf.nbr, y = b.n->u.nleaf.nbr;
                bool mx = vzismiss(x), my = vzismiss(y);
                if (mx || my) return mx && my ? vzmrank(x) < vzmrank(y) : mx;
                return x < y;
            });
        } else if (truncated) {
            // A truncated list is searched on the assumption that it ascends,
            // whatever the host says: it has to.
            std::stable_sort(elems.begin(), elems.end(), [](const Tree& a, const Tree& b) {
                const SQLCLEAF &x = a.n->u.cleaf, &y = b.n->u.cleaf;
                int n = std::max(x.leng, y.leng);
                for (int i = 0; i < n; i++) {
                    unsigned char cx = i < x.leng ? x.c[i] : ' ', cy = i < y.leng ? y.c[i] : ' ';
                    if (cx != cy) return cx < cy;
                }
                return false;
            });
        } else if (elems.size() > 1) {
            // Strings stay as written and say that they are not in order.
            for (Tree& e : elems) e.n->nodeflags |= WH_NF_UNORDERED;
        }
        Tree set = op(OP_SET, 0, K_COND, pos, elems);
        if (rc) return Tree{};
        short code = truncated ? (neg ? OP_TNIN : OP_TIN) : (neg ? OP_NIN : OP_IN);
        return op2(code, 0, K_COND, pos, std::move(left), std::move(set));
    }

    Tree value() {
        Tree a = sum();
        while (!rc && issym("||")) {
            int pos = tok.pos;
            if (!lex()) return Tree{};
            Tree b = sum();
            if (rc || !needkind(a, K_CHR, "an operand of '||'") || !needkind(b, K_CHR, "an operand of '||'"))
                return Tree{};
            // The evaluator joins into a buffer of 32768 bytes.
            int la = a.n->type, lb = b.n->type;
            if (la + lb > MAXSTR) {
                fail(WH_RC_TYPES, pos, "'||' would make a string longer than %d bytes", MAXSTR);
                return Tree{};
            }
            a = op2(OP_CONC, static_cast<short>(la + lb), K_CHR, a.pos, std::move(a), std::move(b));
        }
        return a;
    }

    Tree arith(Tree (Parser::*sub)(), const char* s1, short c1, const char* s2, short c2) {
        Tree a = (this->*sub)();
        while (!rc && (issym(s1) || issym(s2))) {
            short code = issym(s1) ? c1 : c2;
            std::string sym = tok.text;
            if (!lex()) return Tree{};
            Tree b = (this->*sub)();
            std::string role = "an operand of '" + sym + "'";
            if (rc || !needkind(a, K_NUM, role.c_str()) || !needkind(b, K_NUM, role.c_str())) return Tree{};
            a = op2(code, -8, K_NUM, a.pos, std::move(a), std::move(b));
        }
        return a;
    }
    Tree sum() { return arith(&Parser::product, "+", OP_AADD, "-", OP_ASUB); }
    Tree product() { return arith(&Parser::power, "*", OP_AMUL, "/", OP_ADIV); }

    Tree power() {
        Tree a = unary();
        if (rc || !issym("**")) return a;
        if (++nest > MAXNEST) return deep(tok.pos);
        if (!lex()) return Tree{};
        Tree b = power();
        nest--;
        if (rc || !needkind(a, K_NUM, "an operand of '**'") || !needkind(b, K_NUM, "an operand of '**'"))
            return Tree{};
        return op2(OP_APOW, -8, K_NUM, a.pos, std::move(a), std::move(b));
    }

    Tree unary() {
        if (!issym("-") && !issym("+")) return primary();
        bool minus = issym("-");
        int pos = tok.pos;
        if (++nest > MAXNEST) return deep(pos);
        if (!lex()) return Tree{};
        Tree a = unary();
        nest--;
        if (rc || !needkind(a, K_NUM, minus ? "the operand of '-'" : "the operand of '+'")) return Tree{};
        a.pos = pos;
        if (!minus) return a;
        if (a.n->code == OP_LITN) {
            // A missing value stays missing; a number changes sign.
            double v = a.n->u.nleaf.nbr;
            return litn(vzismiss(v) ? v : -v, pos);
        }
        std::vector<Tree> k;
        k.push_back(std::move(a));
        return op(OP_ANEG, -8, K_NUM, pos, k);
    }

    Tree primary() {
        int pos = tok.pos;
        switch (tok.kind) {
        case T_NUM:
        case T_MISS: {
            Tree t = litn(tok.num, pos);
            if (!rc) lex();
            return t;
        }
        case T_STR: {
            Tree t = litc(tok.text, pos);
            if (!rc) lex();
            return t;
        }
        case T_SYM:
            if (issym("(")) {
                if (++nest > MAXNEST) return deep(pos);
                if (!lex()) return Tree{};
                Tree t = orexpr();
                nest--;
                if (rc) return Tree{};
                if (!issym(")")) return expectedT("')'");
                if (!lex()) return Tree{};
                t.pos = pos;
                return t;
            }
            return expectedT("a value");
        case T_WORD:
            if (isword("missing") && peeksym("(")) return missingcall();
            if (keyword(tok.text)) return expectedT("a value");
            if (peeksym("(") && agg && agg->isagg(agg->ctx, tok.text.data(), static_cast<int>(tok.text.size())))
                return aggcall();
            if (peeksym("(")) return funccall();
            return column();
        default:
            return expectedT("a value");
        }
    }
    bool peeksym(const char* s) {
        Token save = tok;
        int savenext = next;
        bool ok = lex() && issym(s);
        tok = save;
        next = savenext;
        return ok;
    }

    Tree column() {
        int pos = tok.pos;
        for (int i = 0; i < ncols; i++) {
            const WH_PCOL& c = cols[i];
            if (c.namelen != static_cast<int>(tok.text.size())) continue;
            if (!ieq(tok.text, std::string(c.name, c.namelen).c_str())) continue;
            Tree t;
            t.pos = pos;
            t.kind = c.type == 1 ? K_NUM : K_CHR;
            short type = static_cast<short>(c.type == 1 ? -c.length : std::min(c.length, MAXSTR));
            if (node(OP_NAME, type, &t.n)) return t;
            SQLVLEAF& v = t.n->u.vleaf;
            int nl = std::min(c.namelen, static_cast<int>(sizeof v.name));
            std::memcpy(v.name, c.name, nl);
            v.namelen = static_cast<short>(nl);
            v.leng = static_cast<short>(std::min(c.length, MAXSTR));
            v.offset = c.npos;
            v.nvar0 = c.nvar0;
            lex();
            return t;
        }
        fail(WH_RC_NOCOLUMN, pos, "the table has no column %s", tok.text.c_str());
        return Tree{};
    }

    // An aggregate: "name(*)", "name(distinct value)" or "name(value)",
    // turned into whatever leaf the caller makes for it.
    Tree aggcall() {
        int pos = tok.pos;
        std::string name = tok.text;
        if (inagg) {
            fail(WH_RC_SYNTAX, pos, "an aggregate cannot stand inside another");
            return Tree{};
        }
        if (!lex() || !lex()) return Tree{};
        bool distinct = false;
        Tree arg;
        if (issym("*")) {
            if (!lex()) return Tree{};
        } else {
            if (isword("distinct")) {
                distinct = true;
                if (!lex()) return Tree{};
            }
            inagg = true;
            arg = value();
            inagg = false;
            if (rc || !needvalue(arg, "an aggregate's argument")) return Tree{};
        }
        if (!issym(")")) return expectedT("')' of the aggregate");
        if (!lex()) return Tree{};
        Tree t;
        t.pos = pos;
        char why[200] = "";
        int at = arg.n ? arg.pos : pos;
        rctype r = agg->make(agg->ctx, name.data(), static_cast<int>(name.size()), distinct, arg.release(), &t.n, why,
                             sizeof why);
        if (r) {
            fail(r, at, "%s", why);
            return Tree{};
        }
        t.kind = t.n->type < 0 ? K_NUM : K_CHR;
        return t;
    }

    // "missing(x)": the missing-value test written as a call.
    Tree missingcall() {
        int pos = tok.pos;
        if (!lex() || !lex()) return Tree{};
        if (++nest > MAXNEST) return deep(pos);
        Tree a = value();
        nest--;
        if (rc || !needvalue(a, "the argument of missing()")) return Tree{};
        if (!issym(")")) return expectedT("')' of missing()");
        if (!lex()) return Tree{};
        std::vector<Tree> k;
        k.push_back(std::move(a));
        return op(OP_ISNL, 0, K_COND, pos, k);
    }

    Tree funccall() {
        int pos = tok.pos;
        std::string name = tok.text;
        if (!lex() || !lex()) return Tree{};
        if (++nest > MAXNEST) return deep(pos);
        std::vector<Tree> args;
        if (!issym(")")) {
            for (;;) {
                Tree a = value();
                if (rc) return Tree{};
                if (!needvalue(a, "a function's argument")) return Tree{};
                args.push_back(std::move(a));
                if (issym(",")) {
                    if (!lex()) return Tree{};
                    continue;
                }
                if (issym(")")) break;
                return expectedT("',' or ')' of the call");
            }
        }
        nest--;
        if (!lex()) return Tree{};
        std::vector<char> kinds;
        std::vector<short> types;
        for (const Tree& a : args) {
            kinds.push_back(a.kind == K_NUM ? WH_FARG_NUM : WH_FARG_STR);
            types.push_back(a.n->type);
        }
        WH_FUNCINFO fi;
        int bad = 0;
        rctype r = wh_chkfunc(name.data(), static_cast<int>(name.size()), static_cast<int>(args.size()),
                              kinds.data(), types.data(), &fi, &bad);
        if (r) {
            int at = bad > 0 ? args[bad - 1].pos : pos;
            char what[160];
            wh_chkfunctext(r, name.c_str(), bad, &fi, what, sizeof what);
            fail(r, at, "%s", what);
            return Tree{};
        }
        Tree f;
        if (node(OP_FUNC, fi.restype, &f.n)) return Tree{};
        SQLOP_FUNC& fn = f.n->u.func;
        std::memcpy(fn.name, name.data(), name.size());
        vzMP(fn.name, static_cast<int>(name.size()));
        fn.namelen = static_cast<short>(name.size());
        fn.code = fi.code;
        fn.type = fi.functype;
        f.kind = fi.functype == 1 ? K_NUM : K_CHR;
        std::vector<Tree> k;
        k.push_back(std::move(f));
        for (Tree& a : args) k.push_back(std::move(a));
        return op(OP_FLST, fi.restype, fi.functype == 1 ? K_NUM : K_CHR, pos, k);
    }
};

}  // namespace

rctype whparse(const char* clause, int len, const WH_PCOL* cols, int ncols, SQLOP** tree, WH_PERR* err) {
    if (err) {
        err->col = 0;
        err->text[0] = 0;
    }
    if (!tree || (!clause && len > 0) || len < 0 || ncols < 0 || (ncols > 0 && !cols)) return WH_RC_NULLARG;
    *tree = nullptr;
    Parser p{clause, len, cols, ncols, err, Token{}};
    if (!p.lex()) return p.rc;
    if (p.tok.kind == T_END) return p.fail(WH_RC_SYNTAX, p.tok.pos, "the clause is empty");
    Tree t = p.orexpr();
    if (!p.rc && p.tok.kind != T_END) p.expected("'and', 'or' or the end of the clause");
    if (p.rc) return p.rc;
    *tree = t.release();
    return 0;
}

rctype whparsex(const char* text, int len, int start, const WH_PCOL* cols, int ncols, const WH_PAGG* agg,
                SQLOP** tree, int* endpos, WH_PERR* err) {
    if (err) {
        err->col = 0;
        err->text[0] = 0;
    }
    if (!tree || !endpos || (!text && len > 0) || len < 0 || start < 0 || start > len || ncols < 0 ||
        (ncols > 0 && !cols))
        return WH_RC_NULLARG;
    *tree = nullptr;
    Parser p{text, len, cols, ncols, err, Token{}};
    p.next = start;
    p.agg = agg;
    if (!p.lex()) return p.rc;
    if (p.tok.kind == T_END) return p.fail(WH_RC_SYNTAX, p.tok.pos, "expected a value, found the end");
    Tree t = p.orexpr();
    if (p.rc) return p.rc;
    *endpos = p.tok.pos;
    *tree = t.release();
    return 0;
}

}  // namespace vrta
