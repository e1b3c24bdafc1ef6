// What the domain and the table option parsers share: reading one option of
// the form KEY = VALUE from a track, with the checks of each kind of value.
// A handler checks its whole value before it stores anything, so a
// malformed option leaves its block as it was.
#pragma once
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "hp/hptoken.h"
#include "ssup/vrtadef.h"

namespace vrta {

struct OptParse {
    void* track;
    XXTOKEN* tok;      // the value in hand
    int used;          // tokens of the option read so far

    // Marks the token at index `at` of the option as the fault (the host
    // underlines it), names it in the substitution and gives the code.
    rctype bad(int at);
    // The value token (index 2), of the given types; bad otherwise.
    rctype value(int types);
    // A "YES" or "NO" name: *yes 1 or 0.
    rctype yesno(int* yes);
    // One of the words (names), the index into *which.
    rctype word(const char* const* words, int n, int* which);
    // A number within lo..hi.
    rctype num(int32_t lo, int32_t hi, int32_t* v);
    rctype num64(int64_t lo, int64_t hi, int64_t* v);
    // A quoted string without its quotes into out, at most max bytes; longer
    // is malformed unless cut, when it is cut at max. out gets a terminator
    // when there is room (room is max + 1 for that).
    rctype str(char* out, int room, int max, bool cut, int* len, int types = 1 << TK_STRING);
    // A path list: one string or a parenthesised list, as newly allocated text.
    rctype path(char** text, int* len);
    // A list of names, each of at most max bytes, blank-padded to width in
    // fresh records of rsize bytes whose first member is the link and whose
    // name follows at nameoff. An empty list "()" gives null.
    rctype names(int max, int width, int rsize, int nameoff, void** head, int* count);
};

// The types a value may have, as a mask for OptParse::value.
constexpr int TKM_NAME = 1 << TK_NAME;
constexpr int TKM_STRING = 1 << TK_STRING;
constexpr int TKM_NUMBER = 1 << TK_NUMBER;

// One keyword and what it does with its value; a handler returns 0 with
// p.used set to the tokens the option took.
struct OPTKEY {
    const char* name;
    rctype (*fn)(OptParse& p, void* block);
};

// Reads one option of a track by the table: the protocol of hpdpars and
// hpopars (scanned, codes, flags). *block is made by make() at the first
// option; a keyword not in the table gives HP_RC_NOTMINE and reads nothing.
rctype optparse(void* track, const OPTKEY* keys, int nkeys, int* scanned, void** block, void* (*make)(void* arg),
                void* arg);

// Handlers for the common kinds of option, on fields of a block by offset.
// YES sets `on` and clears `off` in the int at dbg; NO does the opposite.
template <size_t dbg, int on, int off>
rctype optbits(OptParse& p, void* b) {
    int yes;
    if (rctype rc = p.yesno(&yes); rc) return rc;
    int& d = *reinterpret_cast<int*>(static_cast<char*>(b) + dbg);
    d = yes ? (d | on) & ~off : (d | off) & ~on;
    return 0;
}
// Only YES is a value: it sets bit.
template <size_t dbg, int bit>
rctype optyes(OptParse& p, void* b) {
    static const char* const words[] = {"YES"};
    int w;
    if (rctype rc = p.word(words, 1, &w); rc) return rc;
    *reinterpret_cast<int*>(static_cast<char*>(b) + dbg) |= bit;
    return 0;
}
// YES or NO as 1 or 0 in the int at off.
template <size_t off>
rctype optflag(OptParse& p, void* b) {
    int yes;
    if (rctype rc = p.yesno(&yes); rc) return rc;
    *reinterpret_cast<int*>(static_cast<char*>(b) + off) = yes;
    return 0;
}
// A string into the room bytes at off (zero-padded), its length into the int
// at lenoff unless that is 0; longer than max is malformed, or cut.
template <size_t off, int room, int max, size_t lenoff = 0, bool cut = false>
rctype opttext(OptParse& p, void* b) {
    char buf[room];
    int len = 0;
    if (rctype rc = p.str(buf, room, max, cut, &len); rc) return rc;
    std::memcpy(static_cast<char*>(b) + off, buf, room);
    if (lenoff) *reinterpret_cast<int*>(static_cast<char*>(b) + lenoff) = len;
    return 0;
}

// Frees a chain of list records made by OptParse::names.
void optfreelist(void* head, int rsize);
// Frees text made by OptParse::path (or any option copy of len bytes).
void optfreetext(char* text, int len);

}  // namespace vrta
