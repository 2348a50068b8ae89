#include <gtest/gtest.h>

#include <algorithm>
#include <memory>

#include "ConflictResolverFactory.h"
#include "SyncException.h"
#include "SyncServiceException.h"
#include "SyncTaskDepot.h"

using namespace sync::config;
using namespace sync::syncService;

namespace {

constexpr int kServerId = 1;
constexpr int kLocalId = 2;

// What a cell must do: build a task from one of the two records, do nothing, or throw.
enum Outcome { FromServer, FromLocal, Nothing, Throws };

struct Row {
    EntryAction server;
    EntryAction local;
    SyncTaskType task;
    Outcome outcome;
};

QString PairName(const Row& r) {
    return QStringLiteral("pair (%1, %2)").arg(int(r.server)).arg(int(r.local));
}

// One planning pass: distinct trees and change sets, so a task that swaps two of them shows.
struct Planning {
    std::shared_ptr<EntryInfoTree> localTree = std::make_shared<EntryInfoTree>();
    std::shared_ptr<EntryInfoTree> configTree = std::make_shared<EntryInfoTree>();
    std::shared_ptr<EntryInfoTree> serverTree = std::make_shared<EntryInfoTree>();
    std::shared_ptr<EntryInfoTreeChange> serverChange = std::make_shared<EntryInfoTreeChange>();
    std::shared_ptr<EntryInfoTreeChange> localChange = std::make_shared<EntryInfoTreeChange>();
    SyncTaskDepot depot;

    template <typename Record>
    void Resolve(ConflictResolverFactory& factory, EntryAction s, EntryAction l,
                 Record& serverRecord, Record& localRecord) {
        if constexpr (std::is_same<Record, FileConfiguration>::value)
            factory.CreateFileConflictResolver(s, l)->Resolve(serverRecord, localRecord, localTree,
                                                              configTree, serverTree, serverChange,
                                                              localChange, depot);
        else
            factory.CreateFolderConflictResolver(s, l)->Resolve(serverRecord, localRecord,
                                                                localTree, configTree, serverTree,
                                                                serverChange, localChange, depot);
    }

    QList<std::shared_ptr<sync::interf::ISyncTask>> AllTasks() const {
        QList<std::shared_ptr<sync::interf::ISyncTask>> all;
        for (int t = ServerFolderCreation; t <= FileConflictMarking; ++t)
            if (auto list = depot.GetSyncTaskList(SyncTaskType(t))) all += *list;
        return all;
    }

    QString Keys(SyncTaskType type) const {
        auto keys = depot.GetSyncTaskListKeys(type);
        QStringList list = keys ? QStringList(*keys) : QStringList();
        std::sort(list.begin(), list.end());
        return list.join(' ');
    }
};

template <typename Record>
Record MakeRecord(int id, const QString& serverPath) {
    Record r;
    r.id = id;
    r.serverPath = serverPath;
    return r;
}

template <typename Record>
void CheckMatrix(const std::vector<Row>& rows) {
    ConflictResolverFactory factory;
    for (const Row& row : rows) {
        SCOPED_TRACE(PairName(row).toStdString());
        Planning p;
        auto serverRecord = MakeRecord<Record>(kServerId, "Docs/e");
        auto localRecord = MakeRecord<Record>(kLocalId, "Docs/e");
        if (row.outcome == Throws) {
            try {
                p.Resolve(factory, row.server, row.local, serverRecord, localRecord);
                ADD_FAILURE() << "no exception";
            } catch (const SyncServiceException& e) {
                EXPECT_EQ(e.message, "Invalid action pair resolving");
            }
        } else {
            p.Resolve(factory, row.server, row.local, serverRecord, localRecord);
        }
        const auto tasks = p.AllTasks();
        if (row.outcome == Throws || row.outcome == Nothing) {
            EXPECT_TRUE(tasks.isEmpty());
            continue;
        }
        ASSERT_EQ(tasks.size(), 1);
        const auto& task = tasks.first();
        EXPECT_EQ(task->GetSyncTaskType(), row.task);
        const bool fileRecord = std::is_same<Record, FileConfiguration>::value;
        ASSERT_EQ(task->IsFileTask(), fileRecord);
        const int carriedId = fileRecord ? task->GetFileConfig().id : task->GetFolderConfig().id;
        EXPECT_EQ(carriedId, row.outcome == FromServer ? kServerId : kLocalId);
        EXPECT_EQ(task->GetServerChangeAction(), row.server);
        EXPECT_EQ(task->GetLocalChangeAction(), row.local);
        EXPECT_EQ(task->GetServerTree(), p.serverTree);
        EXPECT_EQ(task->GetConfigTree(), p.configTree);
        EXPECT_EQ(task->GetLocalTree(), p.localTree);
        EXPECT_EQ(task->GetServerChange(), p.serverChange);
        EXPECT_EQ(task->GetLocalChange(), p.localChange);
    }
}

}  // namespace

