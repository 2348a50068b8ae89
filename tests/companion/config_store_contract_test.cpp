// One suite, two configuration stores: the in-memory fake that engine tests use and the SQLite
// managers. Whatever the fake answers differently from the database fails here first.

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <stdexcept>
#include <tuple>

#include "DatabaseBackends.h"
#include "DatabaseException.h"
#include "FakeConfigStore.h"
#include "TransactionalScope.h"

using namespace sync::config;
using sync::database::TransactionalScope;
using sync::test::At;
using sync::test::TimeText;

namespace {

// --- The two stores, with the same members ---------------------------------------------------

class FakeBackend {
public:
    FakeBackend() { TransactionalScope::SetBackend(fake->TransactionBackend()); }
    ~FakeBackend() { TransactionalScope::SetBackend(nullptr); }
    void Reopen() {}  // nothing of the fake is lost between two uses
    void Fail(const char* operation) { fake->FailOn(operation); }
    void ClearFaults() { fake->ClearFaults(); }

    std::shared_ptr<sync::test::FakeConfigStore> fake =
        std::make_shared<sync::test::FakeConfigStore>();
    std::shared_ptr<sync::test::FakeConfigStore> folders = fake, files = fake, accounts = fake,
                                                 servers = fake, schedule = fake, settings = fake;
};

// Fail() takes every table away from the managers, through a connection of its own as another
// program would, so that the one operation called next fails the way its manager fails it.
class SqliteBackend : public sync::test::SqliteStore {
public:
    void Fail(const char*) { Rename("", "hidden_"); }
    void ClearFaults() { Rename("hidden_", ""); }

private:
    void Rename(const char* from, const char* to) {
        QString sql;
        for (const char* table : {"folders", "files", "accounts", "settings"})
            sql += QStringLiteral("ALTER TABLE %1%3 RENAME TO %2%3;").arg(from, to, table);
        sync::test::ExecOnFile(Path(), sql.toUtf8().constData());
    }
};

// --- Records --------------------------------------------------------------------------------

FolderConfiguration Child(const FolderConfiguration& parent, const QString& name) {
    FolderConfiguration f;
    f.authenticationId = parent.authenticationId;
    f.rootId = parent.rootId;
    f.inheritedId = parent.inheritedId;
    f.parentId = parent.id;
    f.name = name;
    f.localPath = parent.localPath + QLatin1Char('/') + name;
    f.serverPath = f.path = parent.serverPath + QLatin1Char('/') + name;
    return f;
}

FolderConfiguration Root(const QString& localPath, int account = 1) {
    FolderConfiguration above;  // never stored: only its path and account are passed down
    above.authenticationId = account;
    above.localPath = localPath.section(QLatin1Char('/'), 0, -2);
    return Child(above, localPath.section(QLatin1Char('/'), -1));
}

FileConfiguration File(const FolderConfiguration& folder, const QString& name) {
    FileConfiguration f;
    f.folderId = folder.id;
    f.rootId = folder.rootId;
    f.inheritedId = folder.inheritedId;
    f.name = name;
    f.localPath = folder.localPath + QLatin1Char('/') + name;
    f.serverPath = folder.serverPath + QLatin1Char('/') + name;
    return f;
}

// Every field away from its default; times in local time, UTC, an offset and a zone.
FolderConfiguration PopulatedFolder(const FolderConfiguration& root) {
    FolderConfiguration f = Child(root, "Ünterordner ß");
    f.serverAttribute = "attr";
    f.lastModified = At(1600000000123, "Europe/Berlin");
    f.syncScope = 0;
    f.serverCreationFailed = 1;
    f.inheritedValue = 5;
    f.syncOption = SyncHiddenEntries | SkipDownloadingNewFiles;
    f.privilegeInfo = "rw-";
    f.privileges = PrivilegeDownload | PrivilegeUpload;
    f.serverRootPath = "/srv/root";
    f.serverFolderId = "sf-42";
    f.properties = {{"etag", "\"x\""}, {"empty", QString()}};
    f.lastSyncTime = At(1600000001000, Qt::OffsetFromUTC, -5 * 3600);
    f.lastServerSyncRequestTime = At(1600000002000, Qt::LocalTime);
    f.syncStatus = FolderSynchronizationStatus::OutOfSync;
    f.userFlag = true;
    return f;
}

FileConfiguration PopulatedFile(const FolderConfiguration& folder) {
    FileConfiguration f = File(folder, "Résumé.TXT");
    f.checksum = "c0ffee";
    f.contentType = "text/plain";
    f.created = At(1500000000001, Qt::LocalTime);
    f.lastModified = At(1500000000002, Qt::UTC);
    f.size = 5000000000LL;
    f.transferDirection = 3;
    f.properties = {{"version", "7"}, {"versionId", "v-7"}};
    f.lastTransferAttempt = At(1500000000003, Qt::OffsetFromUTC, 19800);
    f.generatedKind = 4;
    f.parentFileId = 99;
    f.privilegeInfo = "r--";
    f.privileges = PrivilegeDownload;
    f.serverFileId = "id-1";
    f.serverChecksum = "SC";
    f.fileLinks = {FileLink(1LL << 40, "t", "k", QString()), FileLink(-3, QString(), "k2", "x")};
    f.serverModified = At(1500000000004, "Asia/Tokyo");
    f.syncStatus = FileSynchronizationStatus::NotSynchronized;
    // The three flags differ pairwise across this record and the two updates of the round trip,
    // so that a store that swaps or merges any two of them fails.
    f.referencesOnly = 1;
    f.transferPending = false;
    f.syncStatusSet = true;
    return f;
}

std::string Times(const FolderConfiguration& f) {
    return TimeText(f.lastModified) + " | " + TimeText(f.lastSyncTime) + " | " +
           TimeText(f.lastServerSyncRequestTime);
}
std::string Times(const FileConfiguration& f) {
    return TimeText(f.created) + " | " + TimeText(f.lastModified) + " | " +
           TimeText(f.lastTransferAttempt) + " | " + TimeText(f.serverModified);
}

// The ids of the records listed, in order.
template <typename Record>
std::string Ids(const QVector<Record>& records) {
    std::string text;
    for (const Record& r : records) text += (text.empty() ? "" : " ") + std::to_string(r.id);
    return text;
}
template <typename... Record>
std::string Ids(const Record&... records) {
    std::string text;
    for (int id : {records.id...}) text += (text.empty() ? "" : " ") + std::to_string(id);
    return text;
}

// --- The suite ------------------------------------------------------------------------------

template <typename Backend>
class ConfigStoreContract : public ::testing::Test {
protected:
    FolderConfiguration Add(FolderConfiguration f) {
        EXPECT_TRUE(store.folders->AddFolder(f)) << f.localPath.toStdString();
        return f;
    }
    FileConfiguration Add(FileConfiguration f) {
        EXPECT_TRUE(store.files->AddFile(f)) << f.localPath.toStdString();
        return f;
    }
    Backend store;
};

class BackendNames {
public:
    template <typename T>
    static std::string GetName(int) {
        return std::is_same<T, FakeBackend>::value ? "Fake" : "Sqlite";
    }
};

using Backends = ::testing::Types<FakeBackend, SqliteBackend>;
TYPED_TEST_SUITE(ConfigStoreContract, Backends, BackendNames);

TYPED_TEST(ConfigStoreContract, PopulatedRecordsComeBackUnchanged) {
    auto& s = this->store;
    // Compared with the records as built, not as the store handed them back.
    FolderConfiguration folder = PopulatedFolder(this->Add(Root("/home/u/Docs")));
    folder.id = this->Add(folder).id;
    FileConfiguration file = PopulatedFile(folder);
    file.id = this->Add(file).id;
    auto expectStored = [&](const char* when) {
        SCOPED_TRACE(when);
        s.Reopen();
        const FolderConfiguration readFolder = s.folders->GetFolderById(folder.id);
        EXPECT_TRUE(readFolder == folder);
        EXPECT_EQ(Times(readFolder), Times(folder));
        const FileConfiguration readFile = s.files->GetFileById(file.id);
        EXPECT_TRUE(readFile == file);
        EXPECT_EQ(Times(readFile), Times(file));
        EXPECT_EQ(std::make_tuple(readFile.referencesOnly, readFile.transferPending,
                                  readFile.syncStatusSet),
                  std::make_tuple(file.referencesOnly, file.transferPending, file.syncStatusSet));
    };
    expectStored("added");

    folder.name = "renamed";
    folder.lastModified = QDateTime();
    folder.properties.clear();
    folder.syncStatus = FolderSynchronizationStatus::Synchronized;
    file.fileLinks = file.fileLinks.value().mid(1);
    file.properties.remove("version");
    file.created = QDateTime();
    file.size = 0;
    file.referencesOnly = 0;
    file.transferPending = true;
    ASSERT_TRUE(s.folders->UpdateFolder(folder));
    ASSERT_TRUE(s.files->UpdateFile(file));
    expectStored("updated");
    file.transferPending = false;
    ASSERT_TRUE(s.files->UpdateFile(file));
    expectStored("flags updated");
}

// Ids start at 1 and are never handed out twice; a root is its own root, and removing it takes
// its folders and files and nothing else; what is gone reads as id -1 and cannot be updated.
TYPED_TEST(ConfigStoreContract, RootsOwnTheirRecordsAndIdsAreNeverHandedOutTwice) {
    auto& folders = *this->store.folders;
    auto& files = *this->store.files;
    const auto a = this->Add(Root("/a", 1));
    const auto b = this->Add(Root("/b", 1));
    const auto c = this->Add(Root("/c", 2));
    EXPECT_GE(a.id, 1);
    EXPECT_GT(b.id, a.id);
    EXPECT_EQ(a.rootId, a.id);
    EXPECT_EQ(a.inheritedId, a.id);
    const auto aSub = this->Add(Child(a, "s"));
    auto noRootId = Child(aSub, "t");
    noRootId.rootId = -1;  // taken from the parent record
    noRootId = this->Add(noRootId);
    EXPECT_EQ(noRootId.rootId, a.id);
    EXPECT_EQ(Ids(folders.GetRootFolders()), Ids(a, b, c));
    EXPECT_EQ(Ids(folders.GetFoldersByRootId(a.id)), Ids(a, aSub, noRootId));
    const auto aFile = this->Add(File(aSub, "f"));
    const auto bFile = this->Add(File(b, "f"));

    ASSERT_TRUE(folders.RemoveRootFolder(a.id));
    EXPECT_EQ(folders.GetFolderById(aSub.id).id, -1);
    EXPECT_EQ(files.GetFileById(aFile.id).id, -1);
    EXPECT_FALSE(folders.UpdateFolder(aSub));
    EXPECT_FALSE(files.UpdateFile(aFile));
    EXPECT_FALSE(folders.RemoveRootFolder(a.id));
    EXPECT_TRUE(files.GetFileById(bFile.id) == bFile);

    EXPECT_TRUE(folders.IsAuthenticationInUse(1));
    const auto bSub = this->Add(Child(b, "s"));
    EXPECT_TRUE(folders.DeleteFolderById(bSub.id));
    EXPECT_FALSE(folders.DeleteFolderById(bSub.id));
    ASSERT_TRUE(folders.RemoveRootFolder(b.id));
    EXPECT_FALSE(folders.IsAuthenticationInUse(1));
    EXPECT_TRUE(folders.IsAuthenticationInUse(2));

    // A root added again after its records were removed is a new root under a new id.
    const auto again = this->Add(a);
    EXPECT_GT(again.id, bSub.id);
    EXPECT_EQ(again.rootId, again.id);
    EXPECT_EQ(again.inheritedId, again.id);
    EXPECT_EQ(Ids(folders.GetRootFolders()), Ids(c, again));
}

// Two records may hold one path in different letter cases: lookups find the older one.
TYPED_TEST(ConfigStoreContract, PathLookupsIgnoreCaseButNotTheAccount) {
    const auto sub = this->Add(Child(this->Add(Root("/home/Ünïcode/Straße", 4)), "ÄÖÜ Ordner"));
    const auto file = this->Add(File(sub, "Ème.TXT"));
    const auto newer = this->Add(File(sub, "ème.txt"));
    const struct {
        const char* path;
        int account;
        int found;
    } rows[] = {
        {"/home/Ünïcode/Straße/ÄÖÜ Ordner", 4, sub.id},
        {"/home/üNÏCODE/straße/äöü ORDNER", 4, sub.id},
        {"/HOME/üNÏCODE/STRASSE/äöü ordner", 4, -1},  // ß is not SS
        {"/home/ünïcode/straße/äöü ordner", 5, -1},
        {"/home/ünïcode/straße/äöü", 4, -1},
        {"/home/ünïcode/straße/äöü ordner/ème.txt", 4, file.id},
        {"/home/ünïcode/straße/äöü ordner/ème.txt", 5, -1},
        {"/home/ünïcode/straße/äöü ordner/eme.txt", 4, -1},
    };
    for (const auto& row : rows) {
        const QString path = QString::fromUtf8(row.path);
        const int found = path.endsWith(".txt")
                              ? this->store.files->GetFileByPath(path, row.account).id
                              : this->store.folders->GetFolderByPath(path, row.account).id;
        EXPECT_EQ(found, row.found) << row.path << " account " << row.account;
    }
    this->store.files->RemoveFile(file.id);
    EXPECT_EQ(this->store.files->GetFileByPath(newer.localPath, 4).id, newer.id);
}

TYPED_TEST(ConfigStoreContract, OrphansAreRecordsWhoseEveryLinkToARootIsBroken) {
    const auto kept = this->Add(Root("/kept"));
    const auto keptSub = this->Add(Child(kept, "s"));
    auto linked = [&](const char* name, int rootId, int inheritedId) {
        auto folder = Child(keptSub, name);
        folder.rootId = rootId;
        folder.inheritedId = inheritedId;
        auto file = File(keptSub, name);
        file.rootId = rootId;
        file.inheritedId = inheritedId;
        return std::make_pair(this->Add(folder), this->Add(file));
    };
    linked("rootId only", kept.id, 777);
    linked("inheritedId only", 777, kept.id);
    const auto viaSubfolder = linked("names a folder that is no root", keptSub.id, keptSub.id);
    const auto neither = linked("neither", 777, 778);
    auto never = File(keptSub, "never linked");  // a folder without links takes its parent's
    never.rootId = never.inheritedId = -1;
    never = this->Add(never);

    const auto gone = this->Add(Root("/gone"));
    const auto goneSub = this->Add(Child(gone, "s"));
    const auto goneFile = this->Add(File(goneSub, "g"));
    this->store.folders->RemoveFolder(gone.id);
    EXPECT_EQ(Ids(this->store.folders->GetFoldersOfMissingRootFolders()),
              Ids(viaSubfolder.first, neither.first, goneSub));
    EXPECT_EQ(Ids(this->store.files->GetFilesOfMissingRootFolders()),
              Ids(viaSubfolder.second, neither.second, never, goneFile));
}

TYPED_TEST(ConfigStoreContract, GeneratedFilesAreKeptApartFromPlainFiles) {
    auto& files = *this->store.files;
    const auto root = this->Add(Root("/r"));
    const auto plain = this->Add(File(root, "a.doc"));
    auto generated = [&](const FolderConfiguration& folder, const char* name, int kind) {
        FileConfiguration g = File(folder, name);
        g.isGenerated = 1;
        g.generatedKind = kind;
        g.parentFileId = plain.id;
        return this->Add(g);
    };
    const auto base = generated(root, "a.doc.BASE", 2);
    const auto preview = generated(root, "a.png", 5);
    const auto otherBase = generated(this->Add(Root("/o")), "b.BASE", 2);

    EXPECT_EQ(Ids(files.GetFilesByRootId(root.id, false)), Ids(plain));
    EXPECT_EQ(Ids(files.GetFilesByRootId(root.id, true)), Ids(plain, base, preview));
    EXPECT_EQ(Ids(files.GetGeneratedFilesByRootId(root.id, false)), Ids(base, preview));
    EXPECT_EQ(Ids(files.GetGeneratedFilesByKind(2)), Ids(base, otherBase));
    EXPECT_TRUE(files.GetGeneratedFileById(preview.id) == preview);
    EXPECT_EQ(files.GetGeneratedFileById(plain.id).id, -1);

    files.RemoveGeneratedFileById(plain.id);  // not generated: stays
    files.RemoveGeneratedFileById(base.id);
    files.RemoveGeneratedFile(preview.id);
    EXPECT_EQ(Ids(files.GetFilesByRootId(root.id, true)), Ids(plain));
}

TYPED_TEST(ConfigStoreContract, AccountsScheduleAndSettings) {
    auto& s = this->store;
    const ScheduleEntry none = s.schedule->GetScheduleEntry();
    EXPECT_EQ(none.syncType, Periodic);
    EXPECT_EQ(none.syncInterval, 300);
    ScheduleEntry daily;
    daily.syncType = Daily;
    daily.syncInterval = 60;
    daily.syncTime = At(1700000000000, Qt::UTC);
    s.schedule->UpdateScheduleEntry(daily);
    ServerConfiguration account;
    account.name = "work";
    account.kind = "webdav";
    account.baseUrl = "https://dav.example";
    account.userName = "jö";
    account.settings = {{"timeout", "30"}};
    s.accounts->AddAccount(account);
    EXPECT_GE(account.id, 1);
    const auto root = this->Add(Root("/r", account.id));
    s.Reopen();

    const ScheduleEntry read = s.schedule->GetScheduleEntry();
    EXPECT_EQ(read.syncType, Daily);
    EXPECT_EQ(read.syncInterval, 60);
    EXPECT_EQ(TimeText(read.syncTime), TimeText(daily.syncTime));
    EXPECT_TRUE(read.lastChanged.isNull());
    EXPECT_TRUE(s.servers->GetServerConfiguration(account.id) == account);
    EXPECT_TRUE(s.servers->GetServerConfigurationByFolderId(root.id) == account);
    EXPECT_EQ(s.servers->GetServerConfigurationByFolderId(root.id + 100).id, -1);
    account.baseUrl = "https://other.example";
    EXPECT_TRUE(s.accounts->UpdateAccount(account));
    EXPECT_TRUE(s.accounts->GetAccounts() == QVector<ServerConfiguration>{account});
    s.accounts->RemoveAuthentication(account.id);
    s.accounts->RemoveAuthentication(account.id);  // an unknown id is no error
    EXPECT_EQ(s.servers->GetServerConfiguration(account.id).id, -1);

    const struct { int stored, read; } intervals[] = {{45, 45}, {0, 300}, {-5, 300}};
    EXPECT_EQ(s.settings->GetSyncInterval(), 300);
    EXPECT_EQ(s.settings->GetTooManyRequestsHoldSeconds(), 900);
    for (const auto& row : intervals) {
        s.settings->SetSyncInterval(row.stored);
        EXPECT_EQ(s.settings->GetSyncInterval(), row.read) << "stored " << row.stored;
    }
}

TYPED_TEST(ConfigStoreContract, FailedOperationsAnswerLikeTheDatabaseAndWriteNothing) {
    auto& s = this->store;
    const auto root = this->Add(Root("/r"));
    const auto sub = this->Add(Child(root, "s"));
    const auto file = this->Add(File(sub, "f"));
    ServerConfiguration account;
    s.accounts->AddAccount(account);
    auto snapshot = [&] {
        return Ids(s.folders->GetFoldersByRootId(root.id)) + " / " +
               Ids(s.files->GetFilesByRootId(root.id, true)) + " / " +
               s.folders->GetFolderById(sub.id).name.toStdString() + " / " +
               std::to_string(s.files->GetFileById(file.id).size) + " / " +
               std::to_string(s.servers->GetServerConfiguration(account.id).id);
    };
    const std::string before = snapshot();

    // Arguments of the calls that write; every call fails, so none of them is changed.
    auto newFolder = Child(root, "new");
    auto renamed = sub;
    renamed.name = "renamed";
    auto newFile = File(sub, "new");
    auto resized = file;
    resized.size = 99;

    enum Outcome { False, Throws, Default };
    const struct {
        const char* operation;
        Outcome outcome;
        std::function<bool()> call;  // the answer when it does not throw
    } rows[] = {
        {"AddFolder", False, [&] { return s.folders->AddFolder(newFolder); }},
        {"UpdateFolder", False, [&] { return s.folders->UpdateFolder(renamed); }},
        {"DeleteFolderById", False, [&] { return s.folders->DeleteFolderById(sub.id); }},
        {"RemoveRootFolder", False, [&] { return s.folders->RemoveRootFolder(root.id); }},
        {"RemoveFolder", Throws, [&] { return s.folders->RemoveFolder(sub.id), true; }},
        {"AddFile", Throws, [&] { return s.files->AddFile(newFile); }},
        {"UpdateFile", Throws, [&] { return s.files->UpdateFile(resized); }},
        {"RemoveFile", Throws, [&] { return s.files->RemoveFile(file.id), true; }},
        {"RemoveAuthentication", Throws,
         [&] { return s.accounts->RemoveAuthentication(account.id), true; }},
        {"GetFolderById", Throws, [&] { return s.folders->GetFolderById(sub.id).id >= 0; }},
        {"GetRootFolders", Throws, [&] { return !s.folders->GetRootFolders().isEmpty(); }},
        {"IsAuthenticationInUse", Throws, [&] { return s.folders->IsAuthenticationInUse(1); }},
        {"GetFilesByRootId", Throws,
         [&] { return !s.files->GetFilesByRootId(root.id, false).isEmpty(); }},
        {"GetServerConfiguration", Throws,
         [&] { return s.servers->GetServerConfiguration(account.id).id >= 0; }},
        {"GetSyncInterval", Default, [&] { return s.settings->GetSyncInterval() == 300; }},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.operation);
        s.Fail(row.operation);
        bool threw = false;
        bool answer = false;
        try {
            answer = row.call();
        } catch (const sync::database::DatabaseException&) {
            threw = true;
        }
        s.ClearFaults();
        EXPECT_EQ(threw, row.outcome == Throws);
        if (!threw) {
            EXPECT_EQ(answer, row.outcome == Default);
        }
        EXPECT_EQ(snapshot(), before);
    }
}

