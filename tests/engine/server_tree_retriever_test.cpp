#include <gtest/gtest.h>

#include <algorithm>

#include "FakeCore.h"
#include "FakeServer.h"
#include "HttpException.h"
#include "LogCapture.h"
#include "RetrieverTestDoubles.h"
#include "ServerEntryInfoTreeRetriever.h"
#include "SyncConsts.h"

using namespace sync::test;
using sync::config::FolderConfiguration;
using sync::config::FolderSynchronizationStatus;
using sync::core::consts::LOCAL_FILE_MAX_PATH;
using sync::core::consts::LOCAL_FOLDER_MAX_PATH;
using sync::syncService::EntryInfoTree;
using sync::syncService::ServerEntryInfoTreeRetriever;

namespace {

const QString kRootLocal = "/home/u/Docs";
constexpr int kAccount = 7;
const QByteArray kContent = "content";

// The fake server, whose whole-tree listing can name one file twice, as a server that pages its
// answer may.
class ListingServer : public FakeServer {
public:
    int GetFolderTree(Folder& root, std::shared_ptr<QVector<Folder>> folders,
                      std::shared_ptr<QVector<File>> files) override {
        const int status = FakeServer::GetFolderTree(root, folders, files);
        if (status == 0 && Find(listedTwice)) files->append(FileRecord(*Find(listedTwice), root));
        return status;
    }
    QString listedTwice;
};

// A name that makes kRootLocal + "/" + prefix + name exactly `length` characters long.
QString PaddedBelow(const QString& prefix, int length) {
    return prefix + QString(length - kRootLocal.size() - 1 - prefix.size(), 'x');
}

// The tree key of an entry below the root.
QString Key(const QString& below) {
    return ("/Docs/" + below).toLower();
}

template <typename T>
T Sorted(T list) {
    std::sort(list.begin(), list.end());
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
        server->accounts = {kAccount};  // a manager for any other account fails
        server->PutFolder("/Docs");
        auto into = [](QStringList& list) { return [&list](const QString& p) { list << p; }; };
        QObject::connect(&retriever, &ServerEntryInfoTreeRetriever::FileFilteredOut,
                         into(fileSignals));
        QObject::connect(&retriever, &ServerEntryInfoTreeRetriever::FolderFilteredOut,
                         into(folderSignals));
    }

    FolderConfiguration root;
    std::shared_ptr<FakeCore> core = std::make_shared<FakeCore>();
    std::shared_ptr<ListingServer> server = std::make_shared<ListingServer>();
    std::shared_ptr<ListSyncFilter> filter = std::make_shared<ListSyncFilter>();
    ServerEntryInfoTreeRetriever retriever{nullptr, nullptr, core, server, server, filter, filter};
    QStringList fileSignals, folderSignals;
};

// While a planning pass shares texts, a listed record takes the strings of the same entry in the
// tree built before it, and reads exactly as it does without.
TEST_F(ServerTreeRetrieverTest, ListedRecordsTakeTheTextsOfTheTreeBuiltBefore) {
    server->PutFolder("/Docs/Sub");
    server->PutFile("/Docs/Sub/a.txt", kContent);
    const auto earlier = retriever.GetEntryInfoTree(root);
    const auto plain = retriever.GetEntryInfoTree(root);
    std::shared_ptr<EntryInfoTree> tree;
    {
        EntryInfoTree::TextSource source(earlier);
        tree = retriever.GetEntryInfoTree(root);
    }
    const QString fileKey = Key("sub/a.txt"), folderKey = Key("sub");
    ASSERT_TRUE(tree->fileMap.contains(fileKey));
    ASSERT_TRUE(tree->folderMap.contains(folderKey));
    const auto file = tree->fileMap.value(fileKey);
    const auto known = earlier->fileMap.value(fileKey);
    EXPECT_EQ(file, plain->fileMap.value(fileKey));
    EXPECT_FALSE(plain->fileMap.value(fileKey).localPath.isSharedWith(known.localPath));
    EXPECT_TRUE(file.localPath.isSharedWith(known.localPath));
    EXPECT_TRUE(file.name.isSharedWith(known.name));
    EXPECT_TRUE(file.properties.isSharedWith(known.properties));
    const auto folder = tree->folderMap.value(folderKey);
    EXPECT_EQ(folder, plain->folderMap.value(folderKey));
    EXPECT_TRUE(folder.localPath.isSharedWith(earlier->folderMap.value(folderKey).localPath));
}

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
        server->ClearFaults();
        server->answersNotModified = row.code == 304;
        server->PutFile("/Docs/a.txt", kContent);  // there, and changed since any listing
        if (row.code == 304) retriever.GetEntryInfoTree(root);  // nothing changes after it
        if (row.code == 404) server->Remove("/Docs");
        if (row.code >= 500) server->FailOn("/Docs", row.code);
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