TEST(ConflictResolverTest, FileMatrix) {
    // clang-format off
    CheckMatrix<FileConfiguration>({
        // server   local      task                 record
        {NoChange,  Added,     ServerFileCreation,  FromLocal},
        {NoChange,  Deleted,   ServerFileDeletion,  FromLocal},
        {NoChange,  Modified,  ServerFileCreation,  FromLocal},
        {Added,     NoChange,  LocalFileCreation,   FromServer},
        {Added,     Added,     ServerFileCreation,  FromLocal},
        {Added,     Deleted,   None,                Throws},
        {Added,     Modified,  None,                Throws},
        {Deleted,   NoChange,  LocalFileDeletion,   FromServer},
        {Deleted,   Added,     None,                Throws},
        {Deleted,   Deleted,   ServerFileDeletion,  FromLocal},
        {Deleted,   Modified,  ServerFileCreation,  FromLocal},
        {Modified,  NoChange,  LocalFileCreation,   FromServer},
        {Modified,  Added,     None,                Throws},
        {Modified,  Deleted,   LocalFileCreation,   FromServer},  // deliberate: the edit comes back
        {Modified,  Modified,  ServerFileCreation,  FromLocal},
    });
    // clang-format on
}

TEST(ConflictResolverTest, FolderMatrixWithEmptyChangeSets) {
    // clang-format off
    CheckMatrix<FolderConfiguration>({
        // server   local      task                   record
        {NoChange,  Added,     ServerFolderCreation,  FromLocal},
        {NoChange,  Deleted,   ServerFolderDeletion,  FromServer},  // nothing new below it
        {NoChange,  Modified,  None,                  Nothing},
        {Added,     NoChange,  LocalFolderCreation,   FromServer},
        {Added,     Added,     LocalFolderCreation,   FromLocal},
        {Added,     Deleted,   ServerFolderDeletion,  FromLocal},
        {Added,     Modified,  None,                  Nothing},
        {Deleted,   NoChange,  LocalFolderDeletion,   FromServer},  // nothing new below it
        {Deleted,   Added,     ServerFolderCreation,  FromLocal},
        {Deleted,   Deleted,   LocalFolderDeletion,   FromLocal},
        {Deleted,   Modified,  ServerFolderCreation,  FromServer},
        {Modified,  NoChange,  None,                  Nothing},
        {Modified,  Added,     None,                  Nothing},
        {Modified,  Deleted,   ServerFolderDeletion,  FromLocal},
        {Modified,  Modified,  None,                  Nothing},
    });
    // clang-format on
}

TEST(ConflictResolverTest, FactoryHandsOutOneResolverPerPairAndRefusesTheRest) {
    ConflictResolverFactory factory;
    EXPECT_EQ(factory.CreateFileConflictResolver(Added, Added),
              factory.CreateFileConflictResolver(Added, Added));
    EXPECT_NE(factory.CreateFileConflictResolver(Added, Added),
              factory.CreateFileConflictResolver(Modified, Modified));
    EXPECT_EQ(factory.CreateFolderConflictResolver(Deleted, NoChange),
              factory.CreateFolderConflictResolver(Deleted, NoChange));

    struct Refused {
        int server, local;
    };
    for (Refused r : {Refused{NoChange, NoChange}, Refused{4, NoChange}, Refused{Added, -1}}) {
        for (bool file : {true, false}) {
            SCOPED_TRACE(QStringLiteral("(%1, %2) file %3")
                             .arg(r.server)
                             .arg(r.local)
                             .arg(file)
                             .toStdString());
            try {
                if (file)
                    factory.CreateFileConflictResolver(EntryAction(r.server), EntryAction(r.local));
                else
                    factory.CreateFolderConflictResolver(EntryAction(r.server),
                                                         EntryAction(r.local));
                ADD_FAILURE() << "no exception";
            } catch (const SyncServiceException&) {
                ADD_FAILURE() << "an engine invariant exception instead of SyncException";
            } catch (const sync::core::SyncException& e) {
                EXPECT_EQ(e.message,
                          file ? "Invalid file action pair" : "Invalid folder action pair");
            }
        }
    }
}

