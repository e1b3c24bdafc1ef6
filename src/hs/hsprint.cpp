// The low-level printer: a stamped line on standard output for the runtime's
// own trouble, and the text of a return code. Needs nothing but the C library
// and the message tables, so it works before and after the rest of the runtime.
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <unistd.h>

#include "hs/hs.h"
#include "hs/hsgcb.h"
#include "ssup/xp.h"

namespace vrta {

namespace {

// The identifier in front of every stamped line.
char gPrintID[65] = "VRTA";

void hsstamp(const char* datefmt) {
    char date[60];
    time_t now = time(nullptr);
    struct tm tmv;
    localtime_r(&now, &tmv);
    if (strftime(date, sizeof date, datefmt, &tmv) == 0) date[0] = '\0';
    printf("%s(%d) %s- ", date, static_cast<int>(getpid()), gPrintID);
}

// Per-thread text buffer for codes without a message, for the time before
// the runtime's block (and its key) exists.
thread_local char* errbuf;
struct ErrBufFree {
    ~ErrBufFree() {
        free(errbuf);
        errbuf = nullptr;
    }
};
thread_local ErrBufFree errbuffree;

}  // namespace

void hssetpl(const char* str) {
    if (!str) str = "";
    snprintf(gPrintID, sizeof gPrintID, "%s", str);
    // The block shared with a host keeps what fits of it.
    if (HSGCB) snprintf(HSGCB->gPrintID, sizeof HSGCB->gPrintID, "%s", str);
}

void hsprint(const char* format, ...) {
    va_list ap;
    va_start(ap, format);
    flockfile(stdout);
    hsstamp("%x %X:");
    vprintf(format, ap);
    fflush(stdout);
    funlockfile(stdout);
    va_end(ap);
}

static void hsvmprnt(rctype code, va_list ap) {
    flockfile(stdout);
    hsstamp("%x %X: ");
    vprintf(hsstrer(code), ap);
    putchar('\n');
    fflush(stdout);
    funlockfile(stdout);
}

void hsmprnt(rctype code, ...) {
    va_list ap;
    va_start(ap, code);
    hsvmprnt(code, ap);
    va_end(ap);
}

void hserror(rctype code, ...) {
    va_list ap;
    va_start(ap, code);
    hsvmprnt(code, ap);
    va_end(ap);
}

rctype hs_trace_error(const char* file, int line, rctype code) {
    int err = errno;
    hsprint("HS_TRACE: file=%s line=%d errno=%d errc=0x%8.8x text=%s\n", file ? file : "", line, err,
            static_cast<unsigned>(code), hsstrer(code));
    errno = err;
    return code;
}

static char* hserrbuf() {
    HS_GCB* h = HSGCB;
    if (h && h->gBufKey) {
        void* b = nullptr;
        thr_getspecific(h->gBufKey, &b);
        if (!b) {
            b = malloc(256);
            if (!b) return nullptr;
            if (thr_setspecific(h->gBufKey, b) != 0) {
                free(b);
                return nullptr;
            }
        }
        return static_cast<char*>(b);
    }
    if (!errbuf) {
        errbuf = static_cast<char*>(malloc(256));
        if (!errbuf) return nullptr;
        (void)&errbuffree;  // registers the thread's clean-up
    }
    return errbuf;
}

const char* UnknownError(rctype code) {
    char* b = hserrbuf();
    if (!b) return "Unable to format bad RC message";
    snprintf(b, 256, "No error text. Code=%d(0x%X)\n", code, static_cast<unsigned>(code));
    return b;
}

const char* hsstrer(rctype code) {
    if (code == 0) return UnknownError(code);
    uint32_t u = static_cast<uint32_t>(code);
    int group = static_cast<int>((u >> 16) & 0xff);
    int number = static_cast<int>(rcnumber(code));
    const char* text = nullptr;
    int len = 0;
    rctype rc = xkread(group, number, &text, &len);
    // A code that no message file could hold (no such group or number) is
    // unknown; a group whose file is missing is said by the loader's text.
    if (rc == -1 && text && strcmp(text, "***MESSAGE NOT FOUND***") == 0) return text;
    if (rc != 0 || !text) return UnknownError(code);
    if (len >= 3 && text[0] == '%' && text[2] == 'z') text += 3;
    return text;
}

int hssprrc(char* buffer, rctype code, ...) {
    va_list ap;
    va_start(ap, code);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    int n = vsprintf(buffer, hsstrer(code), ap);
#pragma GCC diagnostic pop
    va_end(ap);
    return n;
}

}  // namespace vrta
