// One suite, two configuration stores: the in-memory fake that engine tests use and the SQLite
// managers. Whatever the fake answers differently from the database fails here first.

#include <gtest/gtest.h>

#include <QTemporaryDir>
#include <functional>
#include <memory>
#include <stdexcept>

#include "AuthenticationConfigManager.h"
#include "ConfigDatabase.h"
#include "DatabaseBackends.h"
#include "DatabaseException.h"
#include "FakeConfigStore.h"
#include "FileConfigManager.h"
#include "FolderConfigManager.h"
#include "ScheduleEntryManager.h"
#include "ServerConfigManager.h"
#include "SyncConfiguration.h"
#include "TransactionalScope.h"

using namespace sync::config;
using sync::database::TransactionalScope;
using sync::test::At;
using sync::test::TimeText;

namespace {

// --- The two stores -------------------------------------------------------------------------

class FakeBackend {
public:
    FakeBackend() { TransactionalScope::SetBackend(_store->TransactionBackend()); }
    ~FakeBackend() { TransactionalScope::SetBackend(nullptr); }

    sync::interf::IFolderConfigManager& folders() { return *_store; }
    sync::interf::IFileConfigManager& files() { return *_store; }
    sync::interf::IAuthenticationConfigManager& accounts() { return *_store; }
    sync::interf::IServerConfigManager& servers() { return *_store; }
    sync::interf::IScheduleEntryManager& schedule() { return *_store; }
    sync::interf::ISyncConfiguration& settings() { return *_store; }
    void AddAccount(ServerConfiguration& account) { _store->AddAccount(account); }
    void SetSyncInterval(int seconds) { _store->SetSyncInterval(seconds); }
    // Nothing of the fake is lost between two uses.
    void Reopen() {}
    void Fail(const char* operation) { _store->FailOn(operation); }
    void ClearFaults() { _store->ClearFaults(); }

private:
    std::shared_ptr<sync::test::FakeConfigStore> _store =
        std::make_shared<sync::test::FakeConfigStore>();
};

// How a real failure of an operation is brought about in the database file, and undone.
struct Injection {
    const char* operation;
    const char* make;
    const char* undo;
};

#define FAIL_ON(event, table)                                  \
    "CREATE TRIGGER injected_fault BEFORE " event " ON " table \
    " BEGIN SELECT RAISE(ABORT, 'injected fault'); END",       \
        "DROP TRIGGER injected_fault"
#define HIDE(table) \
    "ALTER TABLE " table " RENAME TO hidden_table", "ALTER TABLE hidden_table RENAME TO " table

const Injection kInjections[] = {
    {"AddFolder", FAIL_ON("INSERT", "folders")},
    {"UpdateFolder", FAIL_ON("UPDATE", "folders")},
    {"DeleteFolderById", FAIL_ON("DELETE", "folders")},
    {"RemoveFolder", FAIL_ON("DELETE", "folders")},
    // Deletes the files first: the failure comes half-way through.
    {"RemoveRootFolder", FAIL_ON("DELETE", "folders")},
    {"AddFile", FAIL_ON("INSERT", "files")},
    {"UpdateFile", FAIL_ON("UPDATE", "files")},
    {"RemoveFile", FAIL_ON("DELETE", "files")},
    {"RemoveAuthentication", FAIL_ON("DELETE", "accounts")},
    {"GetFolderById", HIDE("folders")},
    {"GetRootFolders", HIDE("folders")},
    {"IsAuthenticationInUse", HIDE("folders")},
    {"GetFilesByRootId", HIDE("files")},
    {"GetServerConfiguration", HIDE("accounts")},
    {"GetSyncInterval", HIDE("settings")},
};

class SqliteBackend {
public:
    SqliteBackend() { Reopen(); }
    ~SqliteBackend() { _Close(); }

