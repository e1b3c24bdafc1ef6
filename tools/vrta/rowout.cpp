#include "rowout.h"

#include <algorithm>
#include <string>

#include "csv.h"

namespace vrtacli {

int printCsv(FILE* out, const std::vector<ColInfo>& cols, const RowScan& scan) {
    std::string line;
    for (size_t i = 0; i < cols.size(); ++i) {
        if (i) line += ',';
        line += csvField(cols[i].name);
    }
    std::fprintf(out, "%s\n", line.c_str());
    int st = scan([&](const unsigned char* r) {
        line.clear();
        for (size_t i = 0; i < cols.size(); ++i) {
            if (i) line += ',';
            // An empty text is written "", so that a row of one empty
            // value is a line that load reads back, not an empty one.
            std::string v = cellText(cols[i], r);
            line += (v.empty() && cols[i].type == 2) ? std::string("\"\"") : csvField(v);
        }
        std::fputs(line.c_str(), out);
        std::fputc('\n', out);
    });
    std::fflush(out);
    return st;
}

int printAligned(FILE* out, const std::vector<ColInfo>& cols, const RowScan& scan) {
    std::vector<size_t> w(cols.size());
    for (size_t i = 0; i < cols.size(); ++i) w[i] = cols[i].name.size();
    int st = scan([&](const unsigned char* r) {
        for (size_t i = 0; i < cols.size(); ++i) w[i] = std::max(w[i], cellText(cols[i], r).size());
    });
    if (st) return st;
    std::string line;
    auto cell = [&](size_t i, const std::string& v, bool right) {
        if (i) line += "  ";
        std::string pad(w[i] - std::min(w[i], v.size()), ' ');
        line += right ? pad + v : v + (i + 1 < cols.size() ? pad : "");
    };
    auto emit = [&] {
        while (!line.empty() && line.back() == ' ') line.pop_back();
        std::fputs(line.c_str(), out);
        std::fputc('\n', out);
        line.clear();
    };
    for (size_t i = 0; i < cols.size(); ++i) cell(i, cols[i].name, cols[i].type == 1);
    emit();
    int64_t nrows = 0;
    st = scan([&](const unsigned char* r) {
        for (size_t i = 0; i < cols.size(); ++i) cell(i, cellText(cols[i], r), cols[i].type == 1);
        emit();
        ++nrows;
    });
    std::fprintf(out, "(%lld rows)\n", static_cast<long long>(nrows));
    std::fflush(out);
    return st;
}

}  // namespace vrtacli
