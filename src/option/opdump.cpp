// The listing of options in effect, for the operator and the log.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "option/op.h"

namespace vrta {

namespace {

const char* levelname(int level) {
    switch (level) {
        case 0: return "LOW";
        case 1: return "MED";
        case 2: return "HIGH";
        default: return "LOCKING";
    }
}

const char* typeword(uint32_t type) {
    switch (type) {
        case OPF_BINARY: return "Binary   ";
        case OPF_INTEGER: return "Integer  ";
        case OPF_DOUBLE: return "Double   ";
        case OPF_CHAR: return "Char     ";
        default: return nullptr;
    }
}

void appendf(std::string& out, const char* fmt, auto... args) {
    int n = std::snprintf(nullptr, 0, fmt, args...);
    if (n <= 0) return;
    size_t at = out.size();
    out.resize(at + static_cast<size_t>(n) + 1);
    std::snprintf(out.data() + at, static_cast<size_t>(n) + 1, fmt, args...);
    out.resize(at + static_cast<size_t>(n));
}

// Documented items are always listed; the others only once a user set them.
std::string dumptext(const void* optptr, int level) {
    const OPTS* opts = static_cast<const OPTS*>(optptr);
    std::string out;
    appendf(out, "\nOptions in effect for level=%s\n", levelname(level));
    out += "Option Name       Type     Set By   Value\n";
    out += "-----------       ------   ------   ------------\n";
    int count = opts->opcount < OPT_NITEMS ? opts->opcount : OPT_NITEMS;
    for (int i = 0; i < count; i++) {
        const OPTITEM& it = opts->optitem[i];
        if (!(it.flags & (OPF_PARM | OPF_DOC))) continue;
        const char* type = typeword(it.flags & OPF_TYPEMASK);
        if (!type) continue;
        appendf(out, "\"%-16.16s\"", it.name);
        out += type;
        if (!(it.flags & OPF_SETMASK)) {
            out += "Server   <default>";
        } else {
            out += (it.flags & OPF_SERVER) ? "Server   " : "User     ";
            switch (it.flags & OPF_TYPEMASK) {
                case OPF_BINARY:
                    appendf(out, "%s%.16s", it.opinfo.idesc.ival == 0 ? "NO" : "", it.name);
                    break;
                case OPF_INTEGER:
                    appendf(out, "%d", it.opinfo.idesc.ival);
                    break;
                case OPF_DOUBLE:
                    appendf(out, "%f", it.opinfo.ddesc.dval);
                    break;
                case OPF_CHAR: {
                    const CHARDESC& cd = it.opinfo.cdesc;
                    int len = (cd.curlen >= 0 && cd.curlen <= cd.maxlen) ? cd.curlen : 0;
                    out += '\'';
                    out.append(static_cast<const char*>(optptr) + cd.offset, static_cast<size_t>(len));
                    out += '\'';
                    break;
                }
            }
        }
        if (!(it.flags & OPF_DOC)) out += " [undocumented]";
        out += '\n';
    }
    return out;
}

}  // namespace

int opt_dump(void* optptr, int level) {
    if (!optptr) return OP_NOTABLE;
    std::string text = dumptext(optptr, level);
    std::fwrite(text.data(), 1, text.size(), stdout);
    std::fflush(stdout);
    return 0;
}

int opt_dumpf(void* optptr, char** msg, int* len, int level) {
    if (!optptr) return OP_NOTABLE;
    if (!msg) return OP_RANGE;
    std::string text = dumptext(optptr, level);
    char* buf = static_cast<char*>(std::malloc(text.size() + 1));
    if (!buf) return OP_NOMEM;
    std::memcpy(buf, text.c_str(), text.size() + 1);
    *msg = buf;
    if (len) *len = static_cast<int>(text.size());
    return 0;
}

}  // namespace vrta