    sync::interf::IFolderConfigManager& folders() { return *_folders; }
    sync::interf::IFileConfigManager& files() { return *_files; }
    sync::interf::IAuthenticationConfigManager& accounts() { return *_accounts; }
    sync::interf::IServerConfigManager& servers() { return *_servers; }
    sync::interf::IScheduleEntryManager& schedule() { return *_schedule; }
    sync::interf::ISyncConfiguration& settings() { return *_settings; }
    void AddAccount(ServerConfiguration& account) { _accounts->AddAccount(account); }
    void SetSyncInterval(int seconds) { _settings->SetSyncInterval(seconds); }

    void Reopen() {
        _Close();
        _db = sync::database::ConfigDatabase::Open(_Path());
        sync::database::ConfigDatabase::Install(_db);
        _folders = std::make_shared<sync::database::FolderConfigManager>(_db);
        _files = std::make_shared<sync::database::FileConfigManager>(_db);
        _accounts = std::make_shared<sync::database::AuthenticationConfigManager>(_db);
        _servers = std::make_shared<sync::database::ServerConfigManager>(_db);
        _schedule = std::make_shared<sync::database::ScheduleEntryManager>(_db);
        _settings = std::make_shared<sync::database::SyncConfiguration>(_db);
    }
    // Changes the file through a connection of its own, as another program would.
    void Fail(const char* operation) {
        for (const Injection& injection : kInjections)
            if (qstrcmp(injection.operation, operation) == 0) {
                sync::test::ExecOnFile(_Path(), injection.make);
                _undo = injection.undo;
                return;
            }
        FAIL() << "no way to make " << operation << " fail";
    }
    void ClearFaults() {
        if (_undo) sync::test::ExecOnFile(_Path(), _undo);
        _undo = nullptr;
    }

private:
    QString _Path() const { return _dir.filePath(QStringLiteral("sync.db")); }
    void _Close() {
        _folders.reset();
        _files.reset();
        _accounts.reset();
        _servers.reset();
        _schedule.reset();
        _settings.reset();
        sync::database::ConfigDatabase::Uninstall();
        _db.reset();
    }
    QTemporaryDir _dir;
    std::shared_ptr<sync::database::ConfigDatabase> _db;
    std::shared_ptr<sync::database::FolderConfigManager> _folders;
    std::shared_ptr<sync::database::FileConfigManager> _files;
    std::shared_ptr<sync::database::AuthenticationConfigManager> _accounts;
    std::shared_ptr<sync::database::ServerConfigManager> _servers;
    std::shared_ptr<sync::database::ScheduleEntryManager> _schedule;
    std::shared_ptr<sync::database::SyncConfiguration> _settings;
    const char* _undo = nullptr;
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
    // Told apart: a store that swapped or merged the two flags fails.
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
        EXPECT_TRUE(store.folders().AddFolder(f)) << f.localPath.toStdString();
        return f;
    }
    FileConfiguration Add(FileConfiguration f) {
        EXPECT_TRUE(store.files().AddFile(f)) << f.localPath.toStdString();
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
        const FolderConfiguration readFolder = s.folders().GetFolderById(folder.id);
        EXPECT_TRUE(readFolder == folder);
        EXPECT_EQ(Times(readFolder), Times(folder));
        const FileConfiguration readFile = s.files().GetFileById(file.id);
        EXPECT_TRUE(readFile == file);
        EXPECT_EQ(Times(readFile), Times(file));
        EXPECT_EQ(readFile.referencesOnly, file.referencesOnly);
        EXPECT_EQ(readFile.transferPending, file.transferPending);
    };
    expectStored("added");

    folder.name = "renamed";
    folder.lastModified = QDateTime();
    folder.properties.clear();
    folder.syncStatus = FolderSynchronizationStatus::Synchronized;
    file.fileLinks.removeFirst();
    file.properties.remove("version");
    file.created = QDateTime();
    file.size = 0;
    file.referencesOnly = 0;
    file.transferPending = true;
    ASSERT_TRUE(s.folders().UpdateFolder(folder));
    ASSERT_TRUE(s.files().UpdateFile(file));
    expectStored("updated");
}

