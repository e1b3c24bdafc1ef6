// The command-line host: each command lives in its own file and registers
// itself here, so adding one touches nothing else.
#pragma once
#include <string>
#include <vector>

namespace vrtacli {

struct Command {
    const char* name;
    const char* summary;  // one line for the list of commands
    const char* usage;    // full text for --help
    int (*run)(const std::vector<std::string>& args);  // args after the command name
};

// Registers a command at static-initialisation time.
struct Register {
    explicit Register(const Command& c);
};

// True when args hold --help or -h; the caller then prints its usage.
bool wantsHelp(const std::vector<std::string>& args);
// Prints "vrta: <msg>" on stderr and returns the exit status 2 (bad usage) or 1.
int fail(const std::string& msg, int status = 1);

}  // namespace vrtacli
