// Opening configuration database files: bad files fail loudly and untouched, old files migrate.

#include <gtest/gtest.h>

#include <sqlite3.h>
#include <unistd.h>
#include <QCryptographicHash>
#include <QFile>
#include <QTemporaryDir>
#include <stdexcept>

#include "ConfigDatabase.h"
#include "DatabaseActionLog.h"
#include "DatabaseSchema.h"
#include "FileConfigManager.h"
#include "FolderConfigManager.h"
#include "TransactionalScope.h"

using namespace sync::config;
using sync::database::ConfigDatabase;

namespace {

QByteArray Digest(const QString& path) {
    QFile f(path);
    if (!f.open(QIODevice::ReadOnly)) return QByteArray();
    return QCryptographicHash::hash(f.readAll(), QCryptographicHash::Sha256);
}

void ExecRaw(const QString& path, const char* sql) {
    sqlite3* raw = nullptr;
    ASSERT_EQ(sqlite3_open(QFile::encodeName(path).constData(), &raw), SQLITE_OK);
    char* error = nullptr;
    const int rc = sqlite3_exec(raw, sql, nullptr, nullptr, &error);
    EXPECT_EQ(rc, SQLITE_OK) << (error ? error : "");
    sqlite3_free(error);
    sqlite3_close(raw);
}

// The open must fail with the file named in the error, and leave the file as it was.
void ExpectRefused(const QString& path, ConfigDatabase::Mode mode, const char* reason) {
    SCOPED_TRACE(reason);
    const QByteArray before = Digest(path);
    try {
        ConfigDatabase::Open(path, mode);
        ADD_FAILURE() << "opened " << path.toStdString();
    } catch (const std::runtime_error& e) {
        EXPECT_TRUE(QString::fromUtf8(e.what()).contains(path)) << e.what();
        EXPECT_TRUE(QString::fromUtf8(e.what()).contains(QString::fromLatin1(reason))) << e.what();
    }
    EXPECT_EQ(Digest(path), before);
}

class DatabaseFileTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(dir.isValid()); }
    QString PathOf(const char* name) const { return dir.filePath(QString::fromLatin1(name)); }

    // A closed database with enough folder records to span many pages.
    QString MakeDatabase(const char* name, int folders) {
        const QString path = PathOf(name);
        auto db = ConfigDatabase::Open(path);
        sync::database::FolderConfigManager manager(db);
        ConfigDatabase::Install(db);
        {
            sync::database::TransactionalScope scope;
            for (int i = 0; i < folders; ++i) {
                FolderConfiguration f;
                f.localPath = QStringLiteral("/data/folder-with-a-long-name-%1").arg(i);
                manager.AddFolder(f);
            }
        }
        ConfigDatabase::Uninstall();
        return path;
    }

    QTemporaryDir dir;
};

TEST_F(DatabaseFileTest, NewFileIsCreatedInWalModeAtTheLatestVersion) {
    const QString path = PathOf("sub/dir/sync.db");
    auto db = ConfigDatabase::Open(path);
    EXPECT_TRUE(QFile::exists(path));
    EXPECT_EQ(db->SchemaVersion(), ConfigDatabase::LatestSchemaVersion());
    sqlite3* raw = nullptr;
    ASSERT_EQ(
        sqlite3_open_v2(QFile::encodeName(path).constData(), &raw, SQLITE_OPEN_READONLY, nullptr),
        SQLITE_OK);
    sqlite3_stmt* stmt = nullptr;
    sqlite3_prepare_v2(raw, "PRAGMA journal_mode", -1, &stmt, nullptr);
    ASSERT_EQ(sqlite3_step(stmt), SQLITE_ROW);
    EXPECT_STREQ(reinterpret_cast<const char*>(sqlite3_column_text(stmt, 0)), "wal");
    sqlite3_finalize(stmt);
    sqlite3_close(raw);
}

TEST_F(DatabaseFileTest, BadFilesAreRefusedUntouched) {
    {
        QFile garbage(PathOf("garbage.db"));
        ASSERT_TRUE(garbage.open(QIODevice::WriteOnly));
        for (int i = 0; i < 200; ++i) garbage.write("this is not a database at all\n");
    }
    ExpectRefused(PathOf("garbage.db"), ConfigDatabase::Mode::ReadWrite, "not a readable database");

    const QString truncated = MakeDatabase("truncated.db", 3000);
    {
        QFile f(truncated);
        ASSERT_TRUE(f.resize(f.size() / 2));
    }
    ExpectRefused(truncated, ConfigDatabase::Mode::ReadWrite, "damaged");
    ExpectRefused(truncated, ConfigDatabase::Mode::ReadOnly, "damaged");

    const QString foreign = PathOf("foreign.db");
    ExecRaw(foreign, "CREATE TABLE photos (id INTEGER PRIMARY KEY, name TEXT)");
    ExpectRefused(foreign, ConfigDatabase::Mode::ReadWrite, "not a synchronisation database");

    const QString newer = MakeDatabase("newer.db", 1);
    ExecRaw(newer, "PRAGMA user_version = 99");
    ExpectRefused(newer, ConfigDatabase::Mode::ReadWrite, "newer release");

    ExpectRefused(PathOf("missing.db"), ConfigDatabase::Mode::ReadOnly, "does not exist");
}

