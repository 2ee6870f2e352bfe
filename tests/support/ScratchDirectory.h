// A fresh directory under $TMPDIR (or /tmp), removed with everything in it when the object
// goes away. Tests keep their files here, never under the real home directory.
#pragma once

#include <string>

namespace qel::test {

class ScratchDirectory {
public:
    ScratchDirectory();
    ~ScratchDirectory();
    ScratchDirectory(const ScratchDirectory&) = delete;
    ScratchDirectory& operator=(const ScratchDirectory&) = delete;

    const std::string& path() const { return path_; }
    /// `path()/name`.
    std::string file(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

}  // namespace qel::test
