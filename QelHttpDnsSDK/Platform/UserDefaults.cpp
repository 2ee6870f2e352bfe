#include "QelHttpDnsSDK/Platform/UserDefaults.h"

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <mutex>

#include "QelHttpDnsSDK/Platform/MainBundle.h"
#include "QelHttpDnsSDK/Platform/Linux/SqliteUserDefaults.h"

namespace qel::platform {

namespace {

constexpr char kFallbackDirectory[] = "QelHttpDnsSDK";
constexpr char kFileName[] = "user-defaults.sqlite3";

std::mutex configMutex;
std::optional<std::string> chosenPath;  // guarded by configMutex
bool standardOpened = false;            // guarded by configMutex

std::string homeDirectory() {
    if (const char* home = std::getenv("HOME"); home && *home) return home;
    struct passwd entry {};
    struct passwd* found = nullptr;
    char buffer[4096];
    if (getpwuid_r(getuid(), &entry, buffer, sizeof buffer, &found) == 0 && found &&
        found->pw_dir && *found->pw_dir) {
        return found->pw_dir;
    }
    return ".";
}

// XDG: $XDG_DATA_HOME when it is an absolute path, else ~/.local/share.
std::string dataHome() {
    if (const char* xdg = std::getenv("XDG_DATA_HOME"); xdg && xdg[0] == '/') return xdg;
    return homeDirectory() + "/.local/share";
}

// The bundle identifier as one directory name: no separators, no "." or "..".
std::string directoryName() {
    std::optional<std::string> identifier = MainBundle::identifier();
    if (!identifier || identifier->empty() || *identifier == "." || *identifier == "..") {
        return kFallbackDirectory;
    }
    for (char& c : *identifier) {
        if (c == '/' || c == '\0') c = '_';
    }
    return *identifier;
}

std::string standardPathLocked() {
    if (chosenPath) return *chosenPath;
    return dataHome() + "/" + directoryName() + "/" + kFileName;
}

}  // namespace

UserDefaults& UserDefaults::standard() {
    static UserDefaults* const instance = [] {
        std::string path;
        {
            std::lock_guard<std::mutex> lock(configMutex);
            standardOpened = true;
            path = standardPathLocked();
            chosenPath = path;  // later changes of the environment no longer move the store
        }
        return new SqliteUserDefaults(std::move(path));
    }();
    return *instance;
}

bool UserDefaults::setStandardPath(const std::string& path) {
    std::lock_guard<std::mutex> lock(configMutex);
    if (standardOpened) return false;
    chosenPath = path;
    return true;
}

std::string UserDefaults::standardPath() {
    std::lock_guard<std::mutex> lock(configMutex);
    return standardPathLocked();
}

}  // namespace qel::platform
