// vrta sql against SQLite on the same generated table: seeded queries with
// group keys of few and many values, the aggregates both have, WHERE, HAVING,
// ORDER BY and LIMIT, run with one and two threads and with group-by memory
// so small that the threads spill. Plus the refusals a user meets.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cmath>
#include <cstdlib>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "cliutil.h"

using namespace vrtatest;

namespace {

std::vector<std::vector<std::string>> csvrows(const std::string& text, bool header) {
    std::vector<std::vector<std::string>> rows;
    std::istringstream in(text);
    std::string line;
    bool first = true;
    while (std::getline(in, line)) {
        if (first && header) {
            first = false;
            continue;
        }
        first = false;
        std::vector<std::string> cells;
        std::string cur;
        bool q = false;
        for (size_t i = 0; i < line.size(); i++) {
            char c = line[i];
            if (q) {
                if (c == '"' && i + 1 < line.size() && line[i + 1] == '"') cur += '"', i++;
                else if (c == '"') q = false;
                else cur += c;
            } else if (c == '"') q = true;
            else if (c == ',') cells.push_back(cur), cur.clear();
            else cur += c;
        }
        cells.push_back(cur);
        rows.push_back(cells);
    }
    return rows;
}

bool samecell(const std::string& a, const std::string& b) {
    // A missing value prints "." where SQLite prints nothing for NULL.
    std::string x = a == "." ? "" : a, y = b;
    if (x == y) return true;
    char* e1 = nullptr;
    char* e2 = nullptr;
    double d1 = strtod(x.c_str(), &e1), d2 = strtod(y.c_str(), &e2);
    if (x.empty() || y.empty() || *e1 || *e2) return false;
    return std::fabs(d1 - d2) <= 1e-9 * std::max(1.0, std::max(std::fabs(d1), std::fabs(d2)));
}

struct Table {
    TempDir dir;
    std::string dom, db;
    Table(int nrows, unsigned seed) {
        dom = dir.file("dom");
        db = dir.file("t.db");
        std::mt19937 g(seed);
        std::string csv = "K1,K2,X,Y\n", sql = "CREATE TABLE t(k1 REAL, k2 TEXT, x REAL, y REAL);\nBEGIN;\n";
        for (int i = 0; i < nrows; i++) {
            int k1 = static_cast<int>(g() % 5);
            std::string k2 = "s";
            k2 += std::to_string(g() % (nrows / 3 + 1));
            bool xmiss = g() % 9 == 0;
            int x = static_cast<int>(g() % 2001) - 1000;
            int y = static_cast<int>(g() % 100);
            csv += std::to_string(k1) + "," + k2 + "," + (xmiss ? "" : std::to_string(x)) + "," + std::to_string(y) + "\n";
            sql += "INSERT INTO t VALUES(" + std::to_string(k1) + ",'" + k2 + "'," + (xmiss ? "NULL" : std::to_string(x)) +
                   "," + std::to_string(y) + ");\n";
        }
        sql += "COMMIT;\n";
        writeFile(dir.file("t.csv"), csv);
        writeFile(dir.file("t.sql"), sql);
        mkdir(dom.c_str(), 0755);
        Result r = vrta("load " + dom + " t " + dir.file("t.csv"));
        EXPECT_EQ(0, r.status) << r.err;
        CmdResult s = runCommand("sqlite3 " + db + " < " + dir.file("t.sql"));
        EXPECT_EQ(0, s.status);
    }
};

std::string genquery(std::mt19937& g) {
    // Group keys: columns, and expressions named in GROUP BY as written or by position.
    const char* groups[] = {"", "k1", "k2", "k1, k2", "k1 * 2 + 1", "y - k1", "k2, y / 4"};
    std::string grp = groups[g() % 7];
    const char* aggs[] = {"COUNT(*)", "COUNT(x)", "SUM(x)", "AVG(x)", "MIN(x)", "MAX(x)", "SUM(y)", "MIN(k2)",
                          "COUNT(DISTINCT x)", "COUNT(DISTINCT k2)", "AVG(y)", "SUM(x * 2)", "AVG(x + y)",
                          "MAX(y - k1)", "COUNT(DISTINCT y / 2)", "SUM(abs(x)) / COUNT(*)", "MIN(x * 2) + MAX(x*2)"};
    std::string sel = grp;
    int na = 1 + static_cast<int>(g() % 3);
    for (int i = 0; i < na; i++) sel += std::string(sel.empty() ? "" : ", ") + aggs[g() % 17];
    std::string q = "SELECT " + sel + " FROM t";
    // Conditions that mean the same with NULL as with a missing value.
    const char* where[] = {"", " WHERE x > 100", " WHERE y < 50", " WHERE k1 = 2 OR y >= 90", " WHERE x >= -500 AND y > 10"};
    q += where[g() % 5];
    if (!grp.empty()) {
        bool bypos = grp.find(' ') != std::string::npos && grp.find(',') == std::string::npos && g() % 2;
        q += " GROUP BY " + (bypos ? std::string("1") : grp);
        if (g() % 3 == 0) q += " HAVING COUNT(*) > " + std::to_string(g() % 4);
        // Orders the group-by gives itself (in key order, or by its output
        // sort) and one the final rows need: all without ties.
        std::string desc = grp;
        for (size_t p = 0; (p = desc.find(',', p)) != std::string::npos; p += 6) desc.replace(p, 1, " DESC,");
        const std::string orders[] = {grp, desc + " DESC", "COUNT(*) DESC, " + grp, "COUNT(*) * -1, " + grp};
        q += " ORDER BY " + orders[g() % 4];
        if (g() % 4 == 0) q += " LIMIT " + std::to_string(1 + g() % 7);
    }
    return q;
}

TEST(SqlCli, MatchesSqliteWithThreadsAndSpills) {
    if (runCommand("sqlite3 -version").status != 0) GTEST_SKIP() << "no sqlite3 here";
    bool longer = getenv("VRTA_LONG") != nullptr;
    Table t(longer ? 60000 : 12000, 17);
    std::mt19937 g(99);
    int nq = longer ? 80 : 14;
    for (int i = 0; i < nq; i++) {
        std::string q = genquery(g);
        CmdResult s = runCommand("sqlite3 -csv " + t.db + " \"" + q + "\"");
        ASSERT_EQ(0, s.status) << q;
        auto want = csvrows(s.out, false);
        for (const char* mode : {"--threads 1", "--threads 2", "--threads 2 --mem 1"}) {
            Result r = vrta("sql " + t.dom + " \"" + q + "\" --csv " + mode);
            ASSERT_EQ(0, r.status) << q << "\n" << r.err;
            auto got = csvrows(r.out, true);
            ASSERT_EQ(want.size(), got.size()) << q << " " << mode;
            for (size_t k = 0; k < want.size(); k++) {
                ASSERT_EQ(want[k].size(), got[k].size()) << q;
                for (size_t c = 0; c < want[k].size(); c++)
                    EXPECT_TRUE(samecell(got[k][c], want[k][c]))
                        << q << " " << mode << " row " << k << ": " << got[k][c] << " want " << want[k][c];
            }
        }
    }
    // Many groups in little memory spill, and --explain says so.
    Result r = vrta("sql " + t.dom + " \"SELECT k2, x, COUNT(*) FROM t GROUP BY k2, x\" --mem 1 --threads 2 --explain");
    ASSERT_EQ(0, r.status) << r.err;
    EXPECT_TRUE(has(r.out, "threads: 2")) << r.out;
    EXPECT_TRUE(has(r.out, "metascan: not used"));
    r = vrta("sql " + t.dom + " \"SELECT COUNT(*) FROM t\" --explain");
    EXPECT_TRUE(has(r.out, "metascan: used")) << r.out;
    EXPECT_TRUE(has(r.out, std::to_string(longer ? 60000 : 12000)));
    // With rows deleted, each thread's share of the rows still ends where the
    // next one's starts.
    ASSERT_EQ(0, vrta("delete " + t.dom + " t --where 'y < 30 or x > 900'").status);
    ASSERT_EQ(0, runCommand("sqlite3 " + t.db + " \"DELETE FROM t WHERE y < 30 OR x > 900\"").status);
    for (const char* q : {"SELECT k1, COUNT(*), SUM(x), MIN(k2) FROM t GROUP BY k1 ORDER BY k1",
                          "SELECT COUNT(DISTINCT k2), SUM(y) FROM t WHERE x > 0"}) {
        CmdResult s = runCommand(std::string("sqlite3 -csv ") + t.db + " \"" + q + "\"");
        ASSERT_EQ(0, s.status) << q;
        auto want = csvrows(s.out, false);
        for (const char* mode : {"--threads 1", "--threads 2", "--threads 3 --mem 1"}) {
            Result r = vrta("sql " + t.dom + " \"" + q + "\" --csv " + mode);
            ASSERT_EQ(0, r.status) << q << "\n" << r.err;
            auto got = csvrows(r.out, true);
            ASSERT_EQ(want.size(), got.size()) << q << " " << mode;
            for (size_t k = 0; k < want.size(); k++)
                for (size_t c = 0; c < want[k].size() && c < got[k].size(); c++)
                    EXPECT_TRUE(samecell(got[k][c], want[k][c])) << q << " " << mode << ": " << got[k][c];
        }
    }
}

TEST(SqlCli, IndexStatisticsAnswerAggregatesWithoutReadingRows) {
    if (runCommand("sqlite3 -version").status != 0) GTEST_SKIP() << "no sqlite3 here";
    Table t(3000, 5);
    ASSERT_EQ(0, vrta("index create " + t.dom + " t IX --on X").status);
    ASSERT_EQ(0, vrta("index create " + t.dom + " t IK --on K2").status);
    // From the indexes (or the row count), and the same read row by row
    // (WHERE keeps the metascan out) and by SQLite.
    struct Case {
        const char* select;
        const char* metascan;
    } cases[] = {
        {"COUNT(*), COUNT(x), MIN(x), MAX(x), SUM(x), AVG(x)", "used, index statistics"},
        {"COUNT(DISTINCT x), MIN(k2), MAX(k2), COUNT(k2), COUNT(*)", "used, index statistics"},
        {"COUNT(*)", "used, the row count"},
        {"COUNT(*), SUM(y)", "not used"},  // no index on Y
        {"MIN(x), SUM(k1)", "not used"},
    };
    for (const Case& c : cases) {
        std::string q = std::string("SELECT ") + c.select + " FROM t";
        Result e = vrta("sql " + t.dom + " \"" + q + "\" --explain");
        ASSERT_EQ(0, e.status) << e.err;
        EXPECT_TRUE(has(e.out, std::string("metascan: ") + c.metascan)) << q << "\n" << e.out;
        CmdResult s = runCommand("sqlite3 -csv " + t.db + " \"" + q + "\"");
        ASSERT_EQ(0, s.status) << q;
        auto want = csvrows(s.out, false);
        for (const std::string& v : {q, q + " WHERE y >= 0"}) {
            Result r = vrta("sql " + t.dom + " \"" + v + "\" --csv");
            ASSERT_EQ(0, r.status) << v << "\n" << r.err;
            auto got = csvrows(r.out, true);
            ASSERT_EQ(1u, got.size()) << v;
            ASSERT_EQ(want[0].size(), got[0].size()) << v;
            for (size_t k = 0; k < got[0].size(); k++)
                EXPECT_TRUE(samecell(got[0][k], want[0][k])) << v << ": " << got[0][k] << " want " << want[0][k];
        }
    }
    // After deletes the indexes still answer as the remaining rows do: the
    // largest and smallest values and a whole value of K2 go, missing X too.
    Result d = vrta("delete " + t.dom + " t --where \"x > 900 or x < -950 or k2 = 's7' or x = .\"");
    ASSERT_EQ(0, d.status) << d.err;
    for (const char* sel : {"COUNT(*), COUNT(x), MIN(x), MAX(x), SUM(x), NMISS(x)",
                            "COUNT(DISTINCT x), MIN(k2), MAX(k2), COUNT(k2), COUNT(*)"}) {
        std::string q = std::string("SELECT ") + sel + " FROM t";
        Result e = vrta("sql " + t.dom + " \"" + q + "\" --explain");
        ASSERT_EQ(0, e.status) << e.err;
        EXPECT_TRUE(has(e.out, "metascan: used")) << q << "\n" << e.out;
        Result a = vrta("sql " + t.dom + " \"" + q + "\" --csv");
        Result b = vrta("sql " + t.dom + " \"" + q + " WHERE y >= 0\" --csv");
        ASSERT_EQ(0, a.status) << a.err;
        ASSERT_EQ(0, b.status) << b.err;
        EXPECT_EQ(b.out, a.out) << q;
    }
    // VAR and STD the same from the index as from the rows.
    const std::string q = "SELECT VAR(x), STD(x), USS(x), NMISS(x), RANGE(x) FROM t";
    Result a = vrta("sql " + t.dom + " \"" + q + "\" --csv");
    Result b = vrta("sql " + t.dom + " \"" + q + " WHERE y >= 0\" --csv");
    ASSERT_EQ(0, a.status) << a.err;
    EXPECT_EQ(b.out, a.out);
}

TEST(SqlCli, BadQueriesSayWhyAndPrintNothing) {
    Table t(200, 3);
    struct Bad {
        const char* q;
        const char* says;
    } bad[] = {
        {"SELECT nosuch FROM t", "no column nosuch"},
        {"SELECT k1, COUNT(*) FROM t", "neither grouped nor aggregated"},
        {"SELECT k1 FROM t WHERE SUM(x) > 3", "cannot stand in WHERE"},
        {"SELECT MEDIAN(x) FROM t", "MEDIAN"},
        {"SELECT SUM(k2) FROM t", "needs a numeric column"},
        {"SELECT k1 FROM nosuch", "cannot be opened"},
        {"SELECT k1 t WHERE x > 1", "FROM"},
        {"SELECT k1 FROM t LIMIT x", "LIMIT takes a whole number"},
        {"SELECT k1 FROM t ORDER BY 9", "no such select item"},
        {"SELECT SUM(COUNT(x)) FROM t", "inside another"},
        {"SELECT x, COUNT(*) FROM t GROUP BY x / 10", "neither grouped nor aggregated"},
        {"SELECT COUNT(*) FROM t GROUP BY COUNT(*)", "cannot stand in WHERE or GROUP BY"},
        {"SELECT k1, SUM(x) FROM t GROUP BY 2", "holds an aggregate"},
        {"SELECT SUM(k2 || 'a') FROM t", "needs a numeric"},
        {"SELECT k1 FROM t GROUP BY k1 HAVING", "HAVING is empty"},
    };
    for (const Bad& b : bad) {
        Result r = vrta("sql " + t.dom + " \"" + b.q + "\"");
        EXPECT_NE(0, r.status) << b.q;
        EXPECT_TRUE(r.out.empty()) << b.q << ": " << r.out;
        EXPECT_TRUE(has(r.err, b.says)) << b.q << ": " << r.err;
    }
    // The same expression twice is computed once, also when written apart.
    Result r = vrta("sql " + t.dom + " \"SELECT y*2 + 1, SUM(x * 2), AVG(x*2) FROM t GROUP BY y * 2 + 1\" --explain");
    EXPECT_EQ(0, r.status) << r.err;
    EXPECT_TRUE(has(r.out, "computed: 2 value(s)")) << r.out;
    // Who orders the rows: the group-by in key order, its output sort, or the sorter afterwards.
    const char* who[][2] = {{"ORDER BY k1 DESC", "in group key order"},
                            {"ORDER BY 2, k1", "its output sort"},
                            {"ORDER BY k1 + 1", "order by: the sorter"}};
    for (auto& w : who) {
        r = vrta("sql " + t.dom + " \"SELECT k1, COUNT(*) FROM t GROUP BY k1 " + w[0] + "\" --explain");
        EXPECT_EQ(0, r.status) << r.err;
        EXPECT_TRUE(has(r.out, w[1])) << w[0] << "\n" << r.out;
    }
    r = vrta("sql " + t.dom + " \"SELECT k1 AS key, COUNT(*) n FROM t GROUP BY key ORDER BY n DESC, 1 LIMIT 2\"");
    EXPECT_EQ(0, r.status) << r.err;
    EXPECT_TRUE(has(r.out, "key")) << r.out;
    EXPECT_TRUE(has(r.out, "(2 rows)")) << r.out;
}

}  // namespace