TYPED_TEST(ConfigStoreContract, AScopeUnwoundByAnExceptionTakesItsWritesBackAndOnlyThose) {
    auto& s = this->store;
    const auto root = this->Add(Root("/r"));
    FileConfiguration kept = File(root, "kept");
    FileConfiguration undone = File(root, "undone");
    {
        TransactionalScope outer;
        ASSERT_TRUE(s.files->AddFile(kept));
        try {
            TransactionalScope inner;
            ASSERT_TRUE(s.files->AddFile(undone));
            EXPECT_EQ(s.files->GetFileById(undone.id).id, undone.id);  // seen inside the batch
            throw std::runtime_error("batch failed half-way");
        } catch (const std::runtime_error&) {
        }
    }
    s.Reopen();
    QStringList names;
    for (const auto& f : s.files->GetFilesByRootId(root.id, true)) names << f.name;
    EXPECT_EQ(names.join(' ').toStdString(), "kept");
}

// The SQLite side of this rule is proven with real failed commits in the transaction tests.
TEST(FakeConfigStore, ABatchLostAtTheEndOfItsScopeIsReportedByTheNextCallOnce) {
    auto store = std::make_shared<sync::test::FakeConfigStore>();
    TransactionalScope::SetBackend(store->TransactionBackend());
    store->FailOn("Commit", 1);
    {
        TransactionalScope scope;
        FolderConfiguration root = Root("/r");
        ASSERT_TRUE(store->AddFolder(root));
    }
    EXPECT_THROW(store->UpdateFolder(FolderConfiguration()), sync::database::DatabaseException);
    EXPECT_TRUE(store->GetRootFolders().isEmpty());
    TransactionalScope::SetBackend(nullptr);
}

}  // namespace
