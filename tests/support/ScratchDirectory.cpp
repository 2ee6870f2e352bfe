#include "support/ScratchDirectory.h"

#include <stdlib.h>

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <system_error>
#include <vector>

namespace qel::test {

ScratchDirectory::ScratchDirectory() {
    const char* base = std::getenv("TMPDIR");
    std::string pattern = std::string(base && *base ? base : "/tmp") + "/qel-test-XXXXXX";
    std::vector<char> buffer(pattern.begin(), pattern.end());
    buffer.push_back('\0');
    if (!mkdtemp(buffer.data())) throw std::runtime_error("mkdtemp failed for " + pattern);
    path_ = buffer.data();
}

ScratchDirectory::~ScratchDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

}  // namespace qel::test
