#pragma once

#include <any>
#include <string>

namespace qel::platform {

/// A named event with the object that posted it. The object is whatever the poster chose
/// (typically a std::shared_ptr to itself); an observer reads it with std::any_cast.
struct Notification {
    std::string name;
    std::any object;
};

}  // namespace qel::platform
