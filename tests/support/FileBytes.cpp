#include "support/FileBytes.h"

#include <fstream>
#include <iterator>
#include <random>
#include <stdexcept>

namespace qel::test {

std::vector<uint8_t> readFileBytes(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw std::runtime_error("cannot read " + path);
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), {});
}

void writeFileBytes(const std::string& path, const std::vector<uint8_t>& bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    if (!out) throw std::runtime_error("cannot write " + path);
}

std::vector<uint8_t> randomBytes(size_t count, uint32_t seed) {
    std::mt19937 random(seed);
    std::vector<uint8_t> bytes(count);
    for (auto& b : bytes) b = static_cast<uint8_t>(random());
    return bytes;
}

void scrambleFileAfter(const std::string& path, size_t keep, uint32_t seed) {
    std::vector<uint8_t> bytes = readFileBytes(path);
    if (bytes.size() <= keep) throw std::runtime_error("nothing to scramble in " + path);
    const std::vector<uint8_t> noise = randomBytes(bytes.size() - keep, seed);
    std::copy(noise.begin(), noise.end(), bytes.begin() + static_cast<long>(keep));
    writeFileBytes(path, bytes);
}

}  // namespace qel::test
