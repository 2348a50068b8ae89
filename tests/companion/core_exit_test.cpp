#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "CheckForExit.h"

using sync::core::CheckForExit;

namespace {

TEST(CheckForExitTest, ManyRequestsFromOtherThreadsSignalOnceAndAfterTheFlag) {
    CheckForExit checker;
    EXPECT_FALSE(checker.ShouldExit());
    EXPECT_FALSE(checker.ShouldExitThread());

    std::atomic<int> direct{0};
    std::atomic<bool> flagSeenBySignal{false};
    QObject::connect(
        &checker, &CheckForExit::PrepareToQuit, &checker,
        [&] {
            ++direct;
            flagSeenBySignal = checker.ShouldExit() && checker.ShouldExitThread();
        },
        Qt::DirectConnection);

    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&] {
            for (int i = 0; i < 100; ++i) checker.RequestExit();
        });
    for (auto& t : threads) t.join();

    EXPECT_EQ(direct, 1);
    EXPECT_TRUE(flagSeenBySignal);
    EXPECT_TRUE(checker.ShouldExit());
    EXPECT_TRUE(checker.ShouldExitThread());
}

}  // namespace
