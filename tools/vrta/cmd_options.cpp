// vrta options: the option table in effect, as the module lists it.
#include <cstdlib>

#include "option/op.h"
#include "vrta.h"

namespace vrtacli {
namespace {

int run(const std::vector<std::string>& args) {
    int level = 0;
    for (size_t i = 0; i < args.size(); ++i) {
        if (args[i] == "--level") {
            if (i + 1 >= args.size()) return fail("options: --level needs a number", 2);
            const std::string& v = args[++i];
            char* end = nullptr;
            long n = std::strtol(v.c_str(), &end, 10);
            if (v.empty() || *end || n < 0 || n > 3)
                return fail("options: level must be 0, 1, 2 or 3, not '" + v + "'", 2);
            level = static_cast<int>(n);
        } else {
            return fail("options: unknown argument '" + args[i] + "' (try --help)", 2);
        }
    }
    // The engine vector has no entry that lists options, so the tool reads its
    // own copy of the option layer: the same defaults the module starts with.
    void* tbl = vrta::opinitgbl();
    if (!tbl) return fail("options: the option table cannot be built");
    return vrta::opt_dump(tbl, level) < 0 ? 1 : 0;
}

Register reg({"options", "list the option table in effect",
              "usage: vrta options [--level N]\n"
              "\n"
              "Lists the documented and undocumented options with their type, who set\n"
              "them and their value, starting from the module's defaults.\n"
              "\n"
              "  --level N   0 LOW (default), 1 MED, 2 HIGH, 3 LOCKING\n",
              run});

}  // namespace
}  // namespace vrtacli
