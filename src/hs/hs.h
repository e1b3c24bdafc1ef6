// The low-level "hs" runtime: line stamps, error texts, the abort path and the
// process block HS_GCB (its layout is in hs/hsgcb.h).
#pragma once
#include <csetjmp>
#include "ssup/vrtadef.h"

namespace vrta {

struct HS_GCB;
extern HS_GCB* HSGCB;

[[nodiscard]] rctype hsgblinit();
[[nodiscard]] rctype hsgblterm();

// Stamped diagnostic line: "<date>(<pid>) <id>- " then the caller's text.
void hsprint(const char* format, ...) __attribute__((format(printf, 1, 2)));
void hssetpl(const char* str);
// The same stamp, then the text of code used as the format, and a line end.
void hsmprnt(rctype code, ...);
void hserror(rctype code, ...);
// vsprintf of the text of code into buffer; result as vsprintf's.
int hssprrc(char* buffer, rctype code, ...);
// Text of a return code, without its %nz prefix.
const char* hsstrer(rctype code);
const char* UnknownError(rctype code);
// Logs code and hands it back, for `return hs_trace_error(...)`; a call
// made only to log has nothing to check, so the result may be dropped.
rctype hs_trace_error(const char* file, int line, rctype code);

[[nodiscard]] rctype hssetabort(jmp_buf* jbuf, jmp_buf** oldjbuf);
jmp_buf* hsgetabort();
[[noreturn]] void hsabort(int abstat);

[[nodiscard]] rctype hsaexit(void (*exitfp)(void*), void* exitap);
[[nodiscard]] rctype hsuexit(void (*exitfp)(void*), void* exitap);

int hstmpdir(int bsiz, char* bufp);

}  // namespace vrta