// The upload names the server version it replaces: the local record, and the task built from
// it, carry the server's "version" as a base-10 number and its "versionId".
TEST(ConflictResolverTest, VersionHandOverBeforeUpload) {
    struct Case {
        const char* serverVersion;  // nullptr: absent
        const char* serverVersionId;
        const char* handedVersion;
        const char* handedVersionId;
    };
    // clang-format off
    const Case cases[] = {
        // server version  versionId  local version  local versionId
        {"12",             "v-12",    "12",          "v-12"},
        {"007",            "v-7",     "7",           "v-7"},
        {"abc",            "v-x",     "0",           "v-x"},
        {nullptr,          nullptr,   "0",           ""},
    };
    // clang-format on
    ConflictResolverFactory factory;
    for (EntryAction both : {Added, Modified}) {
        for (const Case& c : cases) {
            SCOPED_TRACE(std::string(c.serverVersion ? c.serverVersion : "absent"));
            Planning p;
            auto serverRecord = MakeRecord<FileConfiguration>(kServerId, "f.txt");
            auto localRecord = MakeRecord<FileConfiguration>(kLocalId, "f.txt");
            if (c.serverVersion) serverRecord.properties["version"] = c.serverVersion;
            if (c.serverVersionId) serverRecord.properties["versionId"] = c.serverVersionId;
            localRecord.properties["version"] = "99";
            localRecord.properties["versionId"] = "mine";
            p.Resolve(factory, both, both, serverRecord, localRecord);

            EXPECT_EQ(localRecord.properties.value("version"), c.handedVersion);
            EXPECT_EQ(localRecord.properties.value("versionId"), c.handedVersionId);
            EXPECT_TRUE(serverRecord.properties.contains("versionId"));
            auto uploads = p.depot.GetSyncTaskList(ServerFileCreation);
            ASSERT_TRUE(uploads && uploads->size() == 1);
            EXPECT_EQ(uploads->first()->GetFileConfig().properties, localRecord.properties);
        }
    }
}

// A folder on both sides but not in the database: the local record takes the server's five
// attributes and keeps its own paths.
TEST(ConflictResolverTest, ServerAttributeHandOverForFolderAddedOnBothSides) {
    ConflictResolverFactory factory;
    Planning p;
    auto serverRecord = MakeRecord<FolderConfiguration>(kServerId, "Docs");
    serverRecord.serverAttribute = "shared";
    serverRecord.lastModified = QDateTime::fromSecsSinceEpoch(1000000, Qt::UTC);
    serverRecord.privilegeInfo = "owner";
    serverRecord.privileges = 6;
    serverRecord.serverFolderId = "srv-17";
    serverRecord.localPath = "/server/view";
    auto localRecord = MakeRecord<FolderConfiguration>(kLocalId, "Docs");
    localRecord.localPath = "/home/u/Docs";
    p.Resolve(factory, Added, Added, serverRecord, localRecord);

    EXPECT_EQ(localRecord.serverAttribute, "shared");
    EXPECT_EQ(localRecord.lastModified, serverRecord.lastModified);
    EXPECT_EQ(localRecord.privilegeInfo, "owner");
    EXPECT_EQ(localRecord.privileges, 6);
    EXPECT_EQ(localRecord.serverFolderId, "srv-17");
    EXPECT_EQ(localRecord.localPath, "/home/u/Docs");
    EXPECT_EQ(localRecord.id, kLocalId);
    auto creations = p.depot.GetSyncTaskList(LocalFolderCreation);
    ASSERT_TRUE(creations && creations->size() == 1);
    EXPECT_TRUE(creations->first()->GetFolderConfig() == localRecord);
}

