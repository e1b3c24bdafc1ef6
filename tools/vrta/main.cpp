#include <algorithm>
#include <cstdio>
#include <cstring>
#include <new>

#include "apiload.h"
#include "vrta.h"

namespace vrtacli {

static std::vector<Command>& registry() {
    static std::vector<Command> cmds;
    return cmds;
}

Register::Register(const Command& c) { registry().push_back(c); }

bool wantsHelp(const std::vector<std::string>& args) {
    return std::any_of(args.begin(), args.end(), [](const std::string& a) { return a == "--help" || a == "-h"; });
}

int fail(const std::string& msg, int status) {
    std::fprintf(stderr, "vrta: %s\n", msg.c_str());
    return status;
}

static void listCommands(FILE* out) {
    std::fprintf(out, "usage: vrta COMMAND [ARGS...]\n\ncommands:\n");
    auto cmds = registry();
    std::sort(cmds.begin(), cmds.end(), [](const Command& a, const Command& b) { return std::strcmp(a.name, b.name) < 0; });
    for (const auto& c : cmds) std::fprintf(out, "  %-10s %s\n", c.name, c.summary);
    std::fprintf(out, "\n'vrta COMMAND --help' tells more about one command.\n");
}

}  // namespace vrtacli

int main(int argc, char** argv) {
    using namespace vrtacli;
    setInstallPaths();
    if (argc < 2) {
        listCommands(stderr);
        return 2;
    }
    // --name-server and --user may stand before the command: they go with it.
    std::vector<std::string> lead;
    int at = 1;
    while (at + 1 < argc && (std::strcmp(argv[at], "--name-server") == 0 || std::strcmp(argv[at], "--user") == 0)) {
        lead.push_back(argv[at]);
        lead.push_back(argv[at + 1]);
        at += 2;
    }
    if (at >= argc) {
        listCommands(stderr);
        return 2;
    }
    std::string name = argv[at];
    if (name == "--help" || name == "-h" || name == "help") {
        listCommands(stdout);
        return 0;
    }
    std::vector<std::string> args(argv + at + 1, argv + argc);
    args.insert(args.end(), lead.begin(), lead.end());
    for (const auto& c : registry()) {
        if (name != c.name) continue;
        if (wantsHelp(args)) {
            std::fputs(c.usage, stdout);
            return 0;
        }
        // Memory runs out as a message and a plain failure, never an abort.
        try {
            return c.run(args);
        } catch (const std::bad_alloc&) {
            return fail(std::string(c.name) + ": out of memory");
        }
    }
    std::fprintf(stderr, "vrta: unknown command '%s'\n", name.c_str());
    listCommands(stderr);
    return 2;
}
