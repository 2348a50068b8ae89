#include <gtest/gtest.h>

#include "CoreFactory.h"
#include "LogCapture.h"

using sync::factory::CoreFactory;

namespace {

TEST(CoreFactoryTest, DefaultActionLogWritesEntriesToTheLog) {
    sync::test::LogCapture log;
    auto actionLog = CoreFactory::ActionLog();
    ASSERT_TRUE(actionLog);
    EXPECT_EQ(actionLog, CoreFactory::ActionLog());
    actionLog->AddFolderEntryWithDetails(15, "/home/u/Docs/a.txt", "a.txt",
                                         actionLog->CreateDetailsWithArguments(14, {"x", "y"}));
    actionLog->AddHttpErrorEntry(3, 507, "/home/u/Docs", "Docs", "https://dav.example.com/Docs");
    EXPECT_EQ(
        log.Messages(log4cplus::INFO_LOG_LEVEL),
        (QStringList{"Action log entry 15 for /home/u/Docs/a.txt (a.txt): details kind 14 [x, y]",
                     "Action log entry 3 for /home/u/Docs (Docs): HTTP 507 from "
                     "https://dav.example.com/Docs"}));
}

}  // namespace
