// Captures console lines for the life of the object (installs a console sink).
#pragma once

#include <mutex>
#include <string>
#include <vector>

namespace qel::test {

class CapturingConsole {
public:
    CapturingConsole();
    ~CapturingConsole();
    CapturingConsole(const CapturingConsole&) = delete;
    CapturingConsole& operator=(const CapturingConsole&) = delete;

    std::vector<std::string> lines() const;
    void clear();

private:
    mutable std::mutex mutex_;
    std::vector<std::string> lines_;
};

}  // namespace qel::test
