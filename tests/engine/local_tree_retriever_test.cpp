#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include "LocalEntryInfoTreeRetriever.h"
#include "LogCapture.h"
#include "RetrieverTestDoubles.h"
#include "ServerPaths.h"
#include "SyncConsts.h"
#include "SyncException.h"

using namespace sync::test;
using sync::config::FileConfiguration;
using sync::config::FolderConfiguration;
using sync::syncService::EntryInfoTree;
using sync::syncService::LocalEntryInfoTreeRetriever;
using ::testing::_;
using ::testing::NiceMock;
using ::testing::Return;

namespace {

void WriteFile(const QString& path, const QByteArray& content = "data") {
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile f(path);
    ASSERT_TRUE(f.open(QIODevice::WriteOnly)) << path.toStdString();
    f.write(content);
}

QStringList Sorted(QStringList list) {
    list.sort();
    return list;
}

class LocalTreeRetrieverTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(tmp.isValid());
        rootPath = QDir(tmp.path()).filePath(QStringLiteral("Docs"));
        QDir().mkpath(rootPath);
        root.id = 1;
        root.rootId = 1;
        root.inheritedId = 1;
        root.localPath = rootPath;
        root.serverPath = QStringLiteral("/Docs");
        root.syncScope = 0;

        ON_CALL(*fileDb, GetGeneratedFilesByRootId(_, _))
            .WillByDefault(Return(QVector<FileConfiguration>{}));
        retriever =
            std::make_unique<LocalEntryInfoTreeRetriever>(nullptr, fileDb, core, filter, filter);
        QObject::connect(retriever.get(), &LocalEntryInfoTreeRetriever::FileFilteredOut,
                         [this](const QString& p) { fileSignals.append(p); });
        QObject::connect(retriever.get(), &LocalEntryInfoTreeRetriever::FolderFilteredOut,
                         [this](const QString& p) { folderSignals.append(p); });
        QObject::connect(retriever.get(), &LocalEntryInfoTreeRetriever::SubFolderNameNotAllowed,
                         [this](const QString& p) { notAllowedSignals.append(p); });
    }

    QString At(const QString& below) const { return rootPath + QLatin1Char('/') + below; }

    QTemporaryDir tmp;
    QString rootPath;
    FolderConfiguration root;
    std::shared_ptr<CountingCheckForExit> checkForExit = std::make_shared<CountingCheckForExit>();
    std::shared_ptr<NiceMock<MockFileConfigManager>> fileDb =
        std::make_shared<NiceMock<MockFileConfigManager>>();
    std::shared_ptr<ListSyncFilter> filter = std::make_shared<ListSyncFilter>();
    std::shared_ptr<TestCoreFactory> core = std::make_shared<TestCoreFactory>(checkForExit);
    std::unique_ptr<LocalEntryInfoTreeRetriever> retriever;
    QStringList fileSignals, folderSignals, notAllowedSignals;
};

// One row per walk: what the tree must hold for a scope and the hidden-entries option.
struct WalkRow {
    const char* name;
    int syncScope;
    bool hidden;
    QStringList files;    // keys
    QStringList folders;  // keys, root included
};

void PrintTo(const WalkRow& row, std::ostream* os) {
    *os << row.name;
}

const WalkRow kWalkRows[] = {
    {"WholeTree",
     0,
     false,
     {"/docs/a.txt", "/docs/sub/b.txt", "/docs/sub/deep/c.txt", "/docs/private/p.txt"},
     {"/docs", "/docs/sub", "/docs/sub/deep"}},
    {"WholeTreeWithHidden",
     0,
     true,
     {"/docs/a.txt", "/docs/.hidden.txt", "/docs/sub/b.txt", "/docs/sub/deep/c.txt",
      "/docs/private/p.txt", "/docs/.hiddendir/d.txt"},
     {"/docs", "/docs/sub", "/docs/sub/deep", "/docs/.hiddendir"}},
    {"RootOnly", 1, false, {"/docs/a.txt"}, {"/docs"}},
    {"RootOnlyWithHidden", 1, true, {"/docs/a.txt", "/docs/.hidden.txt"}, {"/docs"}},
    {"NothingForOtherScopes", 2, true, {}, {"/docs"}},
};

