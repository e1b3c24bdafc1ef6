// Case and sort tables of single-byte encodings: read from table files found
// through VRTA_NLSPATH, or else derived from the encoding itself.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwctype>
#include <iconv.h>
#include <locale.h>
#include <string>

#include "hs/hs.h"
#include "hs/hsnls.h"
#include "option/op.h"

namespace vrta {

namespace {

// Reader state of one table file.
struct PSTATE {
    std::string filepath;
    FILE* fp = nullptr;
    char linebuf[257] = {};
    int bufsize = 257;
    char* cp = nullptr;  // next unread character of linebuf
    char line[257] = {}; // the line as read, for messages
};

// The search list: the option wins over the environment variable.
std::string nlsPath() {
    char buf[257] = {};
    int len = 0;
    void* opt = opgtgbl();
    if (opt && opgetop(opt, "VRTA_NLSPATH", buf, &len) >= 0 && len > 0) return std::string(buf, static_cast<size_t>(len));
    const char* env = std::getenv("VRTA_NLSPATH");
    return env ? env : "";
}

// Opens the first file ftail found along the path. Not finding one is no
// error: *ofile stays null and the built-in tables are used.
rctype OpenNLSFile(const std::string& ftail, FILE** ofile, std::string* opath) {
    *ofile = nullptr;
    std::string path = nlsPath();
    if (path.empty()) return 0;
    // A list with an empty element is wrong as a whole, wherever the file is.
    if (path.front() == ':' || path.back() == ':' || path.find("::") != std::string::npos) {
        hsprint("NLSERROR: Invalid VRTA_NLSPATH: %.*s\n", static_cast<int>(path.size()), path.c_str());
        return NLS_RC_BADPATH;
    }
    size_t pos = 0;
    while (pos <= path.size()) {
        size_t colon = path.find(':', pos);
        if (colon == std::string::npos) colon = path.size();
        std::string dir = path.substr(pos, colon - pos);
        if (dir.back() != '/') dir += '/';
        std::string full = dir + ftail;
        if (FILE* f = std::fopen(full.c_str(), "r")) {
            *ofile = f;
            *opath = full;
            return 0;
        }
        pos = colon + 1;
    }
    return 0;
}

// An end of file is no error; a stream error is errcode.
rctype CheckError(FILE* fp, rctype errcode) { return std::ferror(fp) ? errcode : 0; }

// The next token, ended by whitespace or a character of toksep (which is
// returned as a token of its own). Empty at the end of the file.
std::string NextTok(PSTATE& ctx, const char* toksep) {
    for (;;) {
        while (ctx.cp && *ctx.cp && std::strchr(" \t\r\n", *ctx.cp)) ++ctx.cp;
        if (ctx.cp && *ctx.cp) break;
        if (!std::fgets(ctx.linebuf, ctx.bufsize, ctx.fp)) return {};
        std::strcpy(ctx.line, ctx.linebuf);
        ctx.line[std::strcspn(ctx.line, "\r\n")] = 0;
        ctx.cp = ctx.linebuf;
    }
    if (std::strchr(toksep, *ctx.cp)) return std::string(1, *ctx.cp++);
    const char* start = ctx.cp;
    while (*ctx.cp && !std::strchr(" \t\r\n", *ctx.cp) && !std::strchr(toksep, *ctx.cp)) ++ctx.cp;
    return std::string(start, static_cast<size_t>(ctx.cp - start));
}

rctype lineError(PSTATE& ctx, rctype code) {
    hsprint("NLSERROR: File=%s Line=%s Error=%s\n", ctx.filepath.c_str(), ctx.line, hsstrer(code));
    return code;
}

// Reads "NAME: 256" followed by 256 byte values into tab.
rctype readTable(PSTATE& ctx, unsigned char* tab) {
    std::string tok = NextTok(ctx, ":");
    if (tok == ":") tok = NextTok(ctx, ":");
    char* end = nullptr;
    long count = std::strtol(tok.c_str(), &end, 10);
    if (tok.empty() || *end || count != 256) return lineError(ctx, NLS_RC_BADBYTETAB);
    for (int i = 0; i < 256; ++i) {
        tok = NextTok(ctx, "");
        if (tok.empty()) {
            if (rctype rc = CheckError(ctx.fp, NLS_RC_BADBYTETAB)) return rc;
            return lineError(ctx, NLS_RC_BADBYTETAB);
        }
        errno = 0;
        long v = std::strtol(tok.c_str(), &end, 0);
        if (*end || errno || v < 0 || v > 255) return lineError(ctx, NLS_RC_BADBYTETAB);
        tab[i] = static_cast<unsigned char>(v);
    }
    return 0;
}

std::string upperWord(std::string s) {
    for (auto& c : s) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return s;
}

// The built-in case tables follow from the encoding: each byte goes to a wide
// character, through the Unicode case mapping, and back when it fits one byte.
void builtinCase(hs_nlscei_t encoding, unsigned char* lctab, unsigned char* uctab) {
    for (int c = 0; c < 256; ++c) lctab[c] = uctab[c] = static_cast<unsigned char>(c);
    const char* cs = hsnlscharset(encoding);
    if (!cs) return;
    iconv_t toW = iconv_open("WCHAR_T", cs);
    iconv_t fromW = iconv_open(cs, "WCHAR_T");
    locale_t loc = newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
    if (toW != reinterpret_cast<iconv_t>(-1) && fromW != reinterpret_cast<iconv_t>(-1) && loc) {
        for (int c = 0; c < 256; ++c) {
            char in = static_cast<char>(c);
            wchar_t w = 0;
            char* ip = &in;
            size_t il = 1;
            char* op = reinterpret_cast<char*>(&w);
            size_t ol = sizeof w;
            iconv(toW, nullptr, nullptr, nullptr, nullptr);
            if (iconv(toW, &ip, &il, &op, &ol) == static_cast<size_t>(-1)) continue;
            for (int pass = 0; pass < 2; ++pass) {
                wchar_t m = static_cast<wchar_t>(pass ? towupper_l(static_cast<wint_t>(w), loc)
                                                      : towlower_l(static_cast<wint_t>(w), loc));
                char out[8];
                char* wp = reinterpret_cast<char*>(&m);
                size_t wl = sizeof m;
                char* o2 = out;
                size_t ol2 = sizeof out;
                iconv(fromW, nullptr, nullptr, nullptr, nullptr);
                if (iconv(fromW, &wp, &wl, &o2, &ol2) != static_cast<size_t>(-1) && o2 - out == 1)
                    (pass ? uctab : lctab)[c] = static_cast<unsigned char>(out[0]);
            }
        }
    }
    if (toW != reinterpret_cast<iconv_t>(-1)) iconv_close(toW);
    if (fromW != reinterpret_cast<iconv_t>(-1)) iconv_close(fromW);
    if (loc) freelocale(loc);
}

std::string fileTail(hs_nlscei_t encoding, const char* name, int name_l, const char* kind) {
    char buf[128];
    std::snprintf(buf, sizeof buf, "CEI_%d/%.*s.%s", encoding, name_l, name ? name : "", kind);
    return buf;
}

}  // namespace

rctype hsnlsldlcuc(HS_NLSGCB*, hs_nlscei_t encoding, const char* locale, int locale_l, unsigned char* lctab,
                   unsigned char* uctab) {
    PSTATE ctx;
    if (rctype rc = OpenNLSFile(fileTail(encoding, locale, locale_l, "case"), &ctx.fp, &ctx.filepath)) return rc;
    if (!ctx.fp) {
        builtinCase(encoding, lctab, uctab);
        return 0;
    }
    bool haveUp = false, haveLow = false;
    rctype rc = 0;
    for (;;) {
        std::string tok = NextTok(ctx, ":");
        if (tok.empty()) {
            rc = CheckError(ctx.fp, NLS_RC_BADBYTETAB);
            break;
        }
        std::string word = upperWord(tok);
        if (word == "TO_UPPER") {
            if ((rc = readTable(ctx, uctab))) break;
            haveUp = true;
        } else if (word == "TO_LOWER") {
            if ((rc = readTable(ctx, lctab))) break;
            haveLow = true;
        } else {
            rc = lineError(ctx, NLS_RC_BADBYTETAB);
            break;
        }
    }
    std::fclose(ctx.fp);
    if (rc) return rc;
    if (!haveUp || !haveLow) {
        hsprint("NLSERROR: File=%s: Error=Failed to provide both TO_UPPER & TO_LOWER\n", ctx.filepath.c_str());
        return NLS_RC_BADTABLES;
    }
    return 0;
}

rctype hsnlsldsortseq(HS_NLSGCB*, hs_nlscei_t encoding, const char* seqnam, int seqnam_l, unsigned char* sorttab) {
    for (int c = 0; c < 256; ++c) sorttab[c] = static_cast<unsigned char>(c);
    PSTATE ctx;
    if (rctype rc = OpenNLSFile(fileTail(encoding, seqnam, seqnam_l, "sort"), &ctx.fp, &ctx.filepath)) return rc;
    if (!ctx.fp) return 0;
    std::string tok = NextTok(ctx, ":");
    rctype rc = 0;
    bool have = false;
    if (!tok.empty() && tok != ":") {
        rc = readTable(ctx, sorttab);
        have = rc == 0;
    } else {
        rc = CheckError(ctx.fp, NLS_RC_BADBYTETAB);
    }
    std::fclose(ctx.fp);
    if (rc) return rc;
    if (!have) {
        hsprint("NLSERROR: File=%s: Error=Failed to provide SORTSEQ\n", ctx.filepath.c_str());
        return NLS_RC_BADTABLES;
    }
    return 0;
}

}  // namespace vrta