// A folder deleted on one side and unchanged on the other comes back when the other side holds
// new content below it (an added folder, an added or modified file), and is deleted otherwise.
TEST(ConflictResolverTest, FolderDeletedOnOneSideComesBackForNewContentBelowIt) {
    enum Side { InServerChange, InLocalChange };
    struct Case {
        EntryAction server, local;
        Side side;
        bool folder;
        EntryAction action;
        const char* path;
        SyncTaskType expected;
    };
    // clang-format off
    const Case cases[] = {
        // folder deleted on the server, local content below it
        {Deleted,  NoChange, InLocalChange,  false, Modified, "docs/Sub/f.txt", ServerFolderCreation},
        {Deleted,  NoChange, InLocalChange,  false, Added,    "DOCS/g.txt",     ServerFolderCreation},
        {Deleted,  NoChange, InLocalChange,  true,  Added,    "Docs/New",       ServerFolderCreation},
        {Deleted,  NoChange, InLocalChange,  false, Deleted,  "Docs/g.txt",     LocalFolderDeletion},
        {Deleted,  NoChange, InLocalChange,  true,  Deleted,  "Docs/Old",       LocalFolderDeletion},
        {Deleted,  NoChange, InLocalChange,  false, Added,    "Docsx/g.txt",    LocalFolderDeletion},
        {Deleted,  NoChange, InServerChange, false, Added,    "Docs/g.txt",     LocalFolderDeletion},
        // folder deleted locally, server content below it
        {NoChange, Deleted,  InServerChange, false, Modified, "docs/Sub/f.txt", LocalFolderCreation},
        {NoChange, Deleted,  InServerChange, false, Added,    "DOCS/g.txt",     LocalFolderCreation},
        {NoChange, Deleted,  InServerChange, true,  Added,    "Docs/New",       LocalFolderCreation},
        {NoChange, Deleted,  InServerChange, false, Deleted,  "Docs/g.txt",     ServerFolderDeletion},
        {NoChange, Deleted,  InServerChange, false, Added,    "Docsx/g.txt",    ServerFolderDeletion},
        {NoChange, Deleted,  InLocalChange,  false, Added,    "Docs/g.txt",     ServerFolderDeletion},
    };
    // clang-format on
    ConflictResolverFactory factory;
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.path) + (c.side == InLocalChange ? " local" : " server"));
        Planning p;
        EntryInfoTreeChange& change = c.side == InLocalChange ? *p.localChange : *p.serverChange;
        if (c.folder) {
            auto entry = MakeRecord<FolderConfiguration>(7, c.path);
            change.AddFolderAction(c.action, entry);
        } else {
            auto entry = MakeRecord<FileConfiguration>(7, c.path);
            change.AddFileAction(c.action, entry);
        }
        const EntryInfoTreeChange before(change);
        auto serverRecord = MakeRecord<FolderConfiguration>(kServerId, "Docs");
        auto localRecord = MakeRecord<FolderConfiguration>(kLocalId, "Docs");
        p.Resolve(factory, c.server, c.local, serverRecord, localRecord);

        const auto tasks = p.AllTasks();
        ASSERT_EQ(tasks.size(), 1);
        EXPECT_EQ(tasks.first()->GetSyncTaskType(), c.expected);
        EXPECT_EQ(tasks.first()->GetFolderConfig().id, kServerId);
        // Neither check takes anything out of a change set.
        EXPECT_EQ(change.getFileActionMap(), before.getFileActionMap());
        EXPECT_EQ(change.getFolderActionMap(), before.getFolderActionMap());
    }
}

// A whole folder deleted locally while the server gained a subfolder and a file in it: the
// folder is created again with the new content, and the file the user deleted there is still
// deleted on the server. Files are paired before folders, as the runner does.
TEST(ConflictResolverTest, NewServerContentSurvivesALocalFolderDeletion) {
    ConflictResolverFactory factory;
    Planning p;
    auto sub = MakeRecord<FolderConfiguration>(10, "A/B");
    auto newFile = MakeRecord<FileConfiguration>(11, "A/B/f.txt");
    auto oldFile = MakeRecord<FileConfiguration>(12, "A/old.txt");
    p.serverChange->AddFolderAction(Added, sub);
    p.serverChange->AddFileAction(Added, newFile);
    p.localChange->AddFileAction(Deleted, oldFile);

    FileConfiguration none;
    p.Resolve(factory, Added, NoChange, newFile, none);
    p.Resolve(factory, NoChange, Deleted, oldFile, oldFile);
    FolderConfiguration noFolder;
    p.Resolve(factory, Added, NoChange, sub, noFolder);
    auto serverA = MakeRecord<FolderConfiguration>(kServerId, "A");
    auto localA = MakeRecord<FolderConfiguration>(kLocalId, "A");
    p.Resolve(factory, NoChange, Deleted, serverA, localA);
    p.depot.RemoveConflictAndDuplicateTask();

    EXPECT_EQ(p.Keys(LocalFolderCreation), "A A/B");
    EXPECT_EQ(p.Keys(LocalFileCreation), "A/B/f.txt");
    EXPECT_EQ(p.Keys(ServerFileDeletion), "A/old.txt");
    EXPECT_EQ(p.Keys(ServerFolderDeletion), "");
    EXPECT_EQ(p.serverChange->getFolderActionMap().value("a/b"), Added);
    EXPECT_EQ(p.serverChange->getFileActionMap().value("a/b/f.txt"), Added);
}
