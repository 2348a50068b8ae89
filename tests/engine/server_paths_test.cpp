#include <gtest/gtest.h>

#include "ServerPaths.h"

using sync::core::JoinServerPath;

// One "/" at the seam whatever either side carries there.
TEST(ServerPathsTest, JoinPutsExactlyOneSlashAtTheSeam) {
    const struct {
        const char* root;
        const char* below;
        const char* joined;
    } rows[] = {
        {"/Docs", "/a/b.txt", "/Docs/a/b.txt"},
        {"/Docs/", "/a", "/Docs/a"},
        {"/Docs//", "//a", "/Docs/a"},
        {"/Docs", "a", "/Docs/a"},
        {"/", "/a", "/a"},
        {"", "a", "/a"},
        {"/Docs", "", "/Docs"},
        {"/Docs/", "//", "/Docs/"},
        {"/Dócs", "/ä/ß", "/Dócs/ä/ß"},
    };
    for (const auto& row : rows) {
        const QString joined =
            JoinServerPath(QString::fromUtf8(row.root), QString::fromUtf8(row.below));
        EXPECT_EQ(joined.toStdString(), row.joined) << row.root << " + " << row.below;
    }
}