class LocalWalkTest : public LocalTreeRetrieverTest,
                      public ::testing::WithParamInterface<WalkRow> {};

TEST_P(LocalWalkTest, WalksWhatTheScopeAndOptionsSelect) {
    const WalkRow& row = GetParam();
    WriteFile(At(QStringLiteral("a.txt")));
    WriteFile(At(QStringLiteral(".hidden.txt")));
    WriteFile(At(QStringLiteral("Sub/b.txt")));
    WriteFile(At(QStringLiteral("Sub/Deep/c.txt")));
    WriteFile(At(QStringLiteral(".hiddenDir/d.txt")));
    WriteFile(At(QStringLiteral("Private/p.txt")));
    WriteFile(At(QStringLiteral("skip.tmp")), "12345");
    // The engine's own folders, in whatever letter case the disk has them.
    WriteFile(At(QStringLiteral(".{syncTEMP}/t.txt")));
    WriteFile(At(QStringLiteral("Sub/.{SYNCBACKUP}/x.BASE")));
    // Links are never followed, so a loop cannot trap the walk, and never listed.
    ASSERT_TRUE(QFile::link(rootPath, At(QStringLiteral("Sub/loop"))));
    ASSERT_TRUE(QFile::link(At(QStringLiteral("a.txt")), At(QStringLiteral("link.txt"))));
    filter->excluded = QStringList{QStringLiteral("/skip.tmp"), QStringLiteral("/Private")};
    root.syncScope = row.syncScope;
    if (row.hidden) root.setSyncOption(sync::config::SyncHiddenEntries);

    LogCapture log;
    auto tree = retriever->GetEntryInfoTree(root);

    ASSERT_TRUE(tree);
    EXPECT_EQ(Sorted(row.files), Sorted(tree->fileMap.keys()));
    EXPECT_EQ(Sorted(row.folders), Sorted(tree->folderMap.keys()));
    EXPECT_FALSE(filter->sides.contains(true));
    if (row.syncScope == 0) {
        EXPECT_EQ(QStringList{At(QStringLiteral("Private"))}, notAllowedSignals);
        EXPECT_EQ(QStringList{At(QStringLiteral("skip.tmp"))}, fileSignals);
        // The engine's folders are skipped silently, not counted as filtered.
        EXPECT_EQ(1, log.Count(log4cplus::INFO_LOG_LEVEL,
                               QStringLiteral("Filtered out 1 local file(s) and 1 folder(s)")));
        EXPECT_EQ(
            1, log.Count(log4cplus::DEBUG_LOG_LEVEL, QStringLiteral("Filtered out local folder ") +
                                                         At(QStringLiteral("Private"))));
    }
}

