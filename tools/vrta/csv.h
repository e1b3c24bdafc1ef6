// A reader of comma-separated files: quoted fields may hold commas, doubled
// quotes and line ends; CRLF ends a line as LF does; empty lines are skipped.
// A NUL byte or a field longer than MAXFIELD is an error with its line.
#pragma once
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace vrtacli {

class CsvReader {
public:
    // No field is longer: a file with no line ends must not fill the memory.
    static constexpr size_t MAXFIELD = 1 << 20;
    explicit CsvReader(FILE* f) : f_(f) {}
    // The next record into fields; false at the end of the file or on an
    // error (then error() is not empty).
    bool next(std::vector<std::string>& fields);
    const std::string& error() const { return err_; }
    long line() const { return recline_; }   // line where the last record began
    uint64_t consumed() const { return consumed_; }
    // Back to the first byte, for a second pass.
    bool rewind();

private:
    int get();
    FILE* f_;
    char buf_[1 << 16];
    size_t len_ = 0, pos_ = 0;
    long lineno_ = 1, recline_ = 0;
    uint64_t consumed_ = 0;
    bool first_ = true;
    std::string err_;
};

// The text of a field as CSV: quoted when it holds a comma, a quote, a line
// end or a leading or trailing blank.
std::string csvField(const std::string& v);

}  // namespace vrtacli
