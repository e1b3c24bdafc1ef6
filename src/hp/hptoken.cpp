// The token layer: tokenizer, token tracks and the parser's token.
#include "hp/hptoken.h"

#include <cctype>
#include <climits>
#include <cstring>
#include <limits>

#include "hs/hs.h"
#include "option/op.h"
#include "ssup/xm.h"
#include "ssup/xp.h"

#define YT_EXPORT extern "C" __attribute__((visibility("default")))

namespace vrta {

void* ytanch = nullptr;

// ------------------------------------------------------------ tokenizer
int getc_c(TK_SRC* src) {
    if (src->pos >= src->len) return EOF;
    return static_cast<unsigned char>(src->buf[src->pos++]);
}

namespace {

int nextc(TK_SRC* src) {
    int c = src->fp ? std::fgetc(src->fp) : getc_c(src);
    if (c != EOF) src->pos += src->fp ? 1 : 0;
    return c;
}

// One byte of look-ahead, so that "/" alone stays part of a word.
int peekc(TK_SRC* src) {
    if (!src->fp) return src->pos < src->len ? static_cast<unsigned char>(src->buf[src->pos]) : EOF;
    int c = std::fgetc(src->fp);
    if (c != EOF) std::ungetc(c, src->fp);
    return c;
}

bool isblankc(int c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v'; }
bool isseparator(int c) { return isblankc(c) || c == ';' || c == ','; }
// Characters that are tokens by themselves.
bool isspecial(int c) { return c == '=' || c == '(' || c == ')' || c == '.'; }
bool endsword(int c) { return c == EOF || isseparator(c) || isspecial(c) || c == '\'' || c == '"'; }

// Passes separators, comments and "#" lines; returns the first byte of a
// token (already read), or EOF.
int skip(TK_SRC* src) {
    for (;;) {
        const bool bol = src->bol;
        int c = nextc(src);
        if (c == EOF) return EOF;
        src->bol = c == '\n';
        if (isseparator(c)) continue;
        if (c == '#' && bol) {
            while ((c = nextc(src)) != EOF && c != '\n') {
            }
            src->bol = 1;
            if (c == EOF) return EOF;
            continue;
        }
        if (c == '/' && peekc(src) == '*') {
            nextc(src);
            int prev = 0;
            for (;;) {
                c = nextc(src);
                if (c == EOF) {
                    hsprint("WARNING: End of file encountered in a comment block\n");
                    return EOF;
                }
                if (prev == '*' && c == '/') break;
                prev = c;
            }
            continue;
        }
        return c;
    }
}

}  // namespace

rctype tokenc(TK_SRC* src, char* out, int* len, int* kind, int* pos) {
    int n = 0;
    *len = 0;
    out[0] = 0;
    int c = skip(src);
    *pos = src->fp ? 0 : src->pos - 1;
    if (c == EOF) {
        *kind = TK_END;
        return 0;
    }
    src->bol = 0;
    auto add = [&](int ch) {
        if (n >= TK_BUFLEN - 1) return false;
        out[n++] = static_cast<char>(ch);
        return true;
    };
    rctype rc = 0;
    if (isspecial(c)) {
        add(c);
        *kind = TK_SPECIAL;
    } else if (c == '\'' || c == '"') {
        // A quoted string keeps its quotes; "\n" is a line feed, a doubled
        // quote stays doubled (vzstrpq reads it as one).
        const int q = c;
        add(q);
        *kind = TK_STRING;
        for (;;) {
            c = nextc(src);
            if (c == EOF) {
                rc = TK_RC_OPENQUOTE;
                break;
            }
            if (c == q) {
                if (peekc(src) == q) {
                    nextc(src);
                    if (!add(q) || !add(q)) rc = TK_RC_TOOLONG;
                    if (rc) break;
                    continue;
                }
                if (!add(q)) rc = TK_RC_TOOLONG;
                break;
            }
            if (c == '\\' && peekc(src) == 'n') {
                nextc(src);
                c = '\n';
            }
            if (!add(c)) {
                rc = TK_RC_TOOLONG;
                break;
            }
        }
    } else {
        *kind = TK_NAME;
        add(c);
        while (!endsword(c = peekc(src))) {
            // "/*" starts a comment even inside a word.
            if (c == '/' && !src->fp && src->pos + 1 < src->len && src->buf[src->pos + 1] == '*') break;
            nextc(src);
            if (!add(c)) {
                rc = TK_RC_TOOLONG;
                break;
            }
        }
    }
    if (rc == TK_RC_TOOLONG) {
        // Pass the rest of the overlong token, so that reading goes on after it.
        if (*kind == TK_STRING) {
            while ((c = nextc(src)) != EOF && c != out[0]) {
            }
        } else {
            while (!endsword(peekc(src))) nextc(src);
        }
    }
    out[n] = 0;
    *len = n;
    return rc;
}

rctype token(FILE* fp, char* out, int* len, int* kind) {
    TK_SRC src{};
    src.fp = fp;
    src.bol = 1;
    int pos = 0;
    return tokenc(&src, out, len, kind, &pos);
}

// ------------------------------------------------------------ numbers and words
namespace {

template <class T>
int readnum(const char* text, int len, T* value) {
    int i = 0;
    bool neg = false;
    if (i < len && (text[i] == '+' || text[i] == '-')) neg = text[i++] == '-';
    if (i >= len || !std::isdigit(static_cast<unsigned char>(text[i]))) return -1;
    // Accumulate negatively, so that the most negative value fits.
    constexpr T lo = std::numeric_limits<T>::min();
    T v = 0;
    for (; i < len && std::isdigit(static_cast<unsigned char>(text[i])); ++i) {
        const int d = text[i] - '0';
        if (v < (lo + d) / 10) return -1;
        v = static_cast<T>(v * 10 - d);
    }
    if (i < len) {
        T mult;
        switch (text[i]) {
            case 'K': case 'k': mult = 1024; break;
            case 'M': case 'm': mult = 1024 * 1024; break;
            case 'G': case 'g': mult = 1024 * 1024 * 1024; break;
            default: return -1;
        }
        if (++i != len) return -1;
        if (v < lo / mult) return -1;
        v = static_cast<T>(v * mult);
    }
    if (!neg) {
        if (v == lo) return -1;
        v = static_cast<T>(-v);
    }
    *value = v;
    return 0;
}

}  // namespace

int zstol(const char* text, int len, int32_t* value) { return readnum(text, len, value); }
int zstol64(const char* text, int len, int64_t* value) { return readnum(text, len, value); }

int zstrcom(const char* text, int len, const char* word) {
    const int wl = static_cast<int>(std::strlen(word));
    if (len != wl) return 1;
    for (int i = 0; i < len; ++i)
        if (std::toupper(static_cast<unsigned char>(text[i])) != std::toupper(static_cast<unsigned char>(word[i])))
            return 1;
    return 0;
}

int vzstrpq(const char* text, int len, char* out) {
    if (len < 2 || (text[0] != '\'' && text[0] != '"') || text[len - 1] != text[0]) {
        std::memcpy(out, text, static_cast<size_t>(len));
        return len;
    }
    const char q = text[0];
    int n = 0;
    for (int i = 1; i < len - 1; ++i) {
        out[n++] = text[i];
        if (text[i] == q && i + 1 < len - 1 && text[i + 1] == q) ++i;
    }
    return n;
}

// ------------------------------------------------------------ tracks
namespace {

struct YTTRACK {
    char tag[4];        // "YTRK"
    char* text;         // everything pushed, in order
    int textl, texta;
    char* pend;         // a push in progress
    int pendl, penda;
    bool pushing;
    TK_SRC src;         // reads text
    YTTOKEN** tok;      // tokens read so far; tok[next] is the next one
    int ntok, atok, next;
};

bool grow(char** buf, int* have, int need) {
    if (need <= *have) return true;
    int n = *have ? *have : 64;
    while (n < need) {
        if (n > INT_MAX / 2) return false;
        n *= 2;
    }
    void* p = xmrealc(XM_THREADPOOL, *buf, *have, n, 0);
    if (!p) return false;
    *buf = static_cast<char*>(p);
    *have = n;
    return true;
}

void freetok(YTTOKEN* t) {
    if (t->text) xmfree(XM_THREADPOOL, t->text, t->len + 1);
    xmfree(XM_THREADPOOL, t, sizeof(YTTOKEN));
}

// Classifies a word: a number when isint takes it (or it is one too big for
// an int, for the 64-bit options), otherwise a name, in upper case.
void classify(YTTOKEN* t) {
    int v;
    int rc = isint(t->text, &v);
    bool digits = false;
    if (rc == OP_TOOBIG) {
        // Digits with a sign in front and a K, M or G behind: a number all
        // the same, too big for an int.
        int i = (t->text[0] == '+' || t->text[0] == '-') ? 1 : 0;
        int end = t->len;
        if (end > i && std::strchr("KkMmGg", t->text[end - 1])) --end;
        digits = end > i;
        for (; i < end; ++i) digits = digits && std::isdigit(static_cast<unsigned char>(t->text[i]));
    }
    if (rc == 0 || digits) {
        t->type = TK_NUMBER;
        return;
    }
    t->type = TK_NAME;
    for (int i = 0; i < t->len; ++i) t->text[i] = static_cast<char>(std::toupper(static_cast<unsigned char>(t->text[i])));
}

// Reads tokens until tok[want] exists; the end of input repeats as the last.
rctype fill(YTTRACK* tr, int want) {
    char buf[TK_BUFLEN];
    while (tr->ntok <= want) {
        if (tr->ntok && tr->tok[tr->ntok - 1]->type == TK_END) return 0;
        tr->src.buf = tr->text;
        tr->src.len = tr->textl;
        int len = 0, kind = 0, pos = 0;
        rctype trc = tokenc(&tr->src, buf, &len, &kind, &pos);
        auto* t = static_cast<YTTOKEN*>(xmalloc(XM_THREADPOOL, sizeof(YTTOKEN), XM_ZERO));
        if (!t) return TK_RC_NOMEM;
        t->text = static_cast<char*>(xmalloc(XM_THREADPOOL, len + 1, 0));
        if (!t->text) {
            xmfree(XM_THREADPOOL, t, sizeof(YTTOKEN));
            return TK_RC_NOMEM;
        }
        std::memcpy(t->text, buf, static_cast<size_t>(len) + 1);
        t->len = len;
        t->pos = pos;
        t->rc = trc;
        t->type = kind;
        if (kind == TK_NAME) classify(t);
        if (tr->ntok == tr->atok) {
            const int na = tr->atok ? tr->atok * 2 : 16;
            void* p = xmrealc(XM_THREADPOOL, tr->tok, tr->atok * sizeof(YTTOKEN*), na * sizeof(YTTOKEN*), 0);
            if (!p) {
                freetok(t);
                return TK_RC_NOMEM;
            }
            tr->tok = static_cast<YTTOKEN**>(p);
            tr->atok = na;
        }
        tr->tok[tr->ntok++] = t;
    }
    return 0;
}

YTTRACK* trackof(void* track) { return static_cast<YTTRACK*>(track ? track : ytanch); }

rctype peek(void* track, int after, YTTOKEN** out) {
    YTTRACK* tr = trackof(track);
    *out = nullptr;
    if (!tr || after < 0) return TK_RC_NOMEM;
    if (rctype rc = fill(tr, tr->next + after); rc) return rc;
    const int i = tr->next + after < tr->ntok ? tr->next + after : tr->ntok - 1;
    *out = tr->tok[i];
    return (*out)->rc;
}

}  // namespace

}  // namespace vrta

using namespace vrta;

YT_EXPORT void* ytrakcp(void) {
    auto* tr = static_cast<YTTRACK*>(xmalloc(XM_THREADPOOL, sizeof(YTTRACK), XM_ZERO));
    if (!tr) return nullptr;
    std::memcpy(tr->tag, "YTRK", 4);
    tr->src.bol = 1;
    return tr;
}

YT_EXPORT int yttpshi(void* track) {
    YTTRACK* tr = trackof(track);
    if (!tr) return TK_RC_NOMEM;
    tr->pushing = true;
    tr->pendl = 0;
    return 0;
}

YT_EXPORT int yttpshb(void* track, const char* buf, int len) {
    YTTRACK* tr = trackof(track);
    if (!tr || !tr->pushing || len < 0 || (len && !buf)) return XP_RC_INTERNAL;
    if (len > INT_MAX - tr->pendl || !grow(&tr->pend, &tr->penda, tr->pendl + len)) return TK_RC_NOMEM;
    if (len) std::memcpy(tr->pend + tr->pendl, buf, static_cast<size_t>(len));
    tr->pendl += len;
    return 0;
}

YT_EXPORT int yttpshe(void* track) {
    YTTRACK* tr = trackof(track);
    if (!tr || !tr->pushing) return XP_RC_INTERNAL;
    tr->pushing = false;
    // A line end between pushes keeps a word of one from running into the next.
    const int sep = tr->textl ? 1 : 0;
    const int add = tr->pendl + sep;
    if (add > INT_MAX - tr->textl || !grow(&tr->text, &tr->texta, tr->textl + add)) return TK_RC_NOMEM;
    if (sep) tr->text[tr->textl] = '\n';
    if (tr->pendl) std::memcpy(tr->text + tr->textl + sep, tr->pend, static_cast<size_t>(tr->pendl));
    tr->textl += add;
    tr->pendl = 0;
    // An end of input already read is no longer the end: read on past it.
    if (tr->ntok > tr->next && tr->tok[tr->ntok - 1]->type == TK_END) freetok(tr->tok[--tr->ntok]);
    return 0;
}

YT_EXPORT int yttknx(void* track, int peekonly, YTTOKEN** tok) {
    rctype rc = peek(track, 0, tok);
    YTTRACK* tr = trackof(track);
    if (*tok && !peekonly && (*tok)->type != TK_END) tr->next++;
    return rc;
}

YT_EXPORT int yttkpk(void* track, int after, YTTOKEN** tok) { return peek(track, after, tok); }

YT_EXPORT void ytrakdp(void* track) {
    auto* tr = static_cast<YTTRACK*>(track);
    if (!tr) return;
    for (int i = 0; i < tr->ntok; ++i) freetok(tr->tok[i]);
    if (tr->tok) xmfree(XM_THREADPOOL, tr->tok, tr->atok * sizeof(YTTOKEN*));
    if (tr->text) xmfree(XM_THREADPOOL, tr->text, tr->texta);
    if (tr->pend) xmfree(XM_THREADPOOL, tr->pend, tr->penda);
    xmfree(XM_THREADPOOL, tr, sizeof(YTTRACK));
}

namespace vrta {

// ------------------------------------------------------------ the parser's token
XXTOKEN* atoki() {
    auto* t = static_cast<XXTOKEN*>(xmalloc(XM_THREADPOOL, sizeof(XXTOKEN), XM_ZERO));
    if (!t) return nullptr;
    t->token = static_cast<char*>(xmalloc(XM_THREADPOOL, 17, XM_ZERO));
    if (!t->token) {
        xmfree(XM_THREADPOOL, t, sizeof(XXTOKEN));
        return nullptr;
    }
    t->tokena = 17;
    return t;
}

namespace {

rctype settext(XXTOKEN* t, const char* text, int len) {
    if (len + 1 > t->tokena) {
        void* p = xmrealc(XM_THREADPOOL, t->token, t->tokena, len + 17, 0);
        if (!p) return TK_RC_NOMEM;
        t->token = static_cast<char*>(p);
        t->tokena = len + 17;
    }
    std::memcpy(t->token, text, static_cast<size_t>(len));
    t->token[len] = 0;
    t->tokenl = len;
    return 0;
}

}  // namespace

rctype atok(XXTOKEN* t, void* track, int after) {
    YTTOKEN* y = nullptr;
    rctype rc = yttkpk(track, after, &y);
    if (!y) return rc ? rc : TK_RC_NOMEM;
    t->atoken = y;
    t->type = y->subtype ? TK_NAME : y->type;
    t->subtype = y->subtype;
    if (rctype src = settext(t, y->text, y->len); src) return src;
    return rc;
}

void atokt(XXTOKEN* t) {
    if (!t) return;
    if (t->token) xmfree(XM_THREADPOOL, t->token, t->tokena);
    xmfree(XM_THREADPOOL, t, sizeof(XXTOKEN));
}

int yjstrct(const char* const* item, const int* len, int n, char* out, int outmax, int* outlen) {
    int o = 0;
    auto put = [&](char c) {
        if (o >= outmax) return false;
        out[o++] = c;
        return true;
    };
    if (!put('(')) return -1;
    for (int i = 0; i < n; ++i) {
        const bool sq = std::memchr(item[i], '\'', static_cast<size_t>(len[i])) != nullptr;
        const bool dq = std::memchr(item[i], '"', static_cast<size_t>(len[i])) != nullptr;
        if (sq && dq) return -1;
        const char q = sq ? '"' : '\'';
        if ((i && !put(' ')) || !put(q)) return -1;
        for (int j = 0; j < len[i]; ++j)
            if (!put(item[i][j])) return -1;
        if (!put(q)) return -1;
    }
    if (!put(')')) return -1;
    *outlen = o;
    return 0;
}

rctype atokp(XXTOKEN* t, void* track, int after, int* ntok) {
    *ntok = 0;
    if (rctype rc = atok(t, track, after); rc) return rc;
    auto itemok = [](const YTTOKEN* y) {
        return y->type == TK_NAME || y->type == TK_NUMBER || y->type == TK_STRING || y->subtype;
    };
    if (!(t->type == TK_SPECIAL && t->token[0] == '(')) {
        if (!itemok(t->atoken)) return -1;
        char buf[TK_BUFLEN];
        int l = vzstrpq(t->token, t->tokenl, buf);
        *ntok = 1;
        return settext(t, buf, l);
    }
    // Items up to the closing parenthesis, their quotes taken off, then packed.
    constexpr int MAXITEMS = 256;
    const char* items[MAXITEMS];
    int lens[MAXITEMS];
    char* texts[MAXITEMS];
    int alloc[MAXITEMS];
    int n = 0;
    YTTOKEN* y = nullptr;
    rctype rc = 0;
    int k = after + 1;
    for (;; ++k) {
        if ((rc = yttkpk(track, k, &y)) != 0 || !y) break;
        if (y->type == TK_SPECIAL && y->text[0] == ')') break;
        if (!itemok(y) || n == MAXITEMS) {
            rc = -1;
            break;
        }
        alloc[n] = y->len + 1;
        texts[n] = static_cast<char*>(xmalloc(XM_THREADPOOL, alloc[n], 0));
        if (!texts[n]) {
            rc = TK_RC_NOMEM;
            break;
        }
        lens[n] = vzstrpq(y->text, y->len, texts[n]);
        items[n] = texts[n];
        ++n;
    }
    if (y) t->atoken = y;  // a fault is pointed at where the list went wrong
    if (rc == 0) {
        long need = 2;
        for (int i = 0; i < n; ++i) need += lens[i] + 3;
        char* packed = static_cast<char*>(xmalloc(XM_THREADPOOL, need, 0));
        int pl = 0;
        if (!packed) {
            rc = TK_RC_NOMEM;
        } else {
            rc = yjstrct(items, lens, n, packed, static_cast<int>(need), &pl) == 0 ? settext(t, packed, pl) : -1;
            xmfree(XM_THREADPOOL, packed, need);
        }
        t->type = TK_STRING;
        *ntok = k - after + 1;
    }
    for (int i = 0; i < n; ++i) xmfree(XM_THREADPOOL, texts[i], alloc[i]);
    return rc;
}

}  // namespace vrta
