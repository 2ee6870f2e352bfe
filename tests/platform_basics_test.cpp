#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <stdexcept>
#include <thread>
#include <vector>

#include "QelHttpDnsSDK/Platform/Linux/EventLoop.h"
#include "QelHttpDnsSDK/Platform/NotificationCenter.h"
#include "support/CapturingConsole.h"

using qel::platform::Notification;
using Strings = std::vector<std::string>;

TEST(NotificationCenter, DeliversByNameOnThePostingThreadAndSurvivesReentrantBlocks) {
    qel::platform::NotificationCenter center;
    Strings seen;
    std::thread::id deliveredOn;
    center.addObserver("a", [&](const Notification& n) {
        deliveredOn = std::this_thread::get_id();
        seen.push_back("first:" + std::to_string(std::any_cast<int>(n.object)));
    });
    center.addObserver("a", [&](const Notification& n) { seen.push_back("second:" + n.name); });
    // A block that removes itself and posts again must neither deadlock nor run twice.
    qel::platform::NotificationCenter::ObserverToken self = 0;
    self = center.addObserver("b", [&](const Notification&) {
        seen.push_back("b");
        center.removeObserver(self);
        center.post("b");
    });
    std::thread poster([&] { center.post("a", 7); });
    const auto posterId = poster.get_id();
    poster.join();
    center.post("b");
    center.post("b");
    center.removeObserver(12345);  // unknown tokens are ignored
    EXPECT_EQ(deliveredOn, posterId);
    EXPECT_EQ(seen, (Strings{"first:7", "second:a", "b"}));
}

TEST(EventLoop, RunsEachPostersTasksInOrderAndTimersByDeadlineSurvivingAThrow) {
    qel::test::CapturingConsole console;
    qel::platform::EventLoop loop;
    std::vector<std::vector<int>> seen(3);
    std::atomic<bool> onLoop{true};
    std::vector<std::thread> posters;
    for (auto& tasks : seen) {
        posters.emplace_back([&] {
            for (int i = 0; i < 300; ++i) {
                loop.post([&, i] { onLoop = onLoop && loop.isLoopThread(); tasks.push_back(i); });
            }
        });
    }
    for (auto& poster : posters) poster.join();
    Strings fired;
    std::promise<void> done;
    loop.post([] { throw std::runtime_error("boom"); });
    loop.post([&] {
        loop.runAfter(0.03, [&] { fired.push_back("late"); done.set_value(); });
        loop.runAfter(0.01, [&] { fired.push_back("early"); });
        const auto cancelled = loop.runAfter(0.02, [&] { fired.push_back("cancelled"); });
        loop.runAfter(0.0, [&] { fired.push_back("now"); });
        loop.cancelTimer(cancelled);
        loop.cancelTimer(cancelled);
    });
    done.get_future().wait();
    EXPECT_EQ(fired, (Strings{"now", "early", "late"}));
    EXPECT_TRUE(onLoop);
    EXPECT_FALSE(loop.isLoopThread());
    for (const auto& tasks : seen) {
        ASSERT_EQ(tasks.size(), 300u);
        for (int i = 0; i < 300; ++i) EXPECT_EQ(tasks[i], i);
    }
    ASSERT_EQ(console.lines().size(), 1u);
    EXPECT_NE(console.lines()[0].find("boom"), std::string::npos);
}
