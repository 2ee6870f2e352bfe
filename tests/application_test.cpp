// What an application states through QelDNSApplication reaches the parts of the library that
// use it. (The bundle identifier: utilities_test; the life cycle: network_manager_test.)
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "QelHttpDnsSDK/Log/QelDNSLog.h"
#include "QelHttpDnsSDK/Platform/UserDefaults.h"
#include "QelHttpDnsSDK/QelDNSApplication.h"
#include "support/ScratchDirectory.h"

TEST(QelDNSApplication, TheLogSinkReceivesTheLibrarysLinesUntilRemoved) {
    std::vector<std::string> received;
    QelDNSApplication::setLogSink([&](const std::string& line) { received.push_back(line); });
    QelDNSLog::enable();
    QelDNSLog::logWithStr("to the sink");
    QelDNSApplication::setLogSink(nullptr);
    QelDNSLog::logWithStr("to standard error");
    EXPECT_EQ(received, std::vector<std::string>{"to the sink"});
}

TEST(QelDNSApplication, TheStorePathCanBeChosenOnlyUntilTheStoreOpens) {
    // The store's own rules are in user_defaults_test; this checks the application's way in.
    qel::test::ScratchDirectory dir;
    ASSERT_TRUE(QelDNSApplication::setStorePath(dir.file("store.db")));
    qel::platform::UserDefaults::standard().setString("key", "value");
    EXPECT_FALSE(QelDNSApplication::setStorePath(dir.file("later.db")));
    EXPECT_EQ(qel::platform::UserDefaults::standardPath(), dir.file("store.db"));
}
