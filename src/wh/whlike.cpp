// LIKE patterns: '%' any run, '_' one character. A pattern compiles into a
// chain of steps, kept in the node between rows when it is a literal.
#include <cstdlib>
#include <cstring>

#include "wh/wheval.h"

namespace vrta {

namespace {

enum : int { LK_LIT = 1, LK_ANY = 2, LK_FIND = 3, LK_ANYAFTER = 4, LK_REST = 5 };

struct LikeStep {
    int kind;
    const char* p;
    int len;
    int saved;  // where a search step last matched, to resume beyond it
    LikeStep* prev;
    LikeStep* next;
};

// The compiled pattern keeps its own copy of the text, so that a pattern
// from a row buffer may be kept too.
struct LikePat {
    LikeStep* first;
    char* text;
    int lenp;
};

void freepat(LikePat* lp) {
    if (!lp) return;
    for (LikeStep* s = lp->first; s;) {
        LikeStep* n = s->next;
        std::free(s);
        s = n;
    }
    std::free(lp->text);
    std::free(lp);
}

LikePat* compile(const char* pattern, int lenp) {
    auto* lp = static_cast<LikePat*>(std::calloc(1, sizeof(LikePat)));
    if (!lp) return nullptr;
    lp->text = static_cast<char*>(std::malloc(lenp > 0 ? lenp : 1));
    if (!lp->text) {
        std::free(lp);
        return nullptr;
    }
    if (lenp > 0) std::memcpy(lp->text, pattern, lenp);
    lp->lenp = lenp;
    const char* t = lp->text;
    LikeStep* last = nullptr;
    bool afterpct = false;
    auto add = [&](int kind, const char* p, int len) {
        auto* s = static_cast<LikeStep*>(std::calloc(1, sizeof(LikeStep)));
        if (!s) return false;
        s->kind = kind;
        s->p = p;
        s->len = len;
        s->prev = last;
        if (last) last->next = s;
        else lp->first = s;
        last = s;
        return true;
    };
    int i = 0;
    while (i < lenp) {
        if (t[i] == '%') {
            while (i < lenp && t[i] == '%') i++;
            afterpct = true;
            if (i == lenp && !add(LK_REST, t + i, 0)) goto fail;
            continue;
        }
        int j = i;
        if (t[i] == '_') {
            while (j < lenp && t[j] == '_') j++;
            if (!add(afterpct ? LK_ANYAFTER : LK_ANY, t + i, j - i)) goto fail;
        } else {
            while (j < lenp && t[j] != '_' && t[j] != '%') j++;
            if (!add(afterpct ? LK_FIND : LK_LIT, t + i, j - i)) goto fail;
        }
        afterpct = false;
        i = j;
    }
    return lp;
fail:
    freepat(lp);
    return nullptr;
}

bool restblank(const char* s, int from, int lens) {
    for (int i = from; i < lens; i++)
        if (s[i] != ' ') return false;
    return true;
}

int match(LikePat* lp, const char* s, int lens) {
    LikeStep* st = lp->first;
    int pos = 0;
    for (;;) {
        bool ok;
        if (!st) {
            if (pos >= lens || restblank(s, pos, lens)) return 1;
            ok = false;
        } else {
            switch (st->kind) {
            case LK_LIT:
                ok = pos + st->len <= lens && std::memcmp(s + pos, st->p, st->len) == 0;
                if (ok) pos += st->len;
                break;
            case LK_ANY:
                ok = pos + st->len <= lens;
                if (ok) pos += st->len;
                break;
            case LK_FIND: {
                ok = false;
                for (int q = pos; q + st->len <= lens; q++) {
                    if (std::memcmp(s + q, st->p, st->len) == 0) {
                        st->saved = q;
                        pos = q + st->len;
                        ok = true;
                        break;
                    }
                }
                break;
            }
            case LK_ANYAFTER:
                st->saved = pos;
                ok = pos + st->len <= lens;
                if (ok) pos += st->len;
                break;
            default:
                return 1;
            }
            if (ok) {
                st = st->next;
                continue;
            }
        }
        // Back off to the last search step and resume one byte beyond where
        // it matched.
        LikeStep* b = st ? st->prev : nullptr;
        if (!st) {
            for (b = lp->first; b && b->next; b = b->next) {
            }
        }
        while (b && b->kind != LK_FIND && b->kind != LK_ANYAFTER) {
            if (b->kind == LK_REST) return 1;
            b = b->prev;
        }
        if (!b) return 0;
        pos = b->saved + 1;
        if (pos > lens) return 0;
        st = b;
    }
}

}  // namespace

int whlike(const char* string, int lens, const char* pattern, int lenp, int action, void** pfirst, int is_like) {
    (void)is_like;
    if (action == 3 || action == 2) {
        if (pfirst) whlikefree(pfirst);
        if (action == 3) return 0;
        action = 1;
    }
    LikePat* lp = nullptr;
    if (action == 1 && pfirst && *pfirst) {
        lp = static_cast<LikePat*>(*pfirst);
        // A kept pattern stands for its text only.
        if (lp->lenp != lenp || (lenp > 0 && std::memcmp(lp->text, pattern, lenp) != 0)) {
            whlikefree(pfirst);
            lp = nullptr;
        }
    }
    if (!lp) {
        lp = compile(pattern, lenp < 0 ? 0 : lenp);
        if (!lp) return static_cast<int>(WH_RC_NOMEM);
        if (action == 1 && pfirst) *pfirst = lp;
    }
    int m = match(lp, string, lens < 0 ? 0 : lens);
    if (action != 1 || !pfirst) freepat(lp);
    return m;
}

void whlikefree(void** pfirst) {
    if (!pfirst || !*pfirst) return;
    freepat(static_cast<LikePat*>(*pfirst));
    *pfirst = nullptr;
}

}  // namespace vrta
