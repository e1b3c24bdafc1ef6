// Cutting a query into its clauses: SELECT ... FROM table [WHERE ...]
// [GROUP BY ...] [HAVING ...] [ORDER BY ...] [LIMIT n]. Keywords count only
// outside strings and brackets; each clause may come once and in this order.
#include "wh/whsql.h"

#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace vrta {

namespace {

bool wordch(char c) { return isalnum(static_cast<unsigned char>(c)) || c == '_' || c == '$'; }

rctype fail(WH_PERR* err, int pos, const char* fmt, ...) __attribute__((format(printf, 3, 4)));
rctype fail(WH_PERR* err, int pos, const char* fmt, ...) {
    if (err) {
        err->col = pos + 1;
        int n = snprintf(err->text, sizeof err->text, "at column %d: ", pos + 1);
        va_list ap;
        va_start(ap, fmt);
        vsnprintf(err->text + n, sizeof err->text - n, fmt, ap);
        va_end(ap);
    }
    return WH_RC_SQLSYNTAX;
}

}  // namespace

void whsqltoken(const char* text, int pos, int end, int* tstart, int* tlen) {
    while (pos < end && isspace(static_cast<unsigned char>(text[pos]))) pos++;
    *tstart = pos;
    if (pos >= end) {
        *tlen = 0;
        return;
    }
    int j = pos;
    char c = text[pos];
    if (wordch(c)) {
        while (j < end && wordch(text[j])) j++;
    } else if (c == '\'' || c == '"') {
        j++;
        while (j < end) {
            if (text[j] == c) {
                if (j + 1 < end && text[j + 1] == c) {
                    j += 2;
                    continue;
                }
                j++;
                break;
            }
            j++;
        }
    } else {
        j++;
    }
    *tlen = j - pos;
}

bool whsqlis(const char* text, int tstart, int tlen, const char* word) {
    if (static_cast<int>(strlen(word)) != tlen) return false;
    for (int i = 0; i < tlen; i++)
        if (toupper(static_cast<unsigned char>(text[tstart + i])) != toupper(static_cast<unsigned char>(word[i])))
            return false;
    return true;
}

rctype whsqlsplit(const char* text, int len, WHSQL_PARTS* parts, WH_PERR* err) {
    if (err) {
        err->col = 0;
        err->text[0] = 0;
    }
    if (!text || len < 0 || !parts) return WH_RC_NULLARG;
    *parts = WHSQL_PARTS{};
    // A trailing semicolon ends the statement.
    int end = len;
    while (end > 0 && isspace(static_cast<unsigned char>(text[end - 1]))) end--;
    if (end > 0 && text[end - 1] == ';') end--;

    struct Kw {
        const char* word;
        const char* second;
        WHSQL_PART* part;
    } kws[] = {{"SELECT", nullptr, &parts->select}, {"FROM", nullptr, &parts->from},
               {"WHERE", nullptr, &parts->where},   {"GROUP", "BY", &parts->groupby},
               {"HAVING", nullptr, &parts->having}, {"ORDER", "BY", &parts->orderby},
               {"LIMIT", nullptr, &parts->limit}};
    constexpr int NKW = 7;
    int last = -1;
    WHSQL_PART* open = nullptr;
    int depth = 0;
    int pos = 0;
    for (;;) {
        int ts, tl;
        whsqltoken(text, pos, end, &ts, &tl);
        if (tl == 0) break;
        pos = ts + tl;
        char c = text[ts];
        if ((c == '\'' || c == '"') && (tl < 2 || text[ts + tl - 1] != c))
            return fail(err, ts, "the string that starts here is not closed");
        if (c == '(') depth++;
        if (c == ')' && --depth < 0) return fail(err, ts, "')' without its '('");
        if (depth > 0 || !wordch(c)) continue;
        for (int k = 0; k < NKW; k++) {
            if (!whsqlis(text, ts, tl, kws[k].word)) continue;
            int ks = ts;
            if (kws[k].second) {
                int t2, l2;
                whsqltoken(text, pos, end, &t2, &l2);
                if (!whsqlis(text, t2, l2, kws[k].second))
                    return fail(err, t2, "expected %s after %s", kws[k].second, kws[k].word);
                pos = t2 + l2;
            }
            if (k <= last) return fail(err, ks, "%s%s%s is out of place", kws[k].word, kws[k].second ? " " : "",
                                     kws[k].second ? kws[k].second : "");
            if (last == -1 && k != 0) return fail(err, ks, "a query starts with SELECT");
            if (open) open->end = ks;
            open = kws[k].part;
            open->start = pos;
            last = k;
            break;
        }
        if (last == -1) return fail(err, ts, "a query starts with SELECT");
    }
    if (depth > 0) return fail(err, end, "a '(' is not closed");
    if (last == -1) return fail(err, 0, "the query is empty");
    if (open) open->end = end;
    auto empty = [&](const WHSQL_PART& p, const char* what) -> rctype {
        int ts, tl;
        whsqltoken(text, p.start, p.end, &ts, &tl);
        if (tl == 0) return fail(err, p.start, "%s is empty", what);
        return 0;
    };
    if (rctype rc = empty(parts->select, "the SELECT list")) return rc;
    if (parts->from.start < 0) return fail(err, end, "expected FROM and a table");
    int ts, tl;
    whsqltoken(text, parts->from.start, parts->from.end, &ts, &tl);
    if (tl == 0 || !wordch(text[ts])) return fail(err, ts, "expected a table name after FROM");
    if (tl > 32) return fail(err, ts, "a table name has at most 32 characters");
    for (int i = 0; i < tl; i++) parts->table[i] = static_cast<char>(toupper(static_cast<unsigned char>(text[ts + i])));
    parts->table[tl] = 0;
    int t2, l2;
    whsqltoken(text, ts + tl, parts->from.end, &t2, &l2);
    if (l2) return fail(err, t2, "a query reads one table: nothing may follow its name here");
    if (parts->where.start >= 0)
        if (rctype rc = empty(parts->where, "WHERE")) return rc;
    if (parts->groupby.start >= 0)
        if (rctype rc = empty(parts->groupby, "GROUP BY")) return rc;
    if (parts->having.start >= 0)
        if (rctype rc = empty(parts->having, "HAVING")) return rc;
    if (parts->orderby.start >= 0)
        if (rctype rc = empty(parts->orderby, "ORDER BY")) return rc;
    if (parts->limit.start >= 0) {
        whsqltoken(text, parts->limit.start, parts->limit.end, &ts, &tl);
        bool digits = tl > 0 && tl < 19;
        for (int i = 0; digits && i < tl; i++) digits = isdigit(static_cast<unsigned char>(text[ts + i])) != 0;
        if (!digits) return fail(err, ts, "LIMIT takes a whole number");
        parts->limit_n = strtoll(text + ts, nullptr, 10);
        whsqltoken(text, ts + tl, parts->limit.end, &t2, &l2);
        if (l2) return fail(err, t2, "nothing may follow the LIMIT");
    }
    return 0;
}

}  // namespace vrta
