// vrta print --index: the values a user typed put into a row image at the
// index's columns, checked against the columns' types and lengths, then the
// index's rows read one by one by number.
#include "ixrows.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "vrta.h"

namespace vrtacli {

namespace {

// The text of a value into its column's place in row; false after saying why not.
bool putValue(const ColInfo& c, const std::string& text, std::vector<unsigned char>* row, const char* what) {
    unsigned char* p = row->data() + c.pos;
    if (c.type == 1) {
        if (text == ".") {
            putMissing(p);
            return true;
        }
        errno = 0;
        char* end = nullptr;
        double d = std::strtod(text.c_str(), &end);
        if (text.empty() || *end || errno == ERANGE || !std::isfinite(d)) {
            fail(std::string("print: the ") + what + " '" + text + "' is not a number, and the column " + c.name +
                     " is numeric",
                 2);
            return false;
        }
        if (c.len != 8) {
            fail("print: the column " + c.name + " holds numbers of " + std::to_string(c.len) +
                     " bytes; index lookups take 8-byte numbers",
                 2);
            return false;
        }
        std::memcpy(p, &d, 8);
        return true;
    }
    if (static_cast<int>(text.size()) > c.len) {
        fail(std::string("print: the ") + what + " '" + text + "' is longer than the column " + c.name + " (" +
                 std::to_string(c.len) + " characters)",
             2);
        return false;
    }
    std::memset(p, ' ', c.len);
    std::memcpy(p, text.data(), text.size());
    return true;
}

struct Collect {
    std::vector<int64_t> rows;
    int64_t limit;
};

int collect(void* arg, const int64_t* rows, long n) {
    auto* c = static_cast<Collect*>(arg);
    for (long i = 0; i < n && static_cast<int64_t>(c->rows.size()) < c->limit; ++i) c->rows.push_back(rows[i]);
    return static_cast<int64_t>(c->rows.size()) >= c->limit;
}

}  // namespace

bool parseRange(const std::string& text, IndexLookup* look) {
    size_t at = text.find("..");
    if (at == std::string::npos) return false;
    look->range = true;
    look->lo = text.substr(0, at);
    look->hi = text.substr(at + 2);
    look->haslo = !look->lo.empty();
    look->hashi = !look->hi.empty();
    return true;
}

int indexRows(const Domain& dom, const OpenTable& t, const std::string& table, const std::string& key,
              const IndexLookup& look, int64_t limit, const std::function<void(const unsigned char*)>& each) {
    const DirectApi* api = t.api;
    std::vector<VRTAIDXINFO> ixs(64);
    int n = api->vrtaidxlist(dom.lib, table.c_str(), static_cast<int>(table.size()), key.empty() ? nullptr : key.c_str(),
                             ixs.data(), static_cast<int>(ixs.size()));
    if (n < 0) return fail("print: cannot list the indexes: " + api->text(n));
    const VRTAIDXINFO* ix = nullptr;
    for (int i = 0; i < n && i < static_cast<int>(ixs.size()); ++i)
        if (strcasecmp(ixs[static_cast<size_t>(i)].name, look.index.c_str()) == 0) ix = &ixs[static_cast<size_t>(i)];
    if (!ix) return fail("print: the table has no index '" + look.index + "' (see vrta index list)", 2);
    if (!ix->usable) return fail("print: the index '" + look.index + "' must be rebuilt before it can be used");
    std::vector<ColInfo> cols = columns(t);
    int rowlen = 0;
    for (const ColInfo& c : cols) rowlen = std::max(rowlen, c.pos + c.len);
    if (ix->cols[0] < 1 || ix->cols[0] > static_cast<int>(cols.size())) return fail("print: the index's column is not in the table");
    const ColInfo& c = cols[static_cast<size_t>(ix->cols[0] - 1)];
    std::vector<unsigned char> lo(static_cast<size_t>(rowlen)), hi(static_cast<size_t>(rowlen));
    if (look.range) {
        if ((look.haslo && !putValue(c, look.lo, &lo, "low end")) || (look.hashi && !putValue(c, look.hi, &hi, "high end")))
            return 2;
        if (look.haslo && look.hashi) {
            bool above;
            if (c.type == 1) {
                double a, b;
                std::memcpy(&a, lo.data() + c.pos, 8);
                std::memcpy(&b, hi.data() + c.pos, 8);
                above = !isMissing(hi.data() + c.pos) && (isMissing(lo.data() + c.pos) ? false : a > b);
            } else {
                above = std::memcmp(lo.data() + c.pos, hi.data() + c.pos, c.len) > 0;
            }
            if (above) return fail("print: the range's low end " + look.lo + " is above its high end " + look.hi, 2);
        }
    } else if (!putValue(c, look.eq, &lo, "value")) {
        return 2;
    }
    VRTAIXCOND cond{};
    cond.op = look.range ? VRTAIX_RANGE : VRTAIX_EQ;
    cond.low = !look.range || look.haslo ? lo.data() : nullptr;
    cond.high = look.range && look.hashi ? hi.data() : nullptr;
    cond.ncols = 1;  // a value for the first column; more columns of the index are looked up as a prefix
    Collect got{{}, limit};
    int rc = api->vrtaidxrows(t.fid, look.index.c_str(), &cond, collect, &got);
    if (rc < 0) return fail("print: the index lookup failed: " + api->text(rc));
    if (got.rows.empty()) return 0;
    VRTAINFO vi;
    if ((rc = api->vrtainfo(t.fid, VRTAINFO_ALL, &vi)) != 0) return fail("print: " + api->text(rc));
    std::vector<unsigned char> buf(static_cast<size_t>(vi.obslen));
    void* io = nullptr;
    if ((rc = api->spnewrd(t.fid, vi.obslen, buf.data(), &io)) < 0) return fail("print: cannot read the table: " + api->text(rc));
    for (int64_t r : got.rows) {
        void* p = nullptr;
        rc = api->spgetr(io, r, &p);
        if (rc == -1) continue;  // deleted since the index was read
        if (rc != 0) {
            api->spfreerd(io);
            return fail("print: cannot read row " + std::to_string(r) + ": " + api->text(rc));
        }
        each(static_cast<const unsigned char*>(p));
    }
    api->spfreerd(io);
    return 0;
}

}  // namespace vrtacli
