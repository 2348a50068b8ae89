#include <gtest/gtest.h>

#include "HttpException.h"
#include "IRemoteFileManagerFactory.h"
#include "IRemoteFolderManagerFactory.h"
#include "LogCapture.h"
#include "RetrieverTestDoubles.h"
#include "ServerConfigTreeDiffer.h"
#include "ServerEntryInfoTreeRetriever.h"
#include "SyncConsts.h"

using namespace sync::test;
using sync::config::FileConfiguration;
using sync::config::FolderConfiguration;
using sync::config::FolderSynchronizationStatus;
using sync::core::consts::LOCAL_FILE_MAX_PATH;
using sync::core::consts::LOCAL_FOLDER_MAX_PATH;
using sync::syncService::EntryInfoTree;
using sync::syncService::ServerEntryInfoTreeRetriever;

namespace {

const QString kRootLocal = "/home/u/Docs";
constexpr int kAccount = 7;

// A server that answers both walks of the root's account with one code and one listing.
class FakeServer : public sync::interf::IRemoteFolderManager,
                   public sync::interf::IRemoteFileManager,
                   public sync::interf::factory::IRemoteFolderManagerFactory,
                   public sync::interf::factory::IRemoteFileManagerFactory,
                   public std::enable_shared_from_this<FakeServer> {
public:
    using Folder = FolderConfiguration;
    using File = FileConfiguration;
    sync::core::SyncResults CreateFolder(Folder&, const QString&, bool) override { return {}; }
    sync::core::SyncResults DeleteFolder(Folder&) override { return {}; }
    bool GetFolderInfo(const Folder&, Folder&) override { return false; }
    int GetFolderTree(Folder&, std::shared_ptr<QVector<Folder>> outFolders,
                      std::shared_ptr<QVector<File>> outFiles) override {
        *outFolders = folders;
        *outFiles = files;
        return code;
    }
    int GetRootFiles(Folder&, std::shared_ptr<QVector<File>> outFiles) override {
        *outFiles = files;
        return code;
    }
    std::shared_ptr<sync::interf::IRemoteFolderManager> CreateRemoteFolderManager(int id) override {
        EXPECT_EQ(kAccount, id);
        return shared_from_this();
    }
    std::shared_ptr<sync::interf::IRemoteFileManager> CreateRemoteFileManager(int id) override {
        EXPECT_EQ(kAccount, id);
        return shared_from_this();
    }
    int code = 0;
    QVector<Folder> folders;
    QVector<File> files;
};

template <typename Record>
Record ServerEntry(const QString& below) {
    Record r;
    r.serverPath = "/Docs/" + below;
    r.localPath = kRootLocal + '/' + below;
    r.name = below.section('/', -1);
    return r;
}

// The checksum does not depend on the letter case of the path.
FileConfiguration ServerFile(const QString& below, qint64 size = 10) {
    auto f = ServerEntry<FileConfiguration>(below);
    f.size = size;
    f.serverFileId = "id-" + below;
    f.serverChecksum = "sum-" + below.toLower();
    return f;
}

// A name that makes kRootLocal + "/" + prefix + name exactly `length` characters long.
QString PaddedBelow(const QString& prefix, int length) {
    return prefix + QString(length - kRootLocal.size() - 1 - prefix.size(), 'x');
}

QStringList Sorted(QStringList list) {
    list.sort();
    return list;
}

class ServerTreeRetrieverTest : public ::testing::Test {
protected:
    void SetUp() override {
        root.id = root.rootId = 1;
        root.authenticationId = kAccount;
        root.serverPath = "/Docs";
        root.localPath = kRootLocal;
        root.syncScope = 0;
        root.setSyncStatus(FolderSynchronizationStatus::Synchronized);
        server->files = {ServerFile("a.txt")};
        auto into = [](QStringList& list) { return [&list](const QString& p) { list << p; }; };
        QObject::connect(&retriever, &ServerEntryInfoTreeRetriever::FileFilteredOut,
                         into(fileSignals));
        QObject::connect(&retriever, &ServerEntryInfoTreeRetriever::FolderFilteredOut,
                         into(folderSignals));
    }

