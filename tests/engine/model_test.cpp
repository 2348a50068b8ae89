#include <gtest/gtest.h>

#include "SyncResults.h"

TEST(SyncResultsTest, Placeholder) {
    EXPECT_FALSE(sync::core::SyncResults().anyErrors());
}
