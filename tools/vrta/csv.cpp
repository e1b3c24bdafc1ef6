#include "csv.h"

namespace vrtacli {

int CsvReader::get() {
    if (pos_ == len_) {
        len_ = std::fread(buf_, 1, sizeof buf_, f_);
        pos_ = 0;
        if (len_ == 0) return EOF;
    }
    ++consumed_;
    return static_cast<unsigned char>(buf_[pos_++]);
}

bool CsvReader::rewind() {
    if (std::fseek(f_, 0, SEEK_SET) != 0) return false;
    len_ = pos_ = 0;
    lineno_ = 1;
    recline_ = 0;
    consumed_ = 0;
    first_ = true;
    err_.clear();
    return true;
}

bool CsvReader::next(std::vector<std::string>& fields) {
    fields.clear();
    for (;;) {
        int c = get();
        if (first_) {
            first_ = false;
            // A byte order mark in front of the header is not part of a name.
            if (c == 0xEF) {
                int b = get(), d = get();
                if (b != 0xBB || d != 0xBF) {
                    err_ = "the file does not start with text";
                    return false;
                }
                c = get();
            }
        }
        if (c == EOF) return false;
        recline_ = lineno_;
        if (c == '\n') {
            ++lineno_;
            continue;
        }
        if (c == '\r') {
            int d = get();
            if (d == '\n') {
                ++lineno_;
                continue;
            }
            if (d == EOF) return false;
            --pos_, --consumed_;
            c = '\r';
        }
        std::string cur;
        bool quoted = false, wasquoted = false;
        for (;;) {
            // A NUL would cut the value short wherever it is read as text.
            if (c == 0) {
                err_ = "column " + std::to_string(fields.size() + 1) + " holds a NUL byte";
                return false;
            }
            if (cur.size() >= MAXFIELD) {
                err_ = "column " + std::to_string(fields.size() + 1) + " is longer than " + std::to_string(MAXFIELD) +
                       " bytes";
                return false;
            }
            if (quoted) {
                if (c == EOF) {
                    err_ = "a quoted field is not closed";
                    return false;
                }
                if (c == '"') {
                    int d = get();
                    if (d == '"') {
                        cur += '"';
                    } else {
                        quoted = false;
                        c = d;
                        continue;
                    }
                } else {
                    if (c == '\n') ++lineno_;
                    cur += static_cast<char>(c);
                }
                c = get();
                continue;
            }
            if (c == '"' && cur.empty() && !wasquoted) {
                quoted = wasquoted = true;
                c = get();
                continue;
            }
            if (c == ',' ) {
                fields.push_back(std::move(cur));
                cur.clear();
                wasquoted = false;
                c = get();
                continue;
            }
            if (c == EOF || c == '\n') {
                if (c == '\n') ++lineno_;
                fields.push_back(std::move(cur));
                return true;
            }
            if (c == '\r') {
                int d = get();
                if (d == '\n' || d == EOF) {
                    if (d == '\n') ++lineno_;
                    fields.push_back(std::move(cur));
                    return true;
                }
                cur += '\r';
                c = d;
                continue;
            }
            if (wasquoted) {
                err_ = "text after a closing quote";
                return false;
            }
            cur += static_cast<char>(c);
            c = get();
        }
    }
}

std::string csvField(const std::string& v) {
    bool q = !v.empty() && (v.front() == ' ' || v.back() == ' ');
    for (char c : v)
        if (c == ',' || c == '"' || c == '\n' || c == '\r') q = true;
    if (!q) return v;
    std::string o = "\"";
    for (char c : v) {
        if (c == '"') o += '"';
        o += c;
    }
    return o + "\"";
}

}  // namespace vrtacli
