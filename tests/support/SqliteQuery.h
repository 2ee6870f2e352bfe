// Reads or writes the store's file with a connection of the application's own.
#pragma once

#include <sqlite3.h>

#include <string>

namespace qel::test {

/// Runs `sql` on a new connection to `path`: the first column of the last row, "<none>"
/// without a row, "<error>" when it fails.
inline std::string appQuery(const std::string& path, const std::string& sql) {
    sqlite3* db = nullptr;
    std::string result = "<none>";
    const auto first = [](void* out, int, char** values, char**) {
        *static_cast<std::string*>(out) = values[0] ? values[0] : "<null>";
        return 0;
    };
    if (sqlite3_open(path.c_str(), &db) != SQLITE_OK || sqlite3_exec(db, sql.c_str(), first, &result, nullptr) != SQLITE_OK) {
        result = "<error>";
    }
    sqlite3_close(db);
    return result;
}

}  // namespace qel::test
