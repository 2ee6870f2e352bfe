// An object that can be written to a keyed archive (the stand-in for the platform's keyed
// coding protocol). A class that can also be read back provides, for
// `KeyedUnarchiver::AllowedClass::of<T>()`:
//   static constexpr std::string_view kClassName;            the name the archive records
//   static bool supportsSecureCoding();                      true to be decodable at all
//   static std::shared_ptr<T> initWithCoder(const KeyedUnarchiver& coder);
#pragma once

#include <string_view>

namespace qel::platform {

class KeyedArchiver;

class Coding {
public:
    virtual ~Coding() = default;

    /// The class name written to the archive; decoding finds the class by this name.
    virtual std::string_view className() const = 0;

    /// Writes the object's fields with the coder's keyed `encode...` operations.
    virtual void encodeWithCoder(KeyedArchiver& coder) const = 0;
};

}  // namespace qel::platform
