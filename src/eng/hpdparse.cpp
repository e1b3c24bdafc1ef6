// One option read from a track by a table of keywords: the part the domain
// and the table option parsers share.
#include "eng/hpdparse.h"

#include <cstring>

#include "eng/hpdopt.h"
#include "ssup/xm.h"
#include "ssup/xp.h"

namespace vrta {

namespace {

// Flags a track token as the fault and names it in the substitution.
void blame(YTTOKEN* y) {
    if (!y) return;
    y->flags |= 1;
    xrmksub(1, y->text, y->len);
}

bool isword(const XXTOKEN* t, char c) { return t->type == TK_SPECIAL && t->tokenl == 1 && t->token[0] == c; }

}  // namespace

rctype OptParse::bad(int at) {
    YTTOKEN* y = nullptr;
    yttkpk(track, at, &y);
    blame(y);
    used = at;
    return HP_RC_MALFORMED;
}

rctype OptParse::value(int types) {
    rctype rc = atok(tok, track, 2);
    if (rc == TK_RC_NOMEM) return rc;
    if (rc || !((1 << tok->type) & types)) return bad(2);
    used = 3;
    return 0;
}

rctype OptParse::yesno(int* yes) {
    static const char* const words[] = {"NO", "YES"};
    return word(words, 2, yes);
}

rctype OptParse::word(const char* const* words, int n, int* which) {
    if (rctype rc = value(TKM_NAME); rc) return rc;
    for (int i = 0; i < n; ++i) {
        if (zstrcom(tok->token, tok->tokenl, words[i]) == 0) {
            *which = i;
            return 0;
        }
    }
    return bad(2);
}

rctype OptParse::num(int32_t lo, int32_t hi, int32_t* v) {
    if (rctype rc = value(TKM_NUMBER); rc) return rc;
    int32_t x = 0;
    if (zstol(tok->token, tok->tokenl, &x) != 0 || x < lo || x > hi) return bad(2);
    *v = x;
    return 0;
}

rctype OptParse::num64(int64_t lo, int64_t hi, int64_t* v) {
    if (rctype rc = value(TKM_NUMBER); rc) return rc;
    int64_t x = 0;
    if (zstol64(tok->token, tok->tokenl, &x) != 0 || x < lo || x > hi) return bad(2);
    *v = x;
    return 0;
}

rctype OptParse::str(char* out, int room, int max, bool cut, int* len, int types) {
    if (rctype rc = value(types); rc) return rc;
    int l = tok->tokenl;
    char buf[TK_BUFLEN];
    if (tok->type == TK_STRING) {
        l = vzstrpq(tok->token, tok->tokenl, buf);
    } else {
        std::memcpy(buf, tok->token, static_cast<size_t>(l));
    }
    if (l > max) {
        if (!cut) return bad(2);
        l = max;
    }
    std::memset(out, 0, static_cast<size_t>(room));
    std::memcpy(out, buf, static_cast<size_t>(l));
    if (len) *len = l;
    return 0;
}

rctype OptParse::path(char** text, int* len) {
    int n = 0;
    rctype rc = atokp(tok, track, 2, &n);
    if (rc == TK_RC_NOMEM) return rc;
    if (rc || tok->tokenl == 0) {
        blame(tok->atoken);
        used = 2;
        return HP_RC_MALFORMED;
    }
    char* t = static_cast<char*>(xmalloc(XM_THREADPOOL, tok->tokenl + 1, 0));
    if (!t) return XP_RC_NOMEM;
    std::memcpy(t, tok->token, static_cast<size_t>(tok->tokenl) + 1);
    *text = t;
    *len = tok->tokenl;
    used = 2 + n;
    return 0;
}

rctype OptParse::names(int max, int width, int rsize, int nameoff, void** head, int* count) {
    rctype rc = atok(tok, track, 2);
    if (rc == TK_RC_NOMEM) return rc;
    if (rc) return bad(2);
    const bool list = isword(tok, '(');
    int at = list ? 3 : 2;
    void* first = nullptr;
    void** link = &first;
    int n = 0;
    for (;; ++at) {
        rc = atok(tok, track, at);
        if (rc == TK_RC_NOMEM) break;
        if (list && !rc && isword(tok, ')')) break;
        const bool ok = !rc && (tok->type == TK_NAME || tok->type == TK_STRING);
        char buf[TK_BUFLEN];
        int l = ok ? vzstrpq(tok->token, tok->tokenl, buf) : 0;
        if (!ok || l == 0 || l > max) {
            optfreelist(first, rsize);
            return bad(at);
        }
        auto* r = static_cast<char*>(xmalloc(XM_THREADPOOL, rsize, XM_ZERO));
        if (!r) {
            rc = XP_RC_NOMEM;
            break;
        }
        std::memset(r + nameoff, ' ', static_cast<size_t>(width));
        std::memcpy(r + nameoff, buf, static_cast<size_t>(l));
        *link = r;
        link = reinterpret_cast<void**>(r);
        ++n;
        if (!list) break;
    }
    if (rc == TK_RC_NOMEM || rc == XP_RC_NOMEM) {
        optfreelist(first, rsize);
        return XP_RC_NOMEM;
    }
    *head = first;
    if (count) *count = n;
    used = at + 1;
    return 0;
}

void optfreelist(void* head, int rsize) {
    while (head) {
        void* next = *static_cast<void**>(head);
        xmfree(XM_THREADPOOL, head, rsize);
        head = next;
    }
}

void optfreetext(char* text, int len) {
    if (text) xmfree(XM_THREADPOOL, text, len + 1);
}

rctype optparse(void* track, const OPTKEY* keys, int nkeys, int* scanned, void** block, void* (*make)(void* arg),
                void* arg) {
    *scanned = 0;
    XXTOKEN* tok = atoki();
    if (!tok) return XP_RC_NOMEM;
    OptParse p{track, tok, 0};
    rctype rc = atok(tok, track, 0);
    const OPTKEY* key = nullptr;
    if (rc == TK_RC_NOMEM) {
        atokt(tok);
        return XP_RC_NOMEM;
    }
    if (rc) {
        rc = p.bad(0);  // a quote left open, or a word too long
    } else if (tok->type == TK_NAME) {
        for (int i = 0; i < nkeys && !key; ++i)
            if (std::strcmp(keys[i].name, tok->token) == 0) key = &keys[i];
        if (!key) {
            xrmksub(1, tok->token, tok->tokenl);
            rc = HP_RC_NOTMINE;
        }
    } else if (tok->type == TK_END) {
        rc = HP_RC_NOTMINE;
    } else {
        xrmksub(1, tok->token, tok->tokenl);
        rc = HP_RC_NOTMINE;
    }
    if (key && !*block && !(*block = make(arg))) rc = XP_RC_NOMEM;
    if (key && rc == 0) {
        rc = atok(tok, track, 1);
        if (rc == TK_RC_NOMEM)
            rc = XP_RC_NOMEM;
        else if (rc || !isword(tok, '='))
            rc = p.bad(1);
        else
            rc = key->fn(p, *block);
        if (rc == TK_RC_NOMEM) rc = XP_RC_NOMEM;
        *scanned = p.used;
    }
    atokt(tok);
    return rc;
}

}  // namespace vrta
