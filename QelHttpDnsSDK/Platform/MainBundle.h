// The application's identity: the stand-in for the main bundle's "CFBundleIdentifier".
// A Linux application has no bundle, so it sets its identifier once at start (for instance
// "com.example.app"); until then the identifier is absent.
#pragma once

#include <optional>
#include <string>

namespace qel::platform {

class MainBundle {
public:
    /// The identifier set by the application, or nothing. Callable from any thread.
    static std::optional<std::string> identifier();

    /// Sets (or, with nullopt, clears) the identifier. Callable from any thread.
    static void setIdentifier(std::optional<std::string> identifier);
};

}  // namespace qel::platform