// Filters and length limits apply alike to both walks; the root-only walk sees the root's own
// files only.
TEST_F(ServerTreeRetrieverTest, FiltersAndLengthLimits) {
    const QString longFolder = PaddedBelow("f", LOCAL_FOLDER_MAX_PATH);
    const QString fileBelowLimit = PaddedBelow("s", LOCAL_FILE_MAX_PATH - 1),
                  fileAtLimit = PaddedBelow("t", LOCAL_FILE_MAX_PATH),
                  // Reported once, through its folder.
        fileInLongFolder =
            longFolder + '/' + QString(LOCAL_FILE_MAX_PATH - LOCAL_FOLDER_MAX_PATH, 'n');
    // A file below an excluded folder is judged on its own.
    for (const QString& below : {QString("kept.txt"), fileBelowLimit, fileAtLimit, fileInLongFolder,
                                 QString("Private/inner.txt")})
        server->PutFile("/Docs/" + below, kContent);
    server->PutFile("/Docs/excluded.tmp", QByteArray(42, 'x'));
    const QString folderBelowLimit = PaddedBelow("g", LOCAL_FOLDER_MAX_PATH - 1);
    server->PutFolder("/Docs/Sub");
    server->PutFolder("/Docs/" + folderBelowLimit);
    filter->excluded = QStringList{"/Docs/excluded.tmp", "/Docs/Private"};

    for (int scope : {0, 1}) {
        SCOPED_TRACE(scope == 0 ? "WholeTree" : "RootOnly");
        const bool whole = scope == 0;
        root.syncScope = scope;
        filter->sizes.clear();
        fileSignals.clear();
        LogCapture log;
        auto tree = retriever.GetEntryInfoTree(root);

        QStringList kept{Key("kept.txt"), Key(fileBelowLimit)},
            excluded{Key("excluded.tmp"), Key(fileAtLimit)};
        if (whole) {
            kept << Key("Private/inner.txt");
            excluded << Key(fileInLongFolder);
        }
        EXPECT_EQ(Sorted(kept), Sorted(tree->fileMap.keys()));
        EXPECT_EQ(QStringList({"/Docs/excluded.tmp", "/Docs/" + fileAtLimit}), fileSignals);
        QVector<qint64> sizes(whole ? 5 : 3, kContent.size());
        sizes << 42;
        EXPECT_EQ(sizes, Sorted(filter->sizes));
        EXPECT_FALSE(filter->sides.contains(false));
        const QString summary = "Filtered out %1 server file(s) and %2 folder(s)";
        EXPECT_EQ(QStringList{summary.arg(whole ? 3 : 2).arg(whole ? 2 : 0)},
                  log.Messages(log4cplus::INFO_LOG_LEVEL));
        // What was left out stays out of planning, for this side and the other.
        EXPECT_EQ(Sorted(excluded), Sorted(QStringList(tree->excludedFileKeys.values())));
        if (!whole) {
            EXPECT_EQ(QStringList{"/docs"}, tree->folderMap.keys());
            continue;
        }
        EXPECT_EQ(Sorted(QStringList{Key("Private"), Key(longFolder)}),
                  Sorted(QStringList(tree->excludedFolderKeys.values())));
        EXPECT_EQ(Sorted(QStringList{"/docs", Key(folderBelowLimit), Key("Sub")}),
                  Sorted(tree->folderMap.keys()));
        EXPECT_EQ(QStringList({"/Docs/Private", "/Docs/" + longFolder}), folderSignals);
    }
}

// Names that differ only in letter case share a key: neither is kept, both are reported.
TEST_F(ServerTreeRetrieverTest, LetterCaseClashesAreLeftOutAndReported) {
    for (const char* below : {"Report.txt", "report.txt", "REPORT.txt", "a.txt"})
        server->PutFile(QString("/Docs/") + below, kContent);
    server->listedTwice = "/Docs/a.txt";  // the same name twice is no clash
    server->PutFolder("/Docs/Pics");
    server->PutFolder("/Docs/pics");
    LogCapture log;

    auto tree = retriever.GetEntryInfoTree(root);

    EXPECT_EQ(QStringList{"/docs/a.txt"}, tree->fileMap.keys());
    EXPECT_EQ(QStringList{"/docs"}, tree->folderMap.keys());
    EXPECT_EQ(QStringList{"/docs/report.txt"}, tree->excludedFileKeys.values());
    EXPECT_EQ(QStringList{"/docs/pics"}, tree->excludedFolderKeys.values());
    EXPECT_EQ(QStringList({"/Docs/REPORT.txt", "/Docs/Report.txt", "/Docs/report.txt"}),
              fileSignals);
    EXPECT_EQ(QStringList({"/Docs/Pics", "/Docs/pics"}), folderSignals);
    const QString clash =
        "Leaving out %1 and %2: their names differ only in letter case, and "
        "one would overwrite the other. Rename one of them to synchronise both.";
    EXPECT_EQ(QStringList({clash.arg("/Docs/REPORT.txt", "/Docs/Report.txt"),
                           clash.arg("/Docs/Pics", "/Docs/pics")}),
              log.Messages(log4cplus::WARN_LOG_LEVEL));
}

TEST_F(ServerTreeRetrieverTest, ExitRequestLeavesTheTreeIncompleteAndWithoutRoot) {
    core->StopAfterPolls(1);
    server->PutFolder("/Docs/Sub");
    server->PutFile("/Docs/a.txt", kContent);
    server->PutFile("/Docs/b.txt", kContent);
    auto tree = retriever.GetEntryInfoTree(root);
    EXPECT_EQ(QStringList{"/docs/a.txt"}, tree->fileMap.keys());
    EXPECT_TRUE(tree->folderMap.isEmpty());
}

}  // namespace
