#include <gtest/gtest.h>

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
        seen.push_back("a:" + std::to_string(std::any_cast<int>(n.object)));
    });
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
    EXPECT_EQ(deliveredOn, posterId);
    EXPECT_EQ(seen, (Strings{"a:7", "b"}));
}

TEST(EventLoop, RunsTasksInOrderAndTimersByDeadlineSurvivingAThrow) {
    qel::test::CapturingConsole console;
    qel::platform::EventLoop loop;
    Strings seen;
    std::promise<void> done;
    for (const char* task : {"1", "2"}) loop.post([&seen, task] { seen.push_back(task); });
    loop.post([] { throw std::runtime_error("boom"); });
    loop.post([&] {
        loop.runAfter(0.03, [&] { seen.push_back("late"); done.set_value(); });
        loop.runAfter(0.01, [&] { seen.push_back("early"); });
        const auto cancelled = loop.runAfter(0.02, [&] { seen.push_back("cancelled"); });
        loop.runAfter(0.0, [&] { seen.push_back(loop.isLoopThread() ? "now" : "elsewhere"); });
        loop.cancelTimer(cancelled);
    });
    done.get_future().wait();
    EXPECT_EQ(seen, (Strings{"1", "2", "now", "early", "late"}));
    EXPECT_FALSE(loop.isLoopThread());
    ASSERT_EQ(console.lines().size(), 1u);
    EXPECT_NE(console.lines()[0].find("boom"), std::string::npos);
}