TYPED_TEST(ConfigStoreContract, RootsAreTheirOwnRootAndIdsAreNeverHandedOutTwice) {
    auto& folders = this->store.folders();
    const auto first = this->Add(Root("/a"));
    auto second = this->Add(Root("/b"));
    EXPECT_GE(first.id, 1);
    EXPECT_GT(second.id, first.id);
    EXPECT_EQ(first.rootId, first.id);
    EXPECT_EQ(first.inheritedId, first.id);
    const auto sub = this->Add(Child(second, "sub"));
    auto noRootId = Child(sub, "t");
    noRootId.rootId = -1;  // taken from the parent record
    noRootId = this->Add(noRootId);
    EXPECT_EQ(noRootId.rootId, second.id);
    EXPECT_EQ(Ids(folders.GetRootFolders()), Ids(first, second));
    EXPECT_EQ(Ids(folders.GetFoldersByRootId(second.id)), Ids(second, sub, noRootId));

    // A root added again after its records were removed is a new root under a new id.
    const int oldId = second.id;
    ASSERT_TRUE(folders.RemoveRootFolder(oldId));
    second.syncOption |= RootFolderReset;
    second = this->Add(second);
    EXPECT_GT(second.id, noRootId.id);
    EXPECT_EQ(second.rootId, second.id);
    EXPECT_EQ(second.inheritedId, second.id);
    EXPECT_EQ(Ids(folders.GetRootFolders()), Ids(first, second));
}

TYPED_TEST(ConfigStoreContract, MissingRecordsHaveIdMinusOneAndUnsavedOnesAreNotWritten) {
    auto& s = this->store;
    const auto root = this->Add(Root("/a"));
    const auto stored = this->Add(File(root, "x"));
    EXPECT_FALSE(s.folders().UpdateFolder(Child(root, "never")));
    auto unsaved = stored;
    unsaved.id = -1;
    unsaved.size = 7;
    EXPECT_FALSE(s.files().UpdateFile(unsaved));
    unsaved.id = 12345;
    EXPECT_FALSE(s.files().UpdateFile(unsaved));
    EXPECT_EQ(s.folders().GetFoldersByRootId(root.id).size(), 1);
    EXPECT_TRUE(s.files().GetFileById(stored.id) == stored);

    EXPECT_EQ(s.folders().GetFolderById(12345).id, -1);
    EXPECT_EQ(s.folders().GetFolderByPath("/nowhere", 1).id, -1);
    EXPECT_EQ(s.files().GetFileById(12345).id, -1);
    EXPECT_EQ(s.files().GetFileByPath("/nowhere", 1).id, -1);
    EXPECT_EQ(s.files().GetGeneratedFileById(stored.id).id, -1);  // a plain file is not generated
    EXPECT_EQ(s.servers().GetServerConfiguration(12345).id, -1);
    EXPECT_EQ(s.servers().GetServerConfigurationByFolderId(12345).id, -1);
}

TYPED_TEST(ConfigStoreContract, PathLookupsIgnoreCaseButNotTheAccount) {
    const auto sub = this->Add(Child(this->Add(Root("/home/Ünïcode/Straße", 4)), "ÄÖÜ Ordner"));
    const auto file = this->Add(File(sub, "Ème.TXT"));
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
                              ? this->store.files().GetFileByPath(path, row.account).id
                              : this->store.folders().GetFolderByPath(path, row.account).id;
        EXPECT_EQ(found, row.found) << row.path << " account " << row.account;
    }
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

    const auto gone = this->Add(Root("/gone"));
    const auto goneSub = this->Add(Child(gone, "s"));
    const auto goneFile = this->Add(File(goneSub, "g"));
    this->store.folders().RemoveFolder(gone.id);
    EXPECT_EQ(Ids(this->store.folders().GetFoldersOfMissingRootFolders()),
              Ids(viaSubfolder.first, neither.first, goneSub));
    EXPECT_EQ(Ids(this->store.files().GetFilesOfMissingRootFolders()),
              Ids(viaSubfolder.second, neither.second, goneFile));
}

