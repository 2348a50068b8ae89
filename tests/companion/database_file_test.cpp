// Opening configuration database files: bad files fail loudly and untouched, old files migrate.

#include <gtest/gtest.h>

#include <unistd.h>
#include <QCryptographicHash>
#include <QFile>
#include <stdexcept>

#include "DatabaseActionLog.h"
#include "DatabaseBackends.h"
#include "DatabaseSchema.h"
#include "TransactionalScope.h"

using namespace sync::config;
using sync::database::ConfigDatabase;
using Mode = ConfigDatabase::Mode;
using sync::test::ExecOnFile;

namespace {

QByteArray Digest(const QString& path) {
    QFile f(path);
    if (!f.open(QIODevice::ReadOnly)) return QByteArray();
    return QCryptographicHash::hash(f.readAll(), QCryptographicHash::Sha256);
}

// The open must fail with the file named in the error, and leave the file as it was.
void ExpectRefused(const QString& path, Mode mode, const char* reason) {
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

// A file as the first release left it.
void WriteVersion1(const QString& path, const char* rows = "") {
    const auto& steps = sync::database::DatabaseSchema::Migrations();
    ASSERT_EQ(steps.front().version, 1);
    ExecOnFile(path, steps.front().sql);
    ExecOnFile(path,
               (QByteArray("PRAGMA application_id = 1398361667; PRAGMA user_version = 1;") + rows)
                   .constData());
}

class DatabaseFileTest : public sync::test::DatabaseTest {
protected:
    QString PathOf(const char* name) const { return dir.filePath(QString::fromLatin1(name)); }
    void AddRoots(int count) {
        sync::database::TransactionalScope scope;
        for (int i = 0; i < count; ++i) {
            FolderConfiguration f;
            f.localPath = QStringLiteral("/data/folder-with-a-long-name-%1").arg(i);
            ASSERT_TRUE(folders->AddFolder(f));
        }
    }
};

TEST_F(DatabaseFileTest, BadFilesAreRefusedNamedAndUntouched) {
    AddRoots(3000);  // enough pages that a truncated copy misses many
    Close();
    const QString garbage = PathOf("garbage.db"), truncated = PathOf("truncated.db"),
                  foreign = PathOf("foreign.db"), newer = PathOf("newer.db"),
                  older = PathOf("older.db"), locked = PathOf("locked.db");
    QFile f(garbage);
    ASSERT_TRUE(f.open(QIODevice::WriteOnly));
    f.write(QByteArray("this is not a database at all\n").repeated(200));
    f.close();
    ASSERT_TRUE(QFile::copy(Path(), truncated) && QFile::copy(Path(), newer) &&
                QFile::copy(Path(), locked));
    ASSERT_TRUE(QFile(truncated).resize(QFileInfo(truncated).size() / 2));
    ExecOnFile(newer, "PRAGMA user_version = 99");
    ExecOnFile(foreign, "CREATE TABLE photos (id INTEGER PRIMARY KEY, name TEXT)");
    WriteVersion1(older);
    ASSERT_TRUE(QFile::setPermissions(locked, QFile::ReadOwner));
    const struct {
        QString path;
        Mode mode;
        const char* reason;
        bool unprivilegedOnly;  // root writes whatever the permissions say
    } rows[] = {
        {garbage, Mode::ReadWrite, "not a readable database", false},
        {truncated, Mode::ReadOnly, "damaged", false},
        {foreign, Mode::ReadWrite, "not a synchronisation database", false},
        {newer, Mode::ReadWrite, "newer release", false},
        // Reading cannot migrate, and this release's queries do not fit the old tables.
        {older, Mode::ReadOnly, "must be updated", false},
        {PathOf("missing.db"), Mode::ReadOnly, "does not exist", false},
        {locked, Mode::ReadWrite, "read-only", true},
    };
    for (const auto& row : rows)
        if (!row.unprivilegedOnly || geteuid() != 0) ExpectRefused(row.path, row.mode, row.reason);
}

// A host tool opens the file read-only while the service may write it: it cannot write itself.
TEST_F(DatabaseFileTest, ReadOnlyConnectionCannotWrite) {
    AddRoots(2);
    sync::database::FolderConfigManager toolFolders(ConfigDatabase::Open(Path(), Mode::ReadOnly));
    FolderConfiguration folder;
    EXPECT_FALSE(toolFolders.AddFolder(folder));
    EXPECT_EQ(toolFolders.GetRootFolders().size(), 2);
}

// New files and files written by the first release both end at the latest schema; the old
// file's records stay.
TEST_F(DatabaseFileTest, FilesAreBroughtToTheLatestVersionInWalMode) {
    const QString created = PathOf("sub/dir/new.db");
    auto fresh = ConfigDatabase::Open(created);
    EXPECT_EQ(fresh->SchemaVersion(), ConfigDatabase::LatestSchemaVersion());
    EXPECT_TRUE(QFile::exists(created + "-wal"));  // only while a connection is open

    const QString path = PathOf("v1.db");
    // Every column, in the order of the version 1 table.
    WriteVersion1(path,
                  "INSERT INTO folders VALUES (5, 2, 5, 5, 'Docs', '', '/Docs', '/home/u/Docs', "
                  "'/home/u/docs', '/Docs', -1, 1600000000000, 1, 0, 0, 1, 2, 'info', 31, '', "
                  "'sf', NULL, NULL, NULL, NULL, NULL, 0, 0);");
    auto old = ConfigDatabase::Open(path);
    EXPECT_EQ(old->SchemaVersion(), ConfigDatabase::LatestSchemaVersion());
    sync::database::FolderConfigManager oldFolders(old);
    const auto roots = oldFolders.GetRootFolders();
    ASSERT_EQ(roots.size(), 1);
    EXPECT_EQ(roots[0].id, 5);
    EXPECT_EQ(roots[0].localPath, QStringLiteral("/home/u/Docs"));
    EXPECT_EQ(sync::test::TimeText(roots[0].lastModified),
              sync::test::TimeText(sync::test::At(1600000000000, Qt::UTC)));
    EXPECT_EQ(roots[0].syncOption, 2);
    EXPECT_EQ(oldFolders.GetFolderByPath(QStringLiteral("/HOME/U/DOCS"), 2).id, 5);
    // What version 2 added works on the migrated file.
    sync::database::DatabaseActionLog log(old);
    log.AddFolderEntry(2, roots[0].localPath, roots[0].name);
    EXPECT_EQ(log.Entries().size(), 1);
}

}  // namespace
