// The message catalogue as a document, written from the same descriptions the
// packers use, so the listing shows what is on the wire and nothing else.
#include <cstdlib>
#include <cstring>
#include <string>

#include "eng/hpdmsg.h"

namespace vrta {

namespace {

void fieldList(std::string& out, const DS_RECDESC* d) {
    if (d->nfields == 0) {
        out += "-";
        return;
    }
    for (int i = 0; i < d->nfields; ++i) {
        const DS_FIELD& f = d->fields[i];
        if (i) out += ", ";
        switch (f.kind) {
            case DsKind::I2: out += std::string(f.name) + ":i2"; break;
            case DsKind::I4: out += std::string(f.name) + ":i4"; break;
            case DsKind::I8: out += std::string(f.name) + ":i8"; break;
            case DsKind::F8: out += std::string(f.name) + ":f8"; break;
            case DsKind::B: out += std::string(f.name) + ":c1"; break;
            case DsKind::C: out += std::string(f.name) + ":c" + std::to_string(f.width); break;
            case DsKind::L: out += std::string(f.lname) + "+" + f.name; break;
            case DsKind::S: out += std::string("`") + f.sub->name + "`"; break;
        }
        if (f.level) out += " (" + std::to_string(f.level) + ")";
    }
}

}  // namespace

char* dsdocument() {
    std::string out =
        "## Message bodies\n"
        "\n"
        "Written by `vrta wire` from the descriptions in `src/eng/hpdmsgs.h`, which\n"
        "the engine and `vrtaserv` both pack and parse with, so this list is the wire.\n"
        "Fields stand in wire order with no alignment, all big-endian: `:i2`, `:i4`,\n"
        "`:i8` integers, `:f8` an IEEE double, `:cN` N raw bytes, `len+data` a 4-byte\n"
        "length and that many bytes. A number in parentheses is the protocol level\n"
        "from which a field is sent and read; a connection of level -1 (an unknown\n"
        "server) gets none of them. `-` is a body with no fields.\n"
        "\n"
        "| id | Method | Request | Reply |\n"
        "|---|---|---|---|\n";
    int n = 0;
    const DS_METHOD* m = dsmethods(&n);
    for (int i = 0; i < n; ++i) {
        out += "| " + std::to_string(m[i].id) + " | `" + m[i].name + "` | ";
        fieldList(out, m[i].req);
        out += " | ";
        fieldList(out, m[i].rep);
        out += " |\n";
    }
    out +=
        "\n"
        "Records that follow another message, each in a frame of its own:\n"
        "\n"
        "| Record | Follows | Fields |\n"
        "|---|---|---|\n";
    int nf = 0;
    const DS_FOLLOWON* f = dsfollowons(&nf);
    for (int i = 0; i < nf; ++i) {
        out += std::string("| `") + f[i].rec->name + "` | " + f[i].after + " | ";
        fieldList(out, f[i].rec);
        out += " |\n";
    }
    out +=
        "\n"
        "`DS_NAMESTR_V8`, a column, held in line by the column messages (its `spare1`\n"
        "is the column's `vrtaflag`):\n"
        "\n";
    fieldList(out, &DS_NAMESTR_V8_D);
    out += "\n";
    char* text = static_cast<char*>(std::malloc(out.size() + 1));
    if (text) std::memcpy(text, out.c_str(), out.size() + 1);
    return text;
}

}  // namespace vrta
