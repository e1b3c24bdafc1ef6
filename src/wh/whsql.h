// Queries people type: the statement cut into its clauses. Expressions in the
// clauses are read by the WHERE language's parser (whparsex).
#pragma once
#include "wh/wh.h"

namespace vrta {

constexpr rctype WH_RC_SQLSYNTAX = static_cast<rctype>(0x80000620u);  // the query is not understood
constexpr rctype WH_RC_SQLAGGR = static_cast<rctype>(0x80000621u);    // an aggregate where none may stand
constexpr rctype WH_RC_SQLGROUP = static_cast<rctype>(0x80000622u);   // a column neither grouped nor aggregated
constexpr rctype WH_RC_SQLSTOP = static_cast<rctype>(0x80000623u);    // the query was interrupted

// A clause: bytes [start, end) of the statement; start -1 when absent.
struct WHSQL_PART {
    int start = -1, end = -1;
};
struct WHSQL_PARTS {
    WHSQL_PART select, from, where, groupby, having, orderby, limit;
    char table[33];  // the table named in FROM, upper case
    long long limit_n = -1;
};
rctype whsqlsplit(const char* text, int len, WHSQL_PARTS* parts, WH_PERR* err);

// The next token of text from pos on, before end: a word, a number, a
// quoted string or one symbol. *tstart and *tlen locate it; *tlen is 0 at
// the end.
void whsqltoken(const char* text, int pos, int end, int* tstart, int* tlen);
bool whsqlis(const char* text, int tstart, int tlen, const char* word);

}  // namespace vrta
