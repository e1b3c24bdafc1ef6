// The token layer: the tokenizer of option texts, the token tracks a parser
// reads from (their host-facing calls are in vrta/vrtaeng.h), and XXTOKEN,
// the parser's own copy of the token in hand.
#pragma once
#include <cstdint>
#include <cstdio>

#include "ssup/vrtadef.h"
#include "vrta/vrtaeng.h"

namespace vrta {

// Token types.
constexpr int TK_SPECIAL = 0;
constexpr int TK_END = 1;
constexpr int TK_NAME = 2;
constexpr int TK_STRING = 3;
constexpr int TK_NUMBER = 4;

// The longest token, quotes included.
constexpr int TK_BUFLEN = 1024;

// A raw token could not be read: a quote left open, or longer than the buffer.
constexpr rctype TK_RC_OPENQUOTE = static_cast<rctype>(0x80040020u);
constexpr rctype TK_RC_TOOLONG = static_cast<rctype>(0x80040021u);
constexpr rctype TK_RC_NOMEM = static_cast<rctype>(0x80010003u);

// A source of characters: a buffer (getc_c) or a file.
struct TK_SRC {
    const char* buf;
    int len;
    int pos;    // next byte of buf
    FILE* fp;   // a file instead of a buffer
    int bol;    // the next byte starts a line
};
// The next byte of a buffer source, or EOF.
int getc_c(TK_SRC* src);

// One raw token into out (TK_BUFLEN bytes): its kind (TK_END, TK_SPECIAL,
// TK_STRING, or TK_NAME for a word not yet classified), its length and the
// offset of its first byte. tokenc reads a buffer source, token a file.
rctype tokenc(TK_SRC* src, char* out, int* len, int* kind, int* pos);
rctype token(FILE* fp, char* out, int* len, int* kind);

// Numbers in the form a user writes them: a sign, digits and an optional K,
// M or G suffix (powers of 1024). 0, or -1 for anything else or a value that
// does not fit.
int zstol(const char* text, int len, int32_t* value);
int zstol64(const char* text, int len, int64_t* value);
// Compares a token with a word without regard to case: 0 when equal.
int zstrcom(const char* text, int len, const char* word);
// The text of a quoted token without its quotes, a doubled quote read as one;
// returns the length written to out (which holds at least len bytes).
int vzstrpq(const char* text, int len, char* out);

// The parser's token: its own copy of the text, grown as needed.
struct XXTOKEN {
    int type;
    int subtype;
    char* token;      // zero terminated
    int tokenl;
    int tokena;       // bytes allocated
    YTTOKEN* atoken;  // the track's token record
};
XXTOKEN* atoki();
// The token `after` places past the next one of the track (null: the
// engine's own), not consumed. A token with a non-zero subtype is a name.
rctype atok(XXTOKEN* t, void* track, int after);
void atokt(XXTOKEN* t);
// A list at `after`: either one token, or "(" items ")". The items are
// packed by yjstrct into t->token; *ntok gets the tokens it spans. Items must
// be names, numbers or strings.
rctype atokp(XXTOKEN* t, void* track, int after, int* ntok);
// Packs items as a path list, "('a' 'b')", each item in quotes of a kind it
// does not hold. 0, or -1 when an item holds both kinds of quote.
int yjstrct(const char* const* item, const int* len, int n, char* out, int outmax, int* outlen);

// The engine's own track, used when a parser is handed a null track.
extern void* ytanch;

}  // namespace vrta
