// vrta wire: the message catalogue as this build packs and parses it.
#include <cstdio>
#include <cstdlib>

#include "eng/hpdmsg.h"
#include "vrta.h"

namespace vrtacli {
namespace {

int run(const std::vector<std::string>& args) {
    if (!args.empty()) return fail("wire: unknown argument '" + args[0] + "' (try --help)", 2);
    char* text = vrta::dsdocument();
    if (!text) return fail("wire: out of memory");
    std::fputs(text, stdout);
    std::free(text);
    return 0;
}

Register reg({"wire", "list the request and reply bodies of the wire protocol",
              "usage: vrta wire\n"
              "\n"
              "Prints every method with its request and reply fields, the records that\n"
              "follow other messages, and the wire form of a column, as Markdown: the\n"
              "message list of docs/wire.md comes from here.\n",
              run});

}  // namespace
}  // namespace vrtacli
