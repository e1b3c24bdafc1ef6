// vrta rc: what a return code means.
#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "hs/hs.h"
#include "ssup/xp.h"
#include "vrta.h"

namespace vrtacli {
namespace {

// Hex with 0x, else decimal with an optional sign; anything that does not fit
// 32 bits is refused rather than truncated.
bool parseCode(const std::string& s, vrta::rctype* out) {
    if (s.empty()) return false;
    errno = 0;
    char* end = nullptr;
    long long v;
    if (s.size() > 2 && s[0] == '0' && (s[1] == 'x' || s[1] == 'X')) {
        if (s[2] == '-' || s[2] == '+') return false;
        v = static_cast<long long>(std::strtoull(s.c_str() + 2, &end, 16));
        if (v < 0 || v > 0xffffffffLL) return false;
    } else {
        v = std::strtoll(s.c_str(), &end, 10);
        if (v < -2147483648LL || v > 0xffffffffLL) return false;
    }
    if (errno || *end) return false;
    *out = static_cast<vrta::rctype>(static_cast<uint32_t>(v));
    return true;
}

int run(const std::vector<std::string>& args) {
    if (args.empty()) return fail("rc: give one or more codes (try --help)", 2);
    vrta::xkinit();
    int status = 0;
    for (const auto& a : args) {
        vrta::rctype rc;
        if (!parseCode(a, &rc)) {
            status = fail("rc: '" + a + "' is not a 32-bit code in hex (0x...) or decimal", 2);
            continue;
        }
        auto u = static_cast<uint32_t>(rc);
        const char* kind = rc < 0 ? "error" : rc == 0 ? "success" : (u & 0x20000000u) ? "note" : "warning";
        std::printf("0x%08x (%d) %s, group %u, number %u%s\n", u, rc, kind, vrta::rcgroup(rc),
                    vrta::rcnumber(rc), (u & 0x40000000u) ? ", literal text" : "");
        if (rc != 0) std::printf("  %s\n", vrta::hsstrer(rc));
    }
    return status;
}

Register reg({"rc", "show the meaning of a return code",
              "usage: vrta rc CODE...\n"
              "\n"
              "Prints each code's kind, message group and number within the group (200\n"
              "per high byte: 0x80000407 is number 807), and its text from the message\n"
              "files: those MSGPATH names, or when it is unset the ones installed with\n"
              "vrta. A code is hex with 0x (0x80040001) or decimal (-2147221503, 518).\n",
              run});

}  // namespace
}  // namespace vrtacli
