// Index builds shared by the commands that make them.
#pragma once
#include <string>

#include "apiload.h"

namespace vrtacli {

// Builds index INDEX of TABLE over the columns named in ON ("COL[,COL]");
// 0, or the exit status after saying what went wrong.
int buildIndex(const Domain& dom, const std::string& table, const std::string& index, const std::string& on,
               bool unique, const std::string& key);

}  // namespace vrtacli
