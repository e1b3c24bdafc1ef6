// Rows of a table that satisfy a WHERE clause, found through the module's
// WHERE cursor: what vrta query and vrta delete share.
#pragma once
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "apiload.h"

namespace vrtacli {

struct WhereScan {
    void* wh = nullptr;
    std::vector<unsigned char> wire;
    std::vector<unsigned char> buf;
    int flags = 0;
    int obslen = 0;
    ~WhereScan();
    // Parses clause against t's columns and binds it to a new cursor. 0, or
    // the exit status after printing what went wrong (with a caret under the
    // place of a syntax error). threads 0 leaves the module's choice.
    int open(const char* cmd, const OpenTable& t, const std::string& clause, int threads);
    // Plans again and starts from the first row.
    int rewind(const char* cmd);
    // Calls each(row, rownumber) for every matching row; 0 or an exit status.
    int each(const char* cmd, const std::function<void(const unsigned char*, int64_t)>& fn);
    // The plan as the module describes it.
    std::string explain() const;
};

}  // namespace vrtacli
