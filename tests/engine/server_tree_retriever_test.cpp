#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "HttpException.h"
#include "LogCapture.h"
#include "RetrieverTestDoubles.h"
#include "ServerConfigTreeDiffer.h"
#include "ServerEntryInfoTreeRetriever.h"
#include "SyncConsts.h"

using namespace sync::test;
using sync::config::FileConfiguration;
using sync::config::FolderConfiguration;
using sync::config::FolderSynchronizationStatus;
using sync::syncService::EntryAction;
using sync::syncService::EntryInfoTree;
using sync::syncService::ServerEntryInfoTreeRetriever;
using ::testing::_;
using ::testing::Invoke;
using ::testing::NiceMock;
using ::testing::Return;

namespace {

const QString kRootLocal = QStringLiteral("/home/u/Docs");

FileConfiguration ServerFile(const QString& below, qint64 size = 10) {
    FileConfiguration f;
    f.serverPath = QStringLiteral("/Docs/") + below;
    f.localPath = kRootLocal + QLatin1Char('/') + below;
    f.name = below.section(QLatin1Char('/'), -1);
    f.size = size;
    f.serverFileId = QStringLiteral("id-") + below;
    f.serverChecksum = QStringLiteral("sum-") + below.toLower();
    return f;
}

FolderConfiguration ServerFolder(const QString& below) {
    FolderConfiguration f;
    f.serverPath = QStringLiteral("/Docs/") + below;
    f.localPath = kRootLocal + QLatin1Char('/') + below;
    f.name = below.section(QLatin1Char('/'), -1);
    return f;
}

// A name that makes kRootLocal + "/" + prefix + name exactly `length` characters long.
QString PaddedBelow(const QString& prefix, int length, const QString& suffix = QString()) {
    const int fixed = kRootLocal.size() + 1 + prefix.size() + suffix.size();
    return prefix + QString(length - fixed, QLatin1Char('x')) + suffix;
}

class ServerTreeRetrieverTest : public ::testing::Test {
protected:
    void SetUp() override {
        root.id = 1;
        root.rootId = 1;
        root.inheritedId = 1;
        root.authenticationId = 7;
        root.serverPath = QStringLiteral("/Docs");
        root.localPath = kRootLocal;
        root.syncScope = 0;
        root.setSyncStatus(FolderSynchronizationStatus::Synchronized);

        ON_CALL(*folderFactory, CreateRemoteFolderManager(7)).WillByDefault(Return(folderManager));
        ON_CALL(*fileFactory, CreateRemoteFileManager(7)).WillByDefault(Return(fileManager));
        retriever = std::make_unique<ServerEntryInfoTreeRetriever>(
            nullptr, nullptr, coreFactory, folderFactory, fileFactory, filter, filter);
        QObject::connect(retriever.get(), &ServerEntryInfoTreeRetriever::FileFilteredOut,
                         [this](const QString& p) { fileSignals.append(p); });
        QObject::connect(retriever.get(), &ServerEntryInfoTreeRetriever::FolderFilteredOut,
                         [this](const QString& p) { folderSignals.append(p); });
        QObject::connect(retriever.get(), &ServerEntryInfoTreeRetriever::SubFolderNameNotAllowed,
                         [this](const QString& p) { notAllowedSignals.append(p); });
    }

    void ServerAnswers(int code, QVector<FolderConfiguration> folders = {},
                       QVector<FileConfiguration> files = {}) {
        ON_CALL(*folderManager, GetFolderTree(_, _, _))
            .WillByDefault(Invoke([=](FolderConfiguration&, auto outFolders, auto outFiles) {
                *outFolders = folders;
                *outFiles = files;
                return code;
            }));
        ON_CALL(*fileManager, GetRootFiles(_, _))
            .WillByDefault(Invoke([=](FolderConfiguration&, auto outFiles) {
                *outFiles = files;
                return code;
            }));
    }

