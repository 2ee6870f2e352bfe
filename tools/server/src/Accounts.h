// The accounts allowed to use the service: AuthId and AuthSecret pairs read from a file.
//
//   # AuthId   AuthSecret
//   acct-7     s3cr3t
//
// One account per line, two fields separated by blanks; blank lines and lines starting with
// "#" are skipped. Neither field may hold a blank. Errors name the file and line but never
// quote the line, which may hold a secret.
#pragma once

#include <map>
#include <optional>
#include <string>

namespace qel::server {

class Accounts {
public:
    /// Throws std::runtime_error "FILE:LINE: what is wrong" (or "FILE: cannot read: ...").
    static Accounts load(const std::string& path);
    /// Same as load, from text; `source` names it in errors.
    static Accounts parse(const std::string& text, const std::string& source);

    void add(const std::string& authId, const std::string& secret) { secrets_[authId] = secret; }
    /// The secret of `authId`, or nothing for an unknown account.
    std::optional<std::string> secretOf(const std::string& authId) const;
    size_t size() const { return secrets_.size(); }

private:
    std::map<std::string, std::string> secrets_;
};

/// The whole content of a file; throws std::runtime_error "PATH: cannot read: REASON".
std::string readFile(const std::string& path);

}  // namespace qel::server
