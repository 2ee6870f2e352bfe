#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <future>
#include <stdexcept>
#include <thread>
#include <vector>

#include "QelHttpDnsSDK/Platform/Clock.h"
#include "QelHttpDnsSDK/Platform/Console.h"
#include "QelHttpDnsSDK/Platform/HttpSession.h"
#include "QelHttpDnsSDK/Platform/Linux/CurlHttpSession.h"
#include "QelHttpDnsSDK/Platform/Linux/EventLoop.h"
#include "QelHttpDnsSDK/Platform/Linux/SqliteUserDefaults.h"
#include "QelHttpDnsSDK/Platform/NotificationCenter.h"
#include "QelHttpDnsSDK/Platform/PlatformServices.h"
#include "QelHttpDnsSDK/Platform/UserDefaults.h"
#include "support/CapturingConsole.h"
#include "support/FakeClock.h"
#include "support/ScratchDirectory.h"

using qel::platform::Clock;
using qel::platform::Console;
using qel::platform::EventLoop;
using qel::platform::HttpSession;
using qel::platform::Notification;
using qel::platform::NotificationCenter;
using qel::platform::ScopedPlatformOverride;
using qel::platform::UserDefaults;

TEST(Console, SinkReceivesEachMessageOnceUntilRemoved) {
    {
        qel::test::CapturingConsole console;
        Console::log("one");
        Console::log(std::string("two\0three", 9));
        EXPECT_EQ(console.lines(), (std::vector<std::string>{"one", std::string("two\0three", 9)}));
    }
    // The sink is gone: this goes to stderr, and the destroyed capture is not touched.
    Console::log("to stderr");
}

TEST(ScopedPlatformOverride, ReplacesEachServiceUntilDestroyedAndNests) {
    struct NullSession final : HttpSession {
        void send(qel::platform::HttpRequest, Completion) override {}
    } session;
    qel::test::ScratchDirectory dir;
    ASSERT_TRUE(UserDefaults::setStandardPath(dir.file("standard.sqlite3")));
    qel::platform::SqliteUserDefaults store(dir.file("replacement.sqlite3"));
    {
        qel::test::FakeClock outer(1000.5);
        {
            qel::test::FakeClock inner(5.0);
            ScopedPlatformOverride scope;
            scope.httpSession(session).userDefaults(store);
            EXPECT_EQ(Clock::currentTime(), 5.0);
            EXPECT_EQ(&HttpSession::shared(), &session);
            EXPECT_EQ(&UserDefaults::standard(), &store);
        }
        EXPECT_EQ(Clock::currentTime(), 1000.5);
    }
    EXPECT_GT(Clock::currentTime(), 1.6e9);
    EXPECT_EQ(&HttpSession::shared(), &qel::platform::CurlHttpSession::shared());
    EXPECT_NE(&UserDefaults::standard(), &store);
}

TEST(NotificationCenter, DeliversByNameOnThePostingThreadAndSurvivesReentrantBlocks) {
    NotificationCenter center;
    std::vector<std::string> seen;
    std::thread::id deliveredOn;
    center.addObserver("a", [&](const Notification& n) {
        deliveredOn = std::this_thread::get_id();
        seen.push_back("first:" + std::to_string(std::any_cast<int>(n.object)));
    });
    center.addObserver("a", [&](const Notification& n) { seen.push_back("second:" + n.name); });
    // A block that removes itself and posts again must neither deadlock nor run twice.
    NotificationCenter::ObserverToken self = 0;
    self = center.addObserver("b", [&](const Notification&) {
        seen.push_back("b");
        center.removeObserver(self);
        center.post("b");
    });
    std::thread poster([&] { center.post("a", 7); });
    const auto posterId = poster.get_id();
    poster.join();
    EXPECT_EQ(deliveredOn, posterId);
    center.post("b");
    center.post("b");
    center.removeObserver(12345);  // unknown tokens are ignored
    EXPECT_EQ(seen, (std::vector<std::string>{"first:7", "second:a", "b"}));
}

TEST(EventLoop, RunsEachPostersTasksInOrderOnItsOwnThread) {
    EventLoop loop;
    constexpr int kThreads = 4, kPerThread = 500;
    std::vector<std::vector<int>> seen(kThreads);
    std::atomic<bool> onLoop{true};
    std::atomic<int> remaining{kThreads * kPerThread};
    std::promise<void> done;
    std::vector<std::thread> posters;
    for (int t = 0; t < kThreads; ++t) {
        posters.emplace_back([&, t] {
            for (int i = 0; i < kPerThread; ++i) {
                loop.post([&, t, i] {
                    if (!loop.isLoopThread()) onLoop = false;
                    seen[t].push_back(i);
                    if (--remaining == 0) done.set_value();
                });
            }
        });
    }
    for (auto& poster : posters) poster.join();
    done.get_future().wait();
    EXPECT_TRUE(onLoop);
    EXPECT_FALSE(loop.isLoopThread());
    for (int t = 0; t < kThreads; ++t) {
        ASSERT_EQ(seen[t].size(), static_cast<size_t>(kPerThread));
        for (int i = 0; i < kPerThread; ++i) ASSERT_EQ(seen[t][i], i);
    }
}

TEST(EventLoop, TimersFireInDeadlineOrderAndCancelledOnesNever) {
    EventLoop loop;
    std::vector<std::string> fired;
    std::promise<void> done;
    loop.post([&] {
        loop.runAfter(0.03, [&] { fired.push_back("late"); done.set_value(); });
        loop.runAfter(0.01, [&] { fired.push_back("early"); });
        const auto cancelled = loop.runAfter(0.02, [&] { fired.push_back("cancelled"); });
        loop.runAfter(0.0, [&] { fired.push_back("now"); });
        loop.cancelTimer(cancelled);
        loop.cancelTimer(cancelled);
    });
    done.get_future().wait();
    EXPECT_EQ(fired, (std::vector<std::string>{"now", "early", "late"}));
}

TEST(EventLoop, SurvivesATaskThatThrows) {
    qel::test::CapturingConsole console;
    EventLoop loop;
    std::promise<void> after;
    loop.post([] { throw std::runtime_error("boom"); });
    loop.post([&] { after.set_value(); });
    after.get_future().wait();
    const auto lines = console.lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_NE(lines[0].find("boom"), std::string::npos);
}
