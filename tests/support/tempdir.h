// A private temporary directory for one test, removed with everything in it
// when the object goes out of scope.
#pragma once

#include <string>

class TempDir {
public:
    // Created under $TMPDIR or /tmp; a failure ends the test program.
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& path() const { return path_; }
    // path()/name (the file need not exist).
    std::string file(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};