TEST_F(DatabaseFileTest, ReadOnlyOpenRefusesWritesNamingTheFile) {
    const QString path = MakeDatabase("sync.db", 1);
    auto db = ConfigDatabase::Open(path, ConfigDatabase::Mode::ReadOnly);
    EXPECT_TRUE(db->IsReadOnly());
    sync::database::FileConfigManager files(db);
    FileConfiguration f;
    f.localPath = QStringLiteral("/data/x");
    try {
        files.AddFile(f);
        ADD_FAILURE() << "wrote to a read-only database";
    } catch (const std::runtime_error& e) {
        EXPECT_TRUE(QString::fromUtf8(e.what()).contains(path)) << e.what();
    }
    sync::database::FolderConfigManager folders(db);
    FolderConfiguration folder;
    EXPECT_FALSE(folders.AddFolder(folder));
    EXPECT_EQ(folders.GetRootFolders().size(), 1);
}

TEST_F(DatabaseFileTest, FileWithoutWritePermissionIsRefusedForWriting) {
    if (geteuid() == 0) GTEST_SKIP() << "running as root: file permissions do not stop writes";
    const QString path = MakeDatabase("sync.db", 1);
    ASSERT_TRUE(QFile::setPermissions(path, QFile::ReadOwner));
    ExpectRefused(path, ConfigDatabase::Mode::ReadWrite, "read-only");
}

// A host tool reads while the service holds a write transaction: it sees the last commit.
TEST_F(DatabaseFileTest, ReaderSeesCommittedStateWhileTheServiceWrites) {
    const QString path = MakeDatabase("sync.db", 2);
    auto service = ConfigDatabase::Open(path);
    ConfigDatabase::Install(service);
    sync::database::FolderConfigManager serviceFolders(service);
    auto tool = ConfigDatabase::Open(path, ConfigDatabase::Mode::ReadOnly);
    sync::database::FolderConfigManager toolFolders(tool);
    {
        sync::database::TransactionalScope scope;
        FolderConfiguration f;
        f.localPath = QStringLiteral("/data/uncommitted");
        ASSERT_TRUE(serviceFolders.AddFolder(f));
        EXPECT_EQ(serviceFolders.GetRootFolders().size(), 3);
        EXPECT_EQ(toolFolders.GetRootFolders().size(), 2);
    }
    EXPECT_EQ(toolFolders.GetRootFolders().size(), 3);
    ConfigDatabase::Uninstall();
}

// A file written by the first release: the schema is moved forward, the records stay.
TEST_F(DatabaseFileTest, VersionOneFileIsMigratedKeepingItsRecords) {
    const QString path = PathOf("v1.db");
    const auto& steps = sync::database::DatabaseSchema::Migrations();
    ASSERT_EQ(steps.front().version, 1);
    ExecRaw(path, steps.front().sql);
    ExecRaw(path,
            "PRAGMA application_id = 1398361667; PRAGMA user_version = 1;"
            "INSERT INTO folders (id, authentication_id, root_id, inherited_id, name, "
            "server_attribute, path, local_path, local_path_key, server_path, parent_id, "
            "last_modified_ms, last_modified_zone, sync_scope, server_creation_failed, "
            "inherited_value, sync_option, privilege_info, privileges, server_root_path, "
            "server_folder_id, properties, last_sync_time_ms, last_sync_time_zone, "
            "last_server_sync_request_time_ms, last_server_sync_request_time_zone, sync_status, "
            "user_flag) VALUES (5, 2, 5, 5, 'Docs', '', '/Docs', '/home/u/Docs', "
            "'/home/u/docs', '/Docs', -1, 1600000000000, 1, 0, 0, 1, 2, 'info', 31, '', 'sf', "
            "NULL, NULL, NULL, NULL, NULL, 0, 0);");

    auto db = ConfigDatabase::Open(path);
    EXPECT_EQ(db->SchemaVersion(), ConfigDatabase::LatestSchemaVersion());
    sync::database::FolderConfigManager folders(db);
    const auto roots = folders.GetRootFolders();
    ASSERT_EQ(roots.size(), 1);
    EXPECT_EQ(roots[0].id, 5);
    EXPECT_EQ(roots[0].localPath, QStringLiteral("/home/u/Docs"));
    EXPECT_EQ(roots[0].lastModified, QDateTime::fromMSecsSinceEpoch(1600000000000, Qt::UTC));
    EXPECT_EQ(roots[0].syncOption, 2);
    EXPECT_EQ(folders.GetFolderByPath(QStringLiteral("/HOME/U/DOCS"), 2).id, 5);
    // What version 2 added works on the migrated file.
    sync::database::DatabaseActionLog log(db);
    log.AddFolderEntry(2, roots[0].localPath, roots[0].name);
    EXPECT_EQ(log.Entries().size(), 1);
}

}  // namespace
