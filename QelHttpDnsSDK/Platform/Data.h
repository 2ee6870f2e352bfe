#pragma once

#include <cstdint>
#include <vector>

namespace qel::platform {

/// A byte blob: the value type of the defaults store and of keyed archives.
using Data = std::vector<std::uint8_t>;

}  // namespace qel::platform
