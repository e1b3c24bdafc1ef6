// Rows printed for a person (aligned) or for a program (CSV), shared by the
// commands that print rows.
#pragma once
#include <cstdio>
#include <functional>
#include <vector>

#include "apiload.h"

namespace vrtacli {

// Calls each(row) for every row to print; 0 or an exit status.
using RowScan = std::function<int(const std::function<void(const unsigned char*)>& each)>;

// A header line and a line a row, as vrta load reads them back.
int printCsv(FILE* out, const std::vector<ColInfo>& cols, const RowScan& scan);
// Aligned, numbers to the right, and "(N rows)": scan is called twice, once
// to find the widths and once to print.
int printAligned(FILE* out, const std::vector<ColInfo>& cols, const RowScan& scan);

}  // namespace vrtacli
