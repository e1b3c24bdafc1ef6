// What the benchmarks that drive the storage layer directly share: the
// domain they make their tables in and the open request of a table.
#pragma once
#include <cstring>
#include <string>

#include "sda/da.h"
#include "sda/dafid.h"

namespace benchsda {

// The domain at path, made when missing; null when it cannot be had.
inline vrta::DA_LIB* assign(const std::string& path) {
    if (vrta::dainit() < 0) return nullptr;
    vrta::DA_LIBSTR ls{};
    std::memcpy(ls.name, "BENCH   ", 8);
    ls.libpath = path.c_str();
    ls.libpath_l = static_cast<int>(path.size());
    ls.create = 1;
    vrta::DA_LIB* lp = nullptr;
    return vrta::dagtlib(&ls, &lp) < 0 ? nullptr : lp;
}

inline vrta::DA_OPNSTR request(const char* name, int mode) {
    vrta::DA_OPNSTR o{};
    o.name = name;
    o.name_l = static_cast<int>(std::strlen(name));
    o.mode = mode;
    o.encoding_cei = 20;
    o.blockgrow = -1;
    std::memcpy(o.locale, "en_US", 5);
    std::memcpy(o.who_created, "bench   ", 8);
    return o;
}

}  // namespace benchsda