TYPED_TEST(ConfigStoreContract, DuplicateRecordsAreAllListedAndRemovedOneByOne) {
    auto& files = this->store.files();
    const auto root = this->Add(Root("/r"));
    const auto first = this->Add(File(root, "dup.txt"));
    const auto second = this->Add(File(root, "DUP.txt"));
    EXPECT_EQ(Ids(files.GetFilesByRootId(root.id, false)), Ids(first, second));
    EXPECT_EQ(files.GetFileByPath("/r/DUP.TXT", 1).id, first.id);  // the older one
    files.RemoveFile(first.id);
    EXPECT_EQ(Ids(files.GetFilesByRootId(root.id, false)), Ids(second));
    EXPECT_EQ(files.GetFileByPath("/r/dup.txt", 1).id, second.id);
}

TYPED_TEST(ConfigStoreContract, GeneratedFilesAreKeptApartFromPlainFiles) {
    auto& files = this->store.files();
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

    files.RemoveGeneratedFileById(plain.id);  // not generated: stays
    files.RemoveGeneratedFileById(base.id);
    files.RemoveGeneratedFile(preview.id);
    EXPECT_EQ(Ids(files.GetFilesByRootId(root.id, true)), Ids(plain));
}

TYPED_TEST(ConfigStoreContract, RemovingARootRemovesWhatBelongsToItOnly) {
    auto& folders = this->store.folders();
    auto& files = this->store.files();
    const auto a = this->Add(Root("/a", 1));
    const auto b = this->Add(Root("/b", 1));
    const auto c = this->Add(Root("/c", 2));
    const auto aSub = this->Add(Child(a, "s"));
    const auto aFile = this->Add(File(aSub, "f"));
    const auto bFile = this->Add(File(b, "f"));

    ASSERT_TRUE(folders.RemoveRootFolder(a.id));
    EXPECT_EQ(folders.GetFolderById(aSub.id).id, -1);
    EXPECT_EQ(files.GetFileById(aFile.id).id, -1);
    EXPECT_TRUE(files.GetFileById(bFile.id) == bFile);
    EXPECT_FALSE(folders.RemoveRootFolder(a.id));

    EXPECT_TRUE(folders.IsAuthenticationInUse(1));
    const auto bSub = this->Add(Child(b, "s"));
    EXPECT_TRUE(folders.DeleteFolderById(bSub.id));
    EXPECT_FALSE(folders.DeleteFolderById(bSub.id));
    ASSERT_TRUE(folders.RemoveRootFolder(b.id));
    EXPECT_FALSE(folders.IsAuthenticationInUse(1));
    EXPECT_TRUE(folders.IsAuthenticationInUse(2));
    EXPECT_EQ(Ids(folders.GetRootFolders()), Ids(c));
}

TYPED_TEST(ConfigStoreContract, AccountsScheduleAndSettings) {
    auto& s = this->store;
    ServerConfiguration account;
    account.name = "work";
    account.kind = "webdav";
    account.baseUrl = "https://dav.example";
    account.userName = "me";
    account.settings = {{"timeout", "30"}};
    s.AddAccount(account);
    EXPECT_GE(account.id, 1);
    const auto root = this->Add(Root("/r", account.id));
    EXPECT_TRUE(s.servers().GetServerConfiguration(account.id) == account);
    EXPECT_TRUE(s.servers().GetServerConfigurationByFolderId(root.id) == account);
    s.accounts().RemoveAuthentication(account.id);
    s.accounts().RemoveAuthentication(account.id);  // an unknown id is no error
    EXPECT_EQ(s.servers().GetServerConfiguration(account.id).id, -1);

    const ScheduleEntry none = s.schedule().GetScheduleEntry();
    EXPECT_EQ(none.syncType, Periodic);
    EXPECT_EQ(none.syncInterval, 300);
    ScheduleEntry daily;
    daily.syncType = Daily;
    daily.syncInterval = 60;
    daily.syncTime = At(1700000000000, Qt::UTC);
    s.schedule().UpdateScheduleEntry(daily);
    s.Reopen();
    const ScheduleEntry read = s.schedule().GetScheduleEntry();
    EXPECT_EQ(read.syncType, Daily);
    EXPECT_EQ(read.syncInterval, 60);
    EXPECT_EQ(TimeText(read.syncTime), TimeText(daily.syncTime));
    EXPECT_TRUE(read.lastChanged.isNull());

    const struct { int stored, read; } intervals[] = {{45, 45}, {0, 300}, {-5, 300}};
    EXPECT_EQ(s.settings().GetSyncInterval(), 300);
    EXPECT_EQ(s.settings().GetTooManyRequestsHoldSeconds(), 900);
    for (const auto& row : intervals) {
        s.SetSyncInterval(row.stored);
        EXPECT_EQ(s.settings().GetSyncInterval(), row.read) << "stored " << row.stored;
    }
}

