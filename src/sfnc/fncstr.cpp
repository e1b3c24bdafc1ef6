// Character functions. Values are fixed width and padded with blanks: the
// length of an argument is its curlen, trailing blanks included, and
// functions that only rearrange a value keep that length.
#include <algorithm>
#include <string>

#include "hs/hsnls.h"
#include "sfnc/xfint.h"

namespace vrta {

int xfsetstr(X_STRING* r, const char* s, long len) {
    long n = std::clamp(len, 0L, static_cast<long>(std::max<short>(r->maxlen, 0)));
    if (n) memmove(r->data, s, static_cast<size_t>(n));
    r->curlen = static_cast<short>(n);
    return 0;
}

int xffillstr(X_STRING* r, char c, long len) {
    long n = std::clamp(len, 0L, static_cast<long>(std::max<short>(r->maxlen, 0)));
    if (n) memset(r->data, c, static_cast<size_t>(n));
    r->curlen = static_cast<short>(n);
    return 0;
}

namespace {

int setstr(void* r, const std::string& s) { return xfsetstr(static_cast<X_STRING*>(r), s.data(), static_cast<long>(s.size())); }
// A string result that cannot be computed: blank, the missing character value.
int blank(void* r) { return xffillstr(static_cast<X_STRING*>(r), ' ', 1); }

std::string_view view(const X_STRING* s) { return {s->data, static_cast<size_t>(xfslen(s))}; }
std::string_view arg(const FNCPAR* p, int i) { return view(xfstr(p, i)); }

// Case conversion through the data's encoding when the call has one.
int casefn(FNCPAR* p, void* r, bool upper) {
    std::string_view s = arg(p, 1);
    X_STRING* rs = static_cast<X_STRING*>(r);
    HS_NLSENV* env = p->xfenv ? static_cast<HS_NLSENV*>(p->xfenv->dataenv) : nullptr;
    int n = static_cast<int>(std::min<size_t>(s.size(), static_cast<size_t>(std::max<short>(rs->maxlen, 0))));
    if (env && (upper ? env->nls_upcase : env->nls_lowcase)) {
        // The conversion may change byte counts in a multibyte encoding:
        // convert into scratch and cut at the result's room.
        std::string tmp(s.size() * 4 + 4, ' ');
        int w = (upper ? env->nls_upcase : env->nls_lowcase)(env, tmp.data(), s.data(), static_cast<int>(s.size()));
        if (w < 0) return blank(r);
        return xfsetstr(rs, tmp.data(), std::min(w, static_cast<int>(tmp.size())));
    }
    for (int i = 0; i < n; i++) {
        char c = s[static_cast<size_t>(i)];
        if (upper && c >= 'a' && c <= 'z') c = static_cast<char>(c - 32);
        if (!upper && c >= 'A' && c <= 'Z') c = static_cast<char>(c + 32);
        rs->data[i] = c;
    }
    rs->curlen = static_cast<short>(n);
    return 0;
}

// A whole number argument, or false when it is missing or out of range.
bool intarg(const FNCPAR* p, int i, long* v) {
    double x = xfnum(p, i);
    if (vzismiss(x) || x < -1e9 || x > 1e9) return false;
    *v = static_cast<long>(std::floor(x));
    return true;
}

}  // namespace

int fncupcase(FNCPAR* p, void* r) { return casefn(p, r, true); }
int fnclowcase(FNCPAR* p, void* r) { return casefn(p, r, false); }

// The length without trailing blanks; a blank value has length 1.
int fnclength(FNCPAR* p, void* r) {
    std::string_view s = arg(p, 1);
    return xfret(r, std::max(1, vzstrip(s.data(), static_cast<int>(s.size()))));
}

// 1-based position of the first occurrence of the excerpt, trailing blanks
// of the excerpt included; 0 when absent or when the excerpt is empty.
int fncindex(FNCPAR* p, void* r) {
    std::string_view s = arg(p, 1), e = arg(p, 2);
    if (e.empty()) return xfret(r, 0);
    size_t at = s.find(e);
    return xfret(r, at == std::string_view::npos ? 0.0 : static_cast<double>(at + 1));
}

// The code of the first character; 0 for an empty value.
int fncrank(FNCPAR* p, void* r) {
    std::string_view s = arg(p, 1);
    return xfret(r, s.empty() ? 0 : static_cast<unsigned char>(s[0]));
}

int fncbyte(FNCPAR* p, void* r) {
    long n = 0;
    if (!intarg(p, 1, &n) || n < 0 || n > 255) return blank(r);
    char c = static_cast<char>(n);
    return xfsetstr(static_cast<X_STRING*>(r), &c, 1);
}

// COLLATE(start [, end] [, length]): the characters from code start to end,
// or length of them, or up to 255. A given length wins over an end.
int fnccollate(FNCPAR* p, void* r) {
    long start = 0, end = 255, len = -1;
    if (!intarg(p, 1, &start) || start < 0 || start > 255) return blank(r);
    if (xfnargs(p) >= 2 && !vzismiss(xfnum(p, 2)) && !intarg(p, 2, &end)) return blank(r);
    if (xfnargs(p) >= 3 && !vzismiss(xfnum(p, 3)) && !intarg(p, 3, &len)) return blank(r);
    if (len >= 0) end = start + len - 1;
    end = std::min(end, 255L);
    std::string s;
    for (long c = start; c <= end; c++) s.push_back(static_cast<char>(c));
    return setstr(r, s);
}

int fnccompbl(X_STRING* a, X_STRING* r) {
    std::string s;
    for (char c : view(a))
        if (c != ' ' || s.empty() || s.back() != ' ') s.push_back(c);
    return setstr(r, s);
}

// Removes every character of the second argument (a blank when not given).
int fnccompress(FNCPAR* p, void* r) {
    std::string_view s = arg(p, 1), drop = xfnargs(p) >= 2 ? arg(p, 2) : std::string_view(" ");
    std::string out;
    for (char c : s)
        if (drop.find(c) == std::string_view::npos) out.push_back(c);
    return setstr(r, out);
}

// Removes a quote at the start and its partner; a doubled quote inside
// stands for one, and text after the closing quote is dropped.
int fncdequote(X_STRING* a, X_STRING* r) {
    std::string_view s = view(a);
    if (s.empty() || (s[0] != '\'' && s[0] != '"')) return xfsetstr(r, s.data(), static_cast<long>(s.size()));
    char q = s[0];
    std::string out;
    for (size_t i = 1; i < s.size(); i++) {
        if (s[i] == q) {
            if (i + 1 < s.size() && s[i + 1] == q) {
                out.push_back(q);
                i++;
                continue;
            }
            break;
        }
        out.push_back(s[i]);
    }
    return setstr(r, out);
}

// Puts double quotes around the value without its trailing blanks, doubling
// the double quotes inside.
int fncquote(X_STRING* a, X_STRING* r) {
    std::string_view s = view(a);
    s = s.substr(0, static_cast<size_t>(vzstrip(s.data(), static_cast<int>(s.size()))));
    std::string out = "\"";
    for (char c : s) {
        out.push_back(c);
        if (c == '"') out.push_back(c);
    }
    out.push_back('"');
    return setstr(r, out);
}

int fncreverse(X_STRING* a, X_STRING* r) {
    std::string s(view(a));
    std::reverse(s.begin(), s.end());
    return setstr(r, s);
}

// Leading blanks move to the end.
int fncleft(FNCPAR* p, void* r) {
    std::string_view s = arg(p, 1);
    size_t lead = std::min(s.find_first_not_of(' '), s.size());
    std::string out(s.substr(lead));
    out.append(lead, ' ');
    return setstr(r, out);
}

// Trailing blanks move to the front.
int fncright(FNCPAR* p, void* r) {
    std::string_view s = arg(p, 1);
    size_t keep = static_cast<size_t>(vzstrip(s.data(), static_cast<int>(s.size())));
    std::string out(s.size() - keep, ' ');
    out.append(s.substr(0, keep));
    return setstr(r, out);
}

int fncstrip(X_STRING* a, X_STRING* r) {
    std::string_view s = view(a);
    size_t lead = std::min(s.find_first_not_of(' '), s.size());
    s = s.substr(lead);
    return xfsetstr(r, s.data(), vzstrip(s.data(), static_cast<int>(s.size())));
}

// Trailing blanks go; a blank value keeps one.
int fnctrim(X_STRING* a, X_STRING* r) {
    std::string_view s = view(a);
    int n = vzstrip(s.data(), static_cast<int>(s.size()));
    if (n == 0) return xffillstr(r, ' ', 1);
    return xfsetstr(r, s.data(), n);
}

// REPEAT(s, n): s followed by n more copies of it.
int fncrepeat(FNCPAR* p, void* r) {
    std::string_view s = arg(p, 1);
    long n = 0;
    if (!intarg(p, 2, &n) || n < 0 || s.empty()) return blank(r);
    X_STRING* rs = static_cast<X_STRING*>(r);
    std::string out;
    for (long i = 0; i <= n && static_cast<long>(out.size()) < rs->maxlen; i++) out.append(s);
    return setstr(r, out);
}

// SUBSTR(s, pos [, len]): a position outside the value gives a blank; a
// length that is not given, not positive, or runs past the end takes the
// rest of the value.
int fncsubstr(FNCPAR* p, void* r) {
    std::string_view s = arg(p, 1);
    long pos = 0, len = -1;
    if (!intarg(p, 2, &pos) || pos < 1 || pos > static_cast<long>(s.size())) return blank(r);
    long rest = static_cast<long>(s.size()) - pos + 1;
    if (xfnargs(p) >= 3 && (!intarg(p, 3, &len) || len <= 0 || len > rest)) len = rest;
    if (len < 0) len = rest;
    return xfsetstr(static_cast<X_STRING*>(r), s.data() + pos - 1, len);
}

// SUBSTRN(s, pos [, len]): the part of [pos, pos + len - 1] that lies inside
// the value; nothing when they do not meet.
int fncsubstrn(FNCPAR* p, void* r) {
    std::string_view s = arg(p, 1);
    long pos = 0, len = static_cast<long>(s.size());
    if (!intarg(p, 2, &pos)) return xfsetstr(static_cast<X_STRING*>(r), "", 0);
    long end = static_cast<long>(s.size());
    if (xfnargs(p) >= 3) {
        if (!intarg(p, 3, &len) || len <= 0) return xfsetstr(static_cast<X_STRING*>(r), "", 0);
        end = std::min(end, pos + len - 1);
    }
    long from = std::max(pos, 1L);
    if (from > end) return xfsetstr(static_cast<X_STRING*>(r), "", 0);
    return xfsetstr(static_cast<X_STRING*>(r), s.data() + from - 1, end - from + 1);
}

// Replaces every occurrence of the target, left to right. An empty
// replacement stands for one blank.
int fnctranwrd(FNCPAR* p, void* r) {
    std::string_view s = arg(p, 1), from = arg(p, 2), to = arg(p, 3);
    if (from.empty()) return xfsetstr(static_cast<X_STRING*>(r), s.data(), static_cast<long>(s.size()));
    if (to.empty()) to = " ";
    std::string out;
    size_t i = 0;
    for (size_t at; (at = s.find(from, i)) != std::string_view::npos; i = at + from.size()) {
        out.append(s.substr(i, at - i));
        out.append(to);
    }
    out.append(s.substr(i));
    return setstr(r, out);
}

}  // namespace vrta
