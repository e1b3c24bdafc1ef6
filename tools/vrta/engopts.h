// Domain and table options in the host's syntax ("NAME=VALUE ..."), read the
// way a host reads them: the module's own parsers, reached through its engine
// vector, over a token track of the module's, one option per call.
#pragma once
#include <string>
#include <vector>

#include "eng/hpdopt.h"
#include "vrta/vrtaeng.h"

namespace vrtacli {

// Which parsers a text goes to. Both: each option to the table parser first,
// and to the domain parser when the table parser says it is not its own.
enum class OptKind { Domain, Table, Both };

struct EngineOptions {
    vrta::HPDOPT* domain = nullptr;  // the blocks the parsers made, or null
    vrta::HPOOPT* table = nullptr;
    std::vector<std::string> keys;   // the keywords given, in order
};

// 0, or the exit status after printing the text with a mark under the token
// at fault and the module's text for the code.
int engineOptions(const std::string& cmd, const std::string& text, OptKind kind, EngineOptions* out);

// The module's engine vector and engine id, the engine started once for the
// command; null (after saying why) when the module did not start.
const HPD_ENGTBL* engineVector(void** engid);

// 0 when every keyword given is one of `allowed`; otherwise the exit status
// after saying which is not used by the command.
int onlyOptions(const std::string& cmd, const EngineOptions& o, const std::vector<std::string>& allowed);

}  // namespace vrtacli