TYPED_TEST(ConfigStoreContract, FailedOperationsAnswerLikeTheDatabaseAndWriteNothing) {
    auto& s = this->store;
    const auto root = this->Add(Root("/r"));
    const auto sub = this->Add(Child(root, "s"));
    const auto file = this->Add(File(sub, "f"));
    ServerConfiguration account;
    s.AddAccount(account);
    auto snapshot = [&] {
        std::string text = Ids(s.folders().GetFoldersByRootId(root.id)) + " / " +
                           Ids(s.files().GetFilesByRootId(root.id, true)) + " / " +
                           s.folders().GetFolderById(sub.id).name.toStdString() + " / " +
                           std::to_string(s.files().GetFileById(file.id).size) + " / " +
                           std::to_string(s.servers().GetServerConfiguration(account.id).id);
        return text;
    };
    const std::string before = snapshot();

    enum Outcome { False, Throws, Default };
    const struct {
        const char* operation;
        Outcome outcome;
        std::function<bool()> call;  // the answer when it does not throw
    } rows[] = {
        {"AddFolder", False,
         [&] {
             auto f = Child(root, "new");
             return s.folders().AddFolder(f);
         }},
        {"UpdateFolder", False,
         [&] {
             auto f = sub;
             f.name = "renamed";
             return s.folders().UpdateFolder(f);
         }},
        {"DeleteFolderById", False, [&] { return s.folders().DeleteFolderById(sub.id); }},
        {"RemoveRootFolder", False, [&] { return s.folders().RemoveRootFolder(root.id); }},
        {"RemoveFolder", Throws, [&] { return s.folders().RemoveFolder(sub.id), true; }},
        {"AddFile", Throws,
         [&] {
             auto f = File(sub, "new");
             return s.files().AddFile(f);
         }},
        {"UpdateFile", Throws,
         [&] {
             auto f = file;
             f.size = 99;
             return s.files().UpdateFile(f);
         }},
        {"RemoveFile", Throws, [&] { return s.files().RemoveFile(file.id), true; }},
        {"RemoveAuthentication", Throws,
         [&] { return s.accounts().RemoveAuthentication(account.id), true; }},
        {"GetFolderById", Throws, [&] { return s.folders().GetFolderById(sub.id).id >= 0; }},
        {"GetRootFolders", Throws, [&] { return !s.folders().GetRootFolders().isEmpty(); }},
        {"IsAuthenticationInUse", Throws, [&] { return s.folders().IsAuthenticationInUse(1); }},
        {"GetFilesByRootId", Throws,
         [&] { return !s.files().GetFilesByRootId(root.id, false).isEmpty(); }},
        {"GetServerConfiguration", Throws,
         [&] { return s.servers().GetServerConfiguration(account.id).id >= 0; }},
        {"GetSyncInterval", Default, [&] { return s.settings().GetSyncInterval() == 300; }},
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
        ASSERT_TRUE(s.files().AddFile(kept));
        try {
            TransactionalScope inner;
            ASSERT_TRUE(s.files().AddFile(undone));
            EXPECT_EQ(s.files().GetFileById(undone.id).id, undone.id);  // seen inside the batch
            throw std::runtime_error("batch failed half-way");
        } catch (const std::runtime_error&) {
        }
    }
    s.Reopen();
    QStringList names;
    for (const auto& f : s.files().GetFilesByRootId(root.id, true)) names << f.name;
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
