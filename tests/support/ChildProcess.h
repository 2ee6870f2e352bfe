// Programs a test starts (the service's binary, dnsmasq, a proxy), with what they need: a file
// of their own and a free port.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "support/ScratchDirectory.h"

namespace qel::test {

/// A file of its own holding `content`, removed with the object.
struct TempFile {
    explicit TempFile(const std::string& content = "") { write(content); }
    const std::string& path() const { return path_; }
    void write(const std::string& content) const;
    std::string read() const;

    ScratchDirectory directory;
    const std::string path_ = directory.file("file");
};

/// A port on 127.0.0.1 that nothing uses at the moment of the call, in TCP nor in UDP.
int freePort(int type);

/// A program with its output in files, killed with the object if still running.
struct ChildProcess {
    ChildProcess(const std::string& program, const std::vector<std::string>& arguments);
    ~ChildProcess();
    /// The exit status, or nothing if it has not ended within `limit`.
    std::optional<int> wait(std::chrono::milliseconds limit = std::chrono::seconds(20));
    std::string output() const { return out.read(); }
    std::string errors() const { return err.read(); }

    TempFile out, err;
    pid_t pid;
    std::optional<int> status;
};

}  // namespace qel::test
