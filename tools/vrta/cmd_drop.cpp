// vrta drop: a table and all its files deleted.
#include <string>
#include <vector>

#include "apiload.h"
#include "vrta.h"

namespace vrtacli {
namespace {

int run(const std::vector<std::string>& args) {
    if (args.size() != 2) return fail("drop: needs DOMAIN_DIR TABLE (try --help)", 2);
    const std::string& table = args[1];
    if (!validName(table)) return fail("drop: '" + table + "' is not a table name (1 to 32 letters, digits or _)", 2);
    Domain dom;
    if (int st = dom.assign(args[0])) return st;
    if (!hasTable(dom, table)) return fail("drop: no table '" + table + "' in " + args[0]);
    int rc = dom.api->spdelete(dom.lib, table.c_str(), static_cast<int>(table.size()));
    if (rc < 0) return fail("drop: cannot delete '" + table + "': " + dom.api->text(rc));
    FILE* out = commandOutput();
    std::fprintf(out, "dropped %s\n", table.c_str());
    std::fflush(out);
    return 0;
}

Register reg({"drop", "delete a table and all its files",
              "usage: vrta drop DOMAIN_DIR TABLE\n"
              "\n"
              "Deletes the table: its metadata, every data partition and its index files.\n",
              run});

}  // namespace
}  // namespace vrtacli
