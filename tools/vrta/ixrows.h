// Rows of a table looked up through one of its indexes, for vrta print.
#pragma once
#include <functional>
#include <string>
#include <vector>

#include "apiload.h"

namespace vrtacli {

struct IndexLookup {
    std::string index;
    bool range = false;      // --range LO..HI, else --eq VALUE
    std::string eq, lo, hi;  // an empty end of a range is open
    bool haslo = false, hashi = false;
};

// Parses "LO..HI" (either end may be left out) into look; false when it has no "..".
bool parseRange(const std::string& text, IndexLookup* look);

// Calls each(row) for the rows the index finds, in row order, at most limit.
// 0, or the exit status after printing what went wrong.
int indexRows(const Domain& dom, const OpenTable& t, const std::string& table, const std::string& key,
              const IndexLookup& look, int64_t limit, const std::function<void(const unsigned char*)>& each);

}  // namespace vrtacli