    FolderConfiguration root;
    std::shared_ptr<TestCoreFactory> core = std::make_shared<TestCoreFactory>();
    std::shared_ptr<FakeServer> server = std::make_shared<FakeServer>();
    std::shared_ptr<ListSyncFilter> filter = std::make_shared<ListSyncFilter>();
    ServerEntryInfoTreeRetriever retriever{nullptr, nullptr, core, server, server, filter, filter};
    QStringList fileSignals, folderSignals;
};

TEST_F(ServerTreeRetrieverTest, AnswersDecideTreeFlagAndException) {
    const struct {
        const char* name;
        int syncScope, code;
        bool neverSynced;
        const char* exception;  // "": none; else thrown with the server's code
        bool rootRecord, files, treeModified;
    } rows[] = {
        {"WholeTreeOk", 0, 0, false, "", true, true, true},
        {"WholeTreeNotModified", 0, 304, false, "", false, false, false},
        {"WholeTreeMissingNeverSynced", 0, 404, true, "", false, false, true},
        {"WholeTreeMissing", 0, 404, false, "The root folder: /Docs doesn't exist on the server.",
         false, false, true},
        {"WholeTreeServerError", 0, 500, false,
         "Failed to get server folder tree for root folder /Docs", false, false, true},
        {"RootOnlyOk", 1, 0, false, "", true, true, true},
        {"RootOnlyNotModified", 1, 304, false, "", false, false, false},
        {"RootOnlyMissingNeverSynced", 1, 404, true, "", true, false, true},
        {"RootOnlyMissing", 1, 404, false, "The root folder: /Docs doesn't exist in server.", false,
         false, true},
        // A tree without the root's files would make them all look deleted on the server.
        {"RootOnlyServerError", 1, 500, false,
         "Failed to get server folder tree for root folder /Docs", false, false, true},
        // Nothing is asked and the flag keeps the last retrieval's outcome.
        {"OtherScope", 2, 0, false, "", false, false, false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        root.syncScope = row.syncScope;
        root.setSyncStatus(row.neverSynced ? FolderSynchronizationStatus::NotSynchronized
                                           : FolderSynchronizationStatus::Synchronized);
        server->code = row.code;
        // The flag must be reset by each retrieval, not just start out true.
        retriever.treeModified = false;
        try {
            auto tree = retriever.GetEntryInfoTree(root);
            EXPECT_STREQ("", row.exception) << "no exception";
            EXPECT_EQ(row.rootRecord, tree->folderMap.contains("/docs"));
            EXPECT_EQ(row.files, tree->fileMap.contains("/docs/a.txt"));
        } catch (const sync::http::HttpException& e) {
            EXPECT_EQ(row.code, e.code);
            EXPECT_EQ(row.exception, e.message);
        }
        EXPECT_EQ(row.treeModified, retriever.IsTreeModified());
    }
}

// Filters and length limits apply alike to both walks.
TEST_F(ServerTreeRetrieverTest, FiltersAndLengthLimits) {
    const QString longFolder = PaddedBelow("f", LOCAL_FOLDER_MAX_PATH);
    const QVector<FileConfiguration> files = {
        ServerFile("kept.txt"),
        ServerFile("excluded.tmp", 42),
        ServerFile(PaddedBelow("s", LOCAL_FILE_MAX_PATH - 1)),
        ServerFile(PaddedBelow("t", LOCAL_FILE_MAX_PATH)),
        // Reported once, through its folder.
        ServerFile(longFolder + '/' + QString(LOCAL_FILE_MAX_PATH - LOCAL_FOLDER_MAX_PATH, 'n')),
        // A file below an excluded folder is judged on its own.
        ServerFile("Private/inner.txt"),
    };
    const QVector<FolderConfiguration> folders = {
        ServerEntry<FolderConfiguration>("Sub"),
        ServerEntry<FolderConfiguration>("Private"),
        ServerEntry<FolderConfiguration>(PaddedBelow("g", LOCAL_FOLDER_MAX_PATH - 1)),
        ServerEntry<FolderConfiguration>(longFolder),
    };
    filter->excluded = QStringList{"/Docs/excluded.tmp", "/Docs/Private"};
    server->files = files;
    server->folders = folders;

    for (int scope : {0, 1}) {
        SCOPED_TRACE(scope == 0 ? "WholeTree" : "RootOnly");
        root.syncScope = scope;
        filter->sizes.clear();
        fileSignals.clear();
        LogCapture log;
        auto tree = retriever.GetEntryInfoTree(root);

        EXPECT_EQ(QStringList(
                      {"/docs/kept.txt", "/docs/private/inner.txt", files[2].serverPath.toLower()}),
                  Sorted(tree->fileMap.keys()));
        EXPECT_EQ(QStringList({"/Docs/excluded.tmp", files[3].serverPath}), fileSignals);
        EXPECT_EQ(42, filter->sizes.value(1));
        EXPECT_FALSE(filter->sides.contains(false));
        EXPECT_TRUE(log.Contains(log4cplus::DEBUG_LOG_LEVEL,
                                 "Filtered out server file /Docs/excluded.tmp"));
        const QString summary = "Filtered out 3 server file(s) and %1 folder(s)";
        EXPECT_EQ(QStringList{summary.arg(scope == 0 ? 2 : 0)},
                  log.Messages(log4cplus::INFO_LOG_LEVEL));
        // What was left out stays out of planning, for this side and the other.
        EXPECT_EQ(Sorted({files[1].serverPath.toLower(), files[3].serverPath.toLower(),
                          files[4].serverPath.toLower()}),
                  Sorted(tree->excludedFileKeys.values()));
        if (scope == 1) {
            EXPECT_EQ(QStringList{"/docs"}, tree->folderMap.keys());
            continue;
        }
        EXPECT_EQ(Sorted({"/docs/private", folders[3].serverPath.toLower()}),
                  Sorted(tree->excludedFolderKeys.values()));
        EXPECT_EQ(QStringList({"/docs", folders[2].serverPath.toLower(), "/docs/sub"}),
                  Sorted(tree->folderMap.keys()));
        EXPECT_EQ(QStringList({"/Docs/Private", folders[3].serverPath}), folderSignals);
        EXPECT_TRUE(
            log.Contains(log4cplus::DEBUG_LOG_LEVEL, "Filtered out server folder /Docs/Private"));
    }
}

// Names that differ only in letter case share a key: neither is kept, both are reported.
TEST_F(ServerTreeRetrieverTest, LetterCaseClashesAreLeftOutAndReported) {
    server->files = {ServerFile("Report.txt"), ServerFile("report.txt"), ServerFile("REPORT.txt"),
                     ServerFile("a.txt"), ServerFile("a.txt")};
    server->folders = {ServerEntry<FolderConfiguration>("Pics"),
                       ServerEntry<FolderConfiguration>("pics")};
    LogCapture log;

    auto tree = retriever.GetEntryInfoTree(root);

    EXPECT_EQ(QStringList{"/docs/a.txt"}, tree->fileMap.keys());
    EXPECT_EQ(QStringList{"/docs"}, tree->folderMap.keys());
    EXPECT_EQ(QStringList{"/docs/report.txt"}, tree->excludedFileKeys.values());
    EXPECT_EQ(QStringList{"/docs/pics"}, tree->excludedFolderKeys.values());
    EXPECT_EQ(QStringList({"/Docs/Report.txt", "/Docs/report.txt", "/Docs/REPORT.txt"}),
              fileSignals);
    EXPECT_EQ(QStringList({"/Docs/Pics", "/Docs/pics"}), folderSignals);
    EXPECT_EQ(QStringList({"Leaving out /Docs/Report.txt and /Docs/report.txt: "
                           "their names differ only in letter case, and one would overwrite the "
                           "other. Rename one of them to synchronise both.",
                           "Leaving out /Docs/Pics and /Docs/pics: their names "
                           "differ only in letter case, and one would overwrite the other. "
                           "Rename one of them to synchronise both."}),
              log.Messages(log4cplus::WARN_LOG_LEVEL));
}

TEST_F(ServerTreeRetrieverTest, ExitRequestLeavesTheTreeIncompleteAndWithoutRoot) {
    core->exit->stopAt = 2;
    server->folders = {ServerEntry<FolderConfiguration>("Sub")};
    server->files = {ServerFile("a.txt"), ServerFile("b.txt")};
    auto tree = retriever.GetEntryInfoTree(root);
    EXPECT_EQ(QStringList{"/docs/a.txt"}, tree->fileMap.keys());
    EXPECT_TRUE(tree->folderMap.isEmpty());
}

// A root-only folder whose files are all still on the server, listed there in another letter
// case than the database holds them: the server rules must report no deletion.
TEST_F(ServerTreeRetrieverTest, RootOnlyFilesOnTheServerAreNotReportedDeleted) {
    root.syncScope = 1;
    EntryInfoTree configTree;
    configTree.folderMap.insert("/docs", root);
    for (const char* below : {"report.txt", "gone.txt"}) {
        FileConfiguration f = ServerFile(below);
        f.syncStatus = sync::config::FileSynchronizationStatus::Synchronized;
        configTree.fileMap.insert(f.serverPath.toLower(), f);
    }
    server->files = {ServerFile("REPORT.txt")};  // same checksum, see ServerFile

    auto serverTree = retriever.GetEntryInfoTree(root);
    ASSERT_TRUE(retriever.IsTreeModified());
    const auto change =
        sync::syncService::ServerConfigTreeDiffer().Diff(configTree, *serverTree, true);

    EXPECT_EQ(QStringList{"/docs/gone.txt"}, change.getFileActionMap().keys());
    EXPECT_EQ(sync::syncService::Deleted, change.getFileActionMap().value("/docs/gone.txt"));
    EXPECT_TRUE(change.getFolderActionMap().isEmpty());
}

}  // namespace