    FolderConfiguration root;
    std::shared_ptr<CountingCheckForExit> checkForExit = std::make_shared<CountingCheckForExit>();
    std::shared_ptr<TestCoreFactory> coreFactory = std::make_shared<TestCoreFactory>(checkForExit);
    std::shared_ptr<NiceMock<MockRemoteFolderManager>> folderManager =
        std::make_shared<NiceMock<MockRemoteFolderManager>>();
    std::shared_ptr<NiceMock<MockRemoteFileManager>> fileManager =
        std::make_shared<NiceMock<MockRemoteFileManager>>();
    std::shared_ptr<NiceMock<MockRemoteFolderManagerFactory>> folderFactory =
        std::make_shared<NiceMock<MockRemoteFolderManagerFactory>>();
    std::shared_ptr<NiceMock<MockRemoteFileManagerFactory>> fileFactory =
        std::make_shared<NiceMock<MockRemoteFileManagerFactory>>();
    std::shared_ptr<ListSyncFilter> filter = std::make_shared<ListSyncFilter>();
    std::unique_ptr<ServerEntryInfoTreeRetriever> retriever;
    QStringList fileSignals, folderSignals, notAllowedSignals;
};

// One row per server answer: what the tree, the flag and the exception must be.
struct AnswerRow {
    const char* name;
    int syncScope;
    int code;
    FolderSynchronizationStatus status;
    int expectedExceptionCode;  // 0: no exception
    const char* expectedMessage;
    bool expectRootRecord;
    bool expectTreeModified;
};

void PrintTo(const AnswerRow& row, std::ostream* os) {
    *os << row.name;
}

const AnswerRow kAnswerRows[] = {
    {"WholeTreeOk", 0, 0, FolderSynchronizationStatus::Synchronized, 0, "", true, true},
    {"WholeTreeNotModified", 0, 304, FolderSynchronizationStatus::Synchronized, 0, "", false,
     false},
    {"WholeTreeMissingNeverSynced", 0, 404, FolderSynchronizationStatus::NotSynchronized, 0, "",
     false, true},
    {"WholeTreeMissing", 0, 404, FolderSynchronizationStatus::Synchronized, 404,
     "The root folder: /Docs doesn't exist on the server.", false, true},
    {"WholeTreeServerError", 0, 500, FolderSynchronizationStatus::Synchronized, 500,
     "Failed to get server folder tree for root folder /Docs", false, true},
    {"RootOnlyOk", 1, 0, FolderSynchronizationStatus::Synchronized, 0, "", true, true},
    {"RootOnlyNotModified", 1, 304, FolderSynchronizationStatus::Synchronized, 0, "", false, false},
    {"RootOnlyMissingNeverSynced", 1, 404, FolderSynchronizationStatus::NotSynchronized, 0, "",
     true, true},
    {"RootOnlyMissing", 1, 404, FolderSynchronizationStatus::Synchronized, 404,
     "The root folder: /Docs doesn't exist in server.", false, true},
    // No exception, but without a listing the server's side must not be diffed.
    {"RootOnlyServerError", 1, 500, FolderSynchronizationStatus::Synchronized, 0, "", true, false},
};

class ServerAnswerTest : public ServerTreeRetrieverTest,
                         public ::testing::WithParamInterface<AnswerRow> {};

TEST_P(ServerAnswerTest, TreeFlagAndException) {
    const AnswerRow& row = GetParam();
    root.syncScope = row.syncScope;
    root.setSyncStatus(row.status);
    ServerAnswers(row.code, {}, {ServerFile(QStringLiteral("a.txt"))});
    // The flag must be reset by each retrieval, not just start out true.
    retriever->treeModified = false;

    std::shared_ptr<EntryInfoTree> tree;
    if (row.expectedExceptionCode != 0) {
        try {
            retriever->GetEntryInfoTree(root);
            FAIL() << "no exception";
        } catch (const sync::http::HttpException& e) {
            EXPECT_EQ(row.expectedExceptionCode, e.code);
            EXPECT_EQ(QString::fromLatin1(row.expectedMessage), e.message);
        }
    } else {
        tree = retriever->GetEntryInfoTree(root);
        ASSERT_TRUE(tree);
        EXPECT_EQ(row.expectRootRecord, tree->folderMap.contains(QStringLiteral("/docs")));
        // Files only come from a successful listing.
        EXPECT_EQ(row.code == 0, tree->fileMap.contains(QStringLiteral("/docs/a.txt")));
    }
    EXPECT_EQ(row.expectTreeModified, retriever->treeModified);
    EXPECT_EQ(row.expectTreeModified, retriever->IsTreeModified());
}

INSTANTIATE_TEST_SUITE_P(Answers, ServerAnswerTest, ::testing::ValuesIn(kAnswerRows),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_F(ServerTreeRetrieverTest, OtherScopeAsksNothingAndKeepsTheFlag) {
    root.syncScope = 2;
    EXPECT_CALL(*folderFactory, CreateRemoteFolderManager(_)).Times(0);
    EXPECT_CALL(*fileFactory, CreateRemoteFileManager(_)).Times(0);
    retriever->treeModified = false;
    auto tree = retriever->GetEntryInfoTree(root);
    EXPECT_TRUE(tree->folderMap.isEmpty());
    EXPECT_TRUE(tree->fileMap.isEmpty());
    EXPECT_FALSE(retriever->treeModified);
}

// Filters and length limits apply alike to both walks.
class ServerFilterTest : public ServerTreeRetrieverTest,
                         public ::testing::WithParamInterface<int> {};

TEST_P(ServerFilterTest, FiltersAndLengthLimits) {
    using sync::core::consts::LOCAL_FILE_MAX_PATH;
    using sync::core::consts::LOCAL_FOLDER_MAX_PATH;
    root.syncScope = GetParam();
    const bool wholeTree = root.syncScope == 0;

    const QString longFolder = PaddedBelow(QStringLiteral("f"), LOCAL_FOLDER_MAX_PATH);
    const QString fileInLongFolder =
        longFolder + QLatin1Char('/') +
        QString(LOCAL_FILE_MAX_PATH - LOCAL_FOLDER_MAX_PATH, QLatin1Char('n'));
    const QVector<FileConfiguration> files = {
        ServerFile(QStringLiteral("kept.txt")),
        ServerFile(QStringLiteral("excluded.tmp"), 42),
        ServerFile(PaddedBelow(QStringLiteral("s"), LOCAL_FILE_MAX_PATH - 1)),
        ServerFile(PaddedBelow(QStringLiteral("t"), LOCAL_FILE_MAX_PATH)),
        ServerFile(fileInLongFolder),
    };
    const QVector<FolderConfiguration> folders = {
        ServerFolder(QStringLiteral("Sub")),
        ServerFolder(QStringLiteral("Private")),
        ServerFolder(PaddedBelow(QStringLiteral("g"), LOCAL_FOLDER_MAX_PATH - 1)),
        ServerFolder(longFolder),
    };
    filter->excluded =
        QStringList{QStringLiteral("/Docs/excluded.tmp"), QStringLiteral("/Docs/Private")};
    // A file below an excluded folder is judged on its own.
    const QVector<FileConfiguration> withInner =
        files + QVector<FileConfiguration>{ServerFile(QStringLiteral("Private/inner.txt"))};
    ServerAnswers(0, wholeTree ? folders : QVector<FolderConfiguration>{}, withInner);

    LogCapture log;
    auto tree = retriever->GetEntryInfoTree(root);

    QStringList fileKeys = tree->fileMap.keys();
    fileKeys.sort();
    QStringList expectedFiles{QStringLiteral("/docs/kept.txt"),
                              QStringLiteral("/docs/private/inner.txt"),
                              files[2].serverPath.toLower()};
    expectedFiles.sort();
    EXPECT_EQ(expectedFiles, fileKeys);
    EXPECT_EQ(QStringList({QStringLiteral("/Docs/excluded.tmp"), files[3].serverPath}),
              fileSignals);
    EXPECT_EQ(42, filter->sizes.at(1));
    EXPECT_FALSE(filter->sides.contains(false));
    EXPECT_TRUE(notAllowedSignals.isEmpty());

    if (wholeTree) {
        QStringList folderKeys = tree->folderMap.keys();
        folderKeys.sort();
        QStringList expectedFolders{QStringLiteral("/docs"), QStringLiteral("/docs/sub"),
                                    folders[2].serverPath.toLower()};
        expectedFolders.sort();
        EXPECT_EQ(expectedFolders, folderKeys);
        EXPECT_EQ(QStringList({QStringLiteral("/Docs/Private"), folders[3].serverPath}),
                  folderSignals);
        EXPECT_EQ(1, log.Count(log4cplus::INFO_LOG_LEVEL,
                               QStringLiteral("Filtered out 3 server file(s) and 2 folder(s)")));
        EXPECT_EQ(1, log.Count(log4cplus::DEBUG_LOG_LEVEL,
                               QStringLiteral("Filtered out server folder /Docs/Private")));
    } else {
        EXPECT_EQ(QStringList{QStringLiteral("/docs")}, tree->folderMap.keys());
        EXPECT_EQ(1, log.Count(log4cplus::INFO_LOG_LEVEL,
                               QStringLiteral("Filtered out 3 server file(s) and 0 folder(s)")));
    }
    EXPECT_EQ(1, log.Count(log4cplus::DEBUG_LOG_LEVEL,
                           QStringLiteral("Filtered out server file /Docs/excluded.tmp")));
}

INSTANTIATE_TEST_SUITE_P(Walks, ServerFilterTest, ::testing::Values(0, 1), [](const auto& info) {
    return std::string(info.param == 0 ? "WholeTree" : "RootOnly");
});

TEST_F(ServerTreeRetrieverTest, ExitRequestLeavesTheTreeIncompleteAndWithoutRoot) {
    checkForExit->stopAt = 2;
    ServerAnswers(0, {ServerFolder(QStringLiteral("Sub"))},
                  {ServerFile(QStringLiteral("a.txt")), ServerFile(QStringLiteral("b.txt"))});
    auto tree = retriever->GetEntryInfoTree(root);
    EXPECT_EQ(QStringList{QStringLiteral("/docs/a.txt")}, tree->fileMap.keys());
    EXPECT_TRUE(tree->folderMap.isEmpty());
}

// A root-only folder whose files are all still on the server, listed there in another letter
// case than the database holds them: the server rules must report no deletion.
TEST_F(ServerTreeRetrieverTest, RootOnlyFilesOnTheServerAreNotReportedDeleted) {
    root.syncScope = 1;
    EntryInfoTree configTree;
    configTree.folderMap.insert(QStringLiteral("/docs"), root);
    for (const QString& below : {QStringLiteral("report.txt"), QStringLiteral("gone.txt")}) {
        FileConfiguration f = ServerFile(below);
        f.syncStatus = sync::config::FileSynchronizationStatus::Synchronized;
        configTree.fileMap.insert(f.serverPath.toLower(), f);
    }
    FileConfiguration onServer = ServerFile(QStringLiteral("REPORT.txt"));
    onServer.serverChecksum = QStringLiteral("sum-report.txt");
    ServerAnswers(0, {}, {onServer});

    auto serverTree = retriever->GetEntryInfoTree(root);
    ASSERT_TRUE(retriever->IsTreeModified());
    sync::syncService::ServerConfigTreeDiffer differ;
    const auto change = differ.Diff(configTree, *serverTree, true);

    const auto actions = change.getFileActionMap();
    EXPECT_FALSE(actions.contains(QStringLiteral("/docs/report.txt")));
    EXPECT_EQ(EntryAction::Deleted, actions.value(QStringLiteral("/docs/gone.txt")));
    EXPECT_TRUE(change.getFolderActionMap().isEmpty());
}

}  // namespace
