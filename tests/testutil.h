// Helpers shared by the test suites.
#pragma once
#include <string>

namespace vrtatest {

// A fresh directory under $TMPDIR (or /tmp), removed with everything in it
// when the object goes out of scope.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const { return path_; }
    std::string file(const std::string& name) const { return path_ + "/" + name; }
private:
    std::string path_;
};

// Whole file as bytes; empty when it cannot be read.
std::string readFile(const std::string& path);
void writeFile(const std::string& path, const std::string& bytes);

// A shell command's standard output and exit status (-1 when it did not
// exit normally or could not be started).
struct CmdResult {
    int status = -1;
    std::string out;
};
CmdResult runCommand(const std::string& cmd);

}  // namespace vrtatest
