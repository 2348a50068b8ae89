#include <gtest/gtest.h>

#include <QCoreApplication>
#include <atomic>
#include <thread>
#include <vector>

#include "CheckForExit.h"
#include "CoreFactory.h"

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
    // How the service listens: queued to an object of this thread.
    QObject receiver;
    int queued = 0;
    QObject::connect(
        &checker, &CheckForExit::PrepareToQuit, &receiver, [&] { ++queued; }, Qt::QueuedConnection);

    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&] {
            for (int i = 0; i < 100; ++i) checker.RequestExit();
        });
    for (auto& t : threads) t.join();
    QCoreApplication::processEvents();

    EXPECT_EQ(direct, 1);
    EXPECT_EQ(queued, 1);
    EXPECT_TRUE(flagSeenBySignal);
    EXPECT_TRUE(checker.ShouldExit());
    EXPECT_TRUE(checker.ShouldExitThread());
}

}  // namespace
