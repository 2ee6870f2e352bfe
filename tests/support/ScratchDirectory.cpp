#include "support/ScratchDirectory.h"

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <stdexcept>

namespace qel::test {

ScratchDirectory::ScratchDirectory() {
    const char* base = std::getenv("TMPDIR");
    path_ = std::string(base && *base ? base : "/tmp") + "/qel-test-XXXXXX";
    if (!mkdtemp(path_.data())) throw std::runtime_error("mkdtemp failed for " + path_);
}

ScratchDirectory::~ScratchDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

std::vector<uint8_t> ScratchDirectory::read(const std::string& name) const {
    std::ifstream in(file(name), std::ios::binary);
    if (!in) throw std::runtime_error("cannot read " + file(name));
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), {});
}

void ScratchDirectory::write(const std::string& name, const std::vector<uint8_t>& bytes) const {
    std::ofstream out(file(name), std::ios::binary | std::ios::trunc);
    if (!out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()))) {
        throw std::runtime_error("cannot write " + file(name));
    }
}

std::vector<uint8_t> randomBytes(size_t count, uint32_t seed) {
    std::mt19937 random(seed);
    std::vector<uint8_t> bytes(count);
    for (auto& b : bytes) b = static_cast<uint8_t>(random());
    return bytes;
}

}  // namespace qel::test
