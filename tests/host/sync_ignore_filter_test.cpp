#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <utility>

#include "FolderConfiguration.h"
#include "LogCapture.h"
#include "SyncIgnoreFilter.h"

using sync::config::FolderConfiguration;
using sync::host::SyncIgnoreFilter;

namespace {

void WriteIgnoreFile(const QString& folder, const QByteArray& content) {
    QFile file(QDir(folder).filePath(SyncIgnoreFilter::FileName));
    ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
    ASSERT_EQ(file.write(content), content.size());
}

FolderConfiguration Root(const QString& localPath, const QString& serverPath) {
    FolderConfiguration root;
    root.localPath = localPath;
    root.serverPath = serverPath;
    return root;
}

int Ask(SyncIgnoreFilter& filter, const QString& path, bool isFolder, bool serverSide) {
    return isFolder ? filter.FilterFolder(path, serverSide)
                    : filter.FilterFile(path, 10, serverSide);
}

}  // namespace

// Each entry is asked with its path below the root (local side) and with its server path, as
// the server spells it and as the engine keys it. An entry left out on one side only would be
// taken for deleted and deleted on the other, so all three answers must agree.
TEST(SyncIgnoreFilter, BothSidesGiveTheSameAnswer) {
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    WriteIgnoreFile(dir.path(),
                    "*.tmp\n!important.tmp\nbuild/\n/secret.txt\ndocs/**/draft*\nCase.txt\n");

    struct Row {
        const char* belowRoot;
        bool isFolder;
        bool excluded;
    } const rows[] = {
        {"/a.tmp", false, true},
        {"/sub/a.tmp", false, true},
        {"/important.tmp", false, false},
        {"/build", true, true},
        {"/build", false, false},
        {"/build/x.o", false, true},
        {"/secret.txt", false, true},
        {"/sub/secret.txt", false, false},
        {"/docs/a/draft1.md", false, true},
        {"/docs/draft", true, true},
        {"/Case.txt", false, true},
        {"/case.txt", false, false},
        {"/notes~", false, true},  // built-in litter
        {"/sub/Thumbs.db", false, true},
        {"/notes.txt", false, false},
    };

    // The root as the database spells it, and the server's spelling of the same folder.
    const std::pair<QString, QString> roots[] = {
        {QStringLiteral("/Docs"), QStringLiteral("/Docs")},
        {QStringLiteral("/docs/"), QStringLiteral("/Docs")},  // other case, trailing "/"
        {QStringLiteral("/"), QString()},                     // the whole server
    };
    for (const auto& root : roots) {
        SyncIgnoreFilter filter;
        ASSERT_TRUE(filter.IsRootFolderIncluded(Root(dir.path(), root.first)));
        for (const Row& row : rows) {
            const QString below = QString::fromUtf8(row.belowRoot);
            SCOPED_TRACE(QStringLiteral("%1 below root %2").arg(below, root.first).toStdString());
            const int expected = row.excluded ? 1 : 0;
            EXPECT_EQ(Ask(filter, below, row.isFolder, false), expected);
            // The local walk gives no leading "/" when the root's local path ends with one.
            EXPECT_EQ(Ask(filter, below.mid(1), row.isFolder, false), expected);
            EXPECT_EQ(Ask(filter, root.second + below, row.isFolder, true), expected);
        }
    }
}

// The rules of the root being synchronised apply, and only those; an edit applies from the
// next time the root comes round.
TEST(SyncIgnoreFilter, FollowsTheRootBeingSynchronised) {
    QTemporaryDir a, b, c;
    ASSERT_TRUE(a.isValid() && b.isValid() && c.isValid());
    WriteIgnoreFile(a.path(), "*.tmp\n");
    WriteIgnoreFile(b.path(), "*.log\n");
    const FolderConfiguration rootA = Root(a.path(), QStringLiteral("/A"));
    const FolderConfiguration rootB = Root(b.path(), QStringLiteral("/B"));
    const FolderConfiguration rootC = Root(c.path(), QStringLiteral("/C"));  // no ignore file

    SyncIgnoreFilter filter;
    // Before any root is known only the litter applies.
    EXPECT_EQ(filter.FilterFile(QStringLiteral("/x.tmp"), 1, false), 0);
    EXPECT_EQ(filter.FilterFile(QStringLiteral("/x~"), 1, false), 1);

    struct Step {
        const FolderConfiguration* root;
        const char* serverRoot;
        int tmp;
        int log;
    } const steps[] = {
        {&rootA, "/A", 1, 0},
        {&rootB, "/B", 0, 1},
        {&rootC, "/C", 0, 0},
        {&rootA, "/A", 1, 0},
    };
    for (const Step& step : steps) {
        SCOPED_TRACE(step.serverRoot);
        filter.IsRootFolderIncluded(*step.root);
        const QString server = QString::fromUtf8(step.serverRoot);
        EXPECT_EQ(filter.FilterFile(QStringLiteral("/x.tmp"), 1, false), step.tmp);
        EXPECT_EQ(filter.FilterFile(server + QStringLiteral("/x.tmp"), 1, true), step.tmp);
        EXPECT_EQ(filter.FilterFile(QStringLiteral("/x.log"), 1, false), step.log);
        EXPECT_EQ(filter.FilterFile(server + QStringLiteral("/x.log"), 1, true), step.log);
    }

    WriteIgnoreFile(a.path(), "*.log\n");
    EXPECT_EQ(filter.FilterFile(QStringLiteral("/x.tmp"), 1, false), 1);  // read at the start only
    filter.IsRootFolderIncluded(rootA);
    EXPECT_EQ(filter.FilterFile(QStringLiteral("/x.tmp"), 1, false), 0);
    EXPECT_EQ(filter.FilterFile(QStringLiteral("/x.log"), 1, false), 1);
    QFile::remove(QDir(a.path()).filePath(SyncIgnoreFilter::FileName));
    filter.IsRootFolderIncluded(rootA);
    EXPECT_EQ(filter.FilterFile(QStringLiteral("/x.log"), 1, false), 0);
}

TEST(SyncIgnoreFilter, AnIgnoreFileThatCannotBeUsedIsReported) {
    QTemporaryDir dir, big;
    ASSERT_TRUE(dir.isValid() && big.isValid());
    ASSERT_TRUE(QDir(dir.path()).mkdir(SyncIgnoreFilter::FileName));
    QByteArray content("*.tmp\n");
    content += QByteArray(sync::host::IgnoreRules::MaxFileSize, '\n');
    WriteIgnoreFile(big.path(), content);

    sync::test::LogCapture log;
    SyncIgnoreFilter filter;
    EXPECT_TRUE(filter.IsRootFolderIncluded(Root(dir.path(), QStringLiteral("/D"))));
    EXPECT_EQ(filter.FilterFile(QStringLiteral("/x.tmp"), 1, false), 0);
    EXPECT_EQ(log.Messages(log4cplus::WARN_LOG_LEVEL).size(), 1);

    EXPECT_TRUE(filter.IsRootFolderIncluded(Root(big.path(), QStringLiteral("/E"))));
    EXPECT_EQ(filter.FilterFile(QStringLiteral("/x.tmp"), 1, false), 1);
    EXPECT_EQ(log.Messages(log4cplus::WARN_LOG_LEVEL).size(), 2);
}