INSTANTIATE_TEST_SUITE_P(Walks, LocalWalkTest, ::testing::ValuesIn(kWalkRows),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_F(LocalTreeRetrieverTest, RecordsCarryTheDiskAndTheRootValues) {
    WriteFile(At(QStringLiteral("Sub/Report.TXT")), "hello");
    root.rootId = 5;
    auto tree = retriever->GetEntryInfoTree(root);

    const FileConfiguration file = tree->fileMap.value(QStringLiteral("/docs/sub/report.txt"));
    EXPECT_EQ(At(QStringLiteral("Sub/Report.TXT")), file.localPath);
    EXPECT_EQ(QStringLiteral("/Docs/Sub/Report.TXT"), file.serverPath);
    EXPECT_EQ(QStringLiteral("Report.TXT"), file.name);
    EXPECT_EQ(5, file.size);
    EXPECT_EQ(5, file.rootId);
    EXPECT_EQ(Qt::UTC, file.lastModified.timeSpec());
    EXPECT_EQ(QFileInfo(file.localPath).lastModified().toUTC(), file.lastModified);
    EXPECT_EQ(5, filter->sizes.value(0));
    EXPECT_EQ(QStringLiteral("/Sub/Report.TXT"), filter->askedFiles.value(0));

    const FolderConfiguration folder = tree->folderMap.value(QStringLiteral("/docs/sub"));
    EXPECT_EQ(At(QStringLiteral("Sub")), folder.localPath);
    EXPECT_EQ(QStringLiteral("/Docs/Sub"), folder.serverPath);
    EXPECT_EQ(folder.serverPath, folder.path);
    EXPECT_EQ(QStringLiteral("Sub"), folder.name);
    EXPECT_EQ(5, folder.rootId);
    EXPECT_EQ(-1, folder.id);
}

// Server paths get exactly one "/" at the seam, whatever either side ends or starts with.
TEST_F(LocalTreeRetrieverTest, ServerPathsJoinWithOneSlash) {
    WriteFile(At(QStringLiteral("Sub/b.txt")));
    const struct {
        const char* rootServerPath;
        bool rootLocalEndsWithSlash;
        const char* expected;
    } rows[] = {
        {"/Docs", false, "/Docs/Sub/b.txt"}, {"/Docs/", false, "/Docs/Sub/b.txt"},
        {"/", false, "/Sub/b.txt"},          {"Docs", true, "Docs/Sub/b.txt"},
        {"/", true, "/Sub/b.txt"},
    };
    for (const auto& row : rows) {
        root.serverPath = QString::fromLatin1(row.rootServerPath);
        root.localPath = row.rootLocalEndsWithSlash ? rootPath + QLatin1Char('/') : rootPath;
        auto tree = retriever->GetEntryInfoTree(root);
        const QString expected = QString::fromLatin1(row.expected);
        EXPECT_EQ(expected, tree->fileMap.value(expected.toLower()).serverPath)
            << row.rootServerPath << " " << row.rootLocalEndsWithSlash;
        EXPECT_TRUE(tree->folderMap.contains(root.serverPath.toLower()));
    }
    EXPECT_EQ(QStringLiteral("/Docs"), sync::core::JoinServerPath(QStringLiteral("/Docs"), {}));
    EXPECT_EQ(QStringLiteral("/a"),
              sync::core::JoinServerPath(QStringLiteral("//"), QStringLiteral("//a")));
}

TEST_F(LocalTreeRetrieverTest, LengthLimits) {
    using sync::core::consts::LOCAL_FILE_MAX_PATH;
    using sync::core::consts::LOCAL_FOLDER_MAX_PATH;
    // Deep enough folders to reach the limits, in components the disk accepts.
    auto deepFolder = [this](const QString& lead, int length) {
        QString path = At(lead);
        while (path.size() < length) {
            const int part = qMin(200, length - path.size() - 1);
            path += QLatin1Char('/') + QString(qMax(part, 1), QLatin1Char('d'));
        }
        return path;
    };
    const QString folderAtLimit = deepFolder(QStringLiteral("long"), LOCAL_FOLDER_MAX_PATH);
    const QString folderBelowLimit = deepFolder(QStringLiteral("short"), LOCAL_FOLDER_MAX_PATH - 1);
    ASSERT_EQ(LOCAL_FOLDER_MAX_PATH, folderAtLimit.size());
    ASSERT_EQ(LOCAL_FOLDER_MAX_PATH - 1, folderBelowLimit.size());
    ASSERT_TRUE(QDir().mkpath(folderAtLimit));
    ASSERT_TRUE(QDir().mkpath(folderBelowLimit));
    // A file in a folder left out for its length is still judged on its own.
    const QString fileInLongFolder = folderAtLimit + QStringLiteral("/f.txt");
    WriteFile(fileInLongFolder);
    // The longest file path the disk accepts; one character short of the file limit.
    const QString fileBelowLimit =
        folderBelowLimit + QLatin1Char('/') +
        QString(LOCAL_FILE_MAX_PATH - 2 - folderBelowLimit.size(), QLatin1Char('f'));
    ASSERT_EQ(LOCAL_FILE_MAX_PATH - 1, fileBelowLimit.size());
    WriteFile(fileBelowLimit);

    auto tree = retriever->GetEntryInfoTree(root);

    EXPECT_FALSE(tree->folderMap.contains(
        sync::core::JoinServerPath(root.serverPath, folderAtLimit.mid(rootPath.size())).toLower()));
    EXPECT_TRUE(tree->folderMap.contains(
        sync::core::JoinServerPath(root.serverPath, folderBelowLimit.mid(rootPath.size()))
            .toLower()));
    EXPECT_EQ(QStringList{folderAtLimit}, folderSignals);
    QStringList fileLocalPaths;
    for (const FileConfiguration& f : tree->fileMap) fileLocalPaths.append(f.localPath);
    EXPECT_EQ(Sorted({fileInLongFolder, fileBelowLimit}), Sorted(fileLocalPaths));
    EXPECT_TRUE(fileSignals.isEmpty());
}

// A path of LOCAL_FILE_MAX_PATH characters cannot be opened or stat'ed by path (PATH_MAX counts
// the final NUL), so such files are fed through a walker that lists them by name.
class FileListWalker : public sync::interf::IQDirIteratorWrapper,
                       public sync::interf::IQFileInfoWrapper {
public:
    explicit FileListWalker(QStringList paths) : _paths(std::move(paths)) {}
    std::shared_ptr<sync::interf::IQFileInfoWrapper> FileInfo() override {
        return std::shared_ptr<sync::interf::IQFileInfoWrapper>(this, [](auto*) {});
    }
    bool HasNext() override { return !_paths.isEmpty(); }
    QString Next() override { return _current = _paths.takeFirst(); }
    QString AbsoluteFilePath() override { return _current; }
    QString FileName() override { return _current.section(QLatin1Char('/'), -1); }
    qint64 Size() override { return 1; }
    QDateTime LastModified() override { return QDateTime::currentDateTime(); }
    bool IsFile() override { return true; }
    bool IsDir() override { return false; }
    bool IsSymLink() override { return false; }
    bool IsHidden() override { return false; }
    bool Exists() override { return true; }

private:
    QStringList _paths;
    QString _current;
};

TEST_F(LocalTreeRetrieverTest, FileAtTheLengthLimitIsLeftOutAndReportedUnlessItsFolderIs) {
    using sync::core::consts::LOCAL_FILE_MAX_PATH;
    using sync::core::consts::LOCAL_FOLDER_MAX_PATH;
    const QString shortFolder = At(QString(200, QLatin1Char('s')));
    const QString atLimit = shortFolder + QLatin1Char('/') +
                            QString(LOCAL_FILE_MAX_PATH - shortFolder.size() - 1, QLatin1Char('f'));
    const QString belowLimit = atLimit.left(atLimit.size() - 1);
    const QString longFolder = At(QString(LOCAL_FOLDER_MAX_PATH - rootPath.size() - 1, 'l'));
    const QString inLongFolder = longFolder + QLatin1Char('/') +
                                 QString(LOCAL_FILE_MAX_PATH - longFolder.size(), QLatin1Char('f'));
    ASSERT_EQ(LOCAL_FILE_MAX_PATH, atLimit.size());
    ASSERT_EQ(LOCAL_FOLDER_MAX_PATH, longFolder.size());

    core->walker = std::make_shared<FileListWalker>(QStringList{atLimit, belowLimit, inLongFolder});
    LogCapture log;

    auto tree = retriever->GetEntryInfoTree(root);

    ASSERT_EQ(1, tree->fileMap.size());
    EXPECT_EQ(belowLimit, tree->fileMap.begin()->localPath);
    EXPECT_EQ(QStringList{atLimit}, fileSignals);
    EXPECT_EQ(1, log.Count(log4cplus::INFO_LOG_LEVEL,
                           QStringLiteral("Filtered out 2 local file(s) and 0 folder(s)")));
}

TEST_F(LocalTreeRetrieverTest, UnreadableFolderStopsTheWalk) {
    if (::geteuid() == 0) GTEST_SKIP() << "permissions do not apply to root";
    WriteFile(At(QStringLiteral("Locked/inner.txt")));
    QFile::setPermissions(At(QStringLiteral("Locked")), QFileDevice::Permissions());
    // Skipping the folder would make its content look deleted.
    EXPECT_THROW(retriever->GetEntryInfoTree(root), sync::core::SyncException);
    QFile::setPermissions(At(QStringLiteral("Locked")),
                          QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);
}

TEST_F(LocalTreeRetrieverTest, MissingRootThrows) {
    root.localPath = At(QStringLiteral("gone"));
    EXPECT_CALL(*fileDb, GetGeneratedFilesByRootId(_, _)).Times(0);
    try {
        retriever->GetEntryInfoTree(root);
        FAIL() << "no exception";
    } catch (const sync::core::SyncException& e) {
        EXPECT_EQ(
            QStringLiteral("The local root folder for %1 seems to be missing.").arg(root.localPath),
            e.message);
    }
}

TEST_F(LocalTreeRetrieverTest, GeneratedFilesAreCheckedAndRepaired) {
    WriteFile(At(QStringLiteral("a.txt")));
    WriteFile(At(QStringLiteral(".{SyncTemp}/kept.gen")));
    WriteFile(At(QStringLiteral(".{SyncTemp}/orphan.gen")));
    auto generated = [this](int id, const QString& below, int parentId) {
        FileConfiguration g;
        g.id = id;
        g.localPath = At(below);
        g.serverPath = sync::core::JoinServerPath(root.serverPath, below);
        g.parentFileId = parentId;
        return g;
    };
    FileConfiguration parent;
    parent.id = 100;
    ON_CALL(*fileDb, GetGeneratedFilesByRootId(1, false))
        .WillByDefault(Return(
            QVector<FileConfiguration>{generated(50, QStringLiteral(".{SyncTemp}/kept.gen"), 100),
                                       generated(51, QStringLiteral("missing.gen"), 100),
                                       generated(52, QStringLiteral(".{SyncTemp}/orphan.gen"), 101),
                                       generated(53, QStringLiteral("a.txt"), 100)}));
    ON_CALL(*fileDb, GetFileById(_)).WillByDefault(Return(FileConfiguration()));
    ON_CALL(*fileDb, GetFileById(100)).WillByDefault(Return(parent));
    EXPECT_CALL(*fileDb, RemoveGeneratedFile(51));
    EXPECT_CALL(*fileDb, RemoveGeneratedFile(52));
    LogCapture log;

    auto tree = retriever->GetEntryInfoTree(root);

    EXPECT_EQ(50, tree->fileMap.value(QStringLiteral("/docs/.{synctemp}/kept.gen")).id);
    // A generated record replaces the scanned file under the same key.
    EXPECT_EQ(53, tree->fileMap.value(QStringLiteral("/docs/a.txt")).id);
    EXPECT_EQ(2, tree->fileMap.size());
    EXPECT_FALSE(QFile::exists(At(QStringLiteral(".{SyncTemp}/orphan.gen"))));
    EXPECT_EQ(QStringList(
                  {QStringLiteral("Generated file not found: ") + At(QStringLiteral("missing.gen")),
                   QStringLiteral("Parent file record not found for generated file: ") +
                       At(QStringLiteral(".{SyncTemp}/orphan.gen")) +
                       QStringLiteral(". Removing generated file.")}),
              log.Messages(log4cplus::WARN_LOG_LEVEL));
}

TEST_F(LocalTreeRetrieverTest, ExitRequestReturnsThePartialTreeAtOnce) {
    WriteFile(At(QStringLiteral("a.txt")));
    WriteFile(At(QStringLiteral("b.txt")));
    checkForExit->stopAt = 2;
    EXPECT_CALL(*fileDb, GetGeneratedFilesByRootId(_, _)).Times(0);
    auto tree = retriever->GetEntryInfoTree(root);
    EXPECT_EQ(1, tree->fileMap.size());
    EXPECT_EQ(2, checkForExit->asked);
}

}  // namespace
