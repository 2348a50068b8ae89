#include <gtest/gtest.h>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>
#include <memory>

#include "DatabaseException.h"
#include "FakeConfigStore.h"
#include "FakeCore.h"
#include "QFileWrapper.h"
#include "SyncCodes.h"
#include "SyncConsts.h"
#include "SynchronizationPreProcessor.h"
#include "TransactionalScope.h"

QT_BEGIN_NAMESPACE
inline void PrintTo(const QString& s, std::ostream* os) {
    *os << '"' << s.toStdString() << '"';
}
QT_END_NAMESPACE

using sync::config::FileConfiguration;
using sync::config::FolderConfiguration;
using sync::syncService::EntryInfoTree;
using FileStatus = sync::config::FileSynchronizationStatus;
using Status = sync::config::FolderSynchronizationStatus;

namespace {

const QDateTime STALE_TIME = QDateTime::fromSecsSinceEpoch(978307200, Qt::UTC);
const QDateTime FILE_TIME = QDateTime::fromSecsSinceEpoch(1700000000, Qt::UTC);
const qint64 STALE_SIZE = 999;
const int Down = sync::config::TransferDownload, Up = sync::config::TransferUpload,
          Del = sync::config::TransferLocalDeletion;

// A root folder on disk (upper-case letters in its path, as users' roots have), its records in
// the in-memory database, and the trees the runner hands over: the local tree holds the root
// record and the disk's record of every recorded file that is there.
struct World {
    World() {
        sync::database::TransactionalScope::SetBackend(store->TransactionBackend());
        QDir().mkpath(rootPath);
        root.localPath = rootPath;
        root.serverPath = "/My Root";
        store->AddFolder(root);
        local->folderMap.insert(EntryInfoTree::KeyOf(root.serverPath), root);
    }
    ~World() { sync::database::TransactionalScope::SetBackend(nullptr); }

    QString Path(const QString& name) const { return rootPath + "/" + name; }
    QString PartnerOf(const QString& name) const {
        return sync::core::QFileWrapper(Path(name)).GetTemporaryFile(rootPath);
    }
    QString TempFolder() const { return Path(sync::core::consts::TEMP_FOLDER_NAME); }

    static void Write(const QString& path, const QByteArray& content, int secondsOld = 0) {
        QDir().mkpath(QFileInfo(path).absolutePath());
        QFile f(path);
        ASSERT_TRUE(f.open(QIODevice::WriteOnly));
        f.write(content);
        f.flush();  // a flush after setFileTime would set the time again
        f.setFileTime(FILE_TIME.addSecs(-secondsOld), QFileDevice::FileModificationTime);
    }

    int AddRecord(const QString& name, FileStatus status, int direction, const QString& checksum) {
        FileConfiguration f;
        f.rootId = f.folderId = root.id;
        f.localPath = Path(name);
        f.serverPath = "/My Root/" + name;
        f.syncStatus = status;
        f.transferDirection = direction;
        f.checksum = checksum;
        f.size = STALE_SIZE;
        f.lastModified = STALE_TIME;
        store->AddFile(f);
        config->fileMap.insert(EntryInfoTree::KeyOf(f.serverPath), f);
        return f.id;
    }

    void Run() {
        for (const FileConfiguration& c : config->fileMap) {
            const QFileInfo info(c.localPath);
            if (!info.exists()) continue;
            FileConfiguration f;
            f.localPath = c.localPath;
            f.serverPath = c.serverPath;
            f.size = info.size();
            f.lastModified = info.lastModified().toUTC();
            local->fileMap.insert(EntryInfoTree::KeyOf(f.serverPath), f);
        }
        pre.PreProcess(local, config, std::make_shared<EntryInfoTree>());
    }

    QTemporaryDir tmp;
    QString rootPath = tmp.path() + "/My Root";
    std::shared_ptr<sync::test::FakeConfigStore> store =
        std::make_shared<sync::test::FakeConfigStore>();
    std::shared_ptr<sync::test::FakeCore> core = std::make_shared<sync::test::FakeCore>();
    sync::syncService::SynchronizationPreProcessor pre{core, store, store};
    FolderConfiguration root;
    std::shared_ptr<EntryInfoTree> local = std::make_shared<EntryInfoTree>();
    std::shared_ptr<EntryInfoTree> config = std::make_shared<EntryInfoTree>();
};

QByteArray Read(const QString& path) {
    QFile f(path);
    return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray("<missing>");
}

TEST(PreProcessorTest, InterruptedTransfersAreSettledAndOnlyTemporaryFilesRemoved) {
    const FileStatus Busy = FileStatus::Synchronizing, Out = FileStatus::OutOfSync;
    const char* HASH = "#";  // the hash of the user's file
    struct Row {
        const char* name;
        FileStatus status;
        int direction;
        const char* checksum;
        const char* file;     // the user's file (nullptr: none)
        const char* partner;  // its temporary partner (nullptr: none)
        int partnerAge;       // seconds the partner is older than the file
        bool kept;            // the record stays in the database and the config tree
        bool takesFileState;  // with the file's size and time
        const char* checksumAfter;
        const char* fileName = "docs/a.txt";
    };
    const Row rows[] = {
        {"complete, same time", Busy, Down, "stored", "hello", "hello", 0, true, true, "stored"},
        {"complete, 1 s apart", Busy, Down, "stored", "hello", "hello", 1, true, true, "stored"},
        {"complete, no checksum", Busy, Down, "", "hello", "hello", 0, true, true, HASH},
        {"same content, hours apart", Busy, Down, "old", "hello", "hello", 7200, true, true, HASH},
        {"same size, other content", Busy, Down, "old", "hello", "jelly", 7200, true, false, "old"},
        {"other size", Busy, Down, "old", "hello", "hell", 0, true, false, "old"},
        {"no partner", Busy, Down, "old", "hello", nullptr, 0, true, false, "old"},
        {"file gone", Busy, Down, "old", nullptr, "hello", 0, false, false, ""},
        {"deletion done", Busy, Del, "old", nullptr, nullptr, 0, false, false, ""},
        {"deletion not done", Busy, Del, "old", "hello", nullptr, 0, true, false, "old"},
        {"upload", Busy, Up, "old", "hello", "hello", 0, true, false, "old"},
        {"failed, no checksum", Out, Down, "", "hello", "hello", 0, false, false, ""},
        {"failed, checksum", Out, Down, "old", "hello", nullptr, 0, true, false, "old"},
        {"user file named .TMP", Out, Down, "", "mine", nullptr, 0, false, false, "", "r.TMP"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        World w;
        const QString file = w.Path(row.fileName), partner = w.PartnerOf(row.fileName);
        if (row.file) World::Write(file, row.file);
        if (row.partner) World::Write(partner, row.partner, row.partnerAge);
        const int id = w.AddRecord(row.fileName, row.status, row.direction, row.checksum);
        const QFileInfo before(file);

        w.Run();

        const FileConfiguration stored = w.store->GetFileById(id);
        ASSERT_EQ(stored.id != -1, row.kept);
        ASSERT_EQ(w.config->fileMap.size(), row.kept ? 1 : 0);
        if (row.kept) {
            EXPECT_EQ(stored.size, row.takesFileState ? before.size() : STALE_SIZE);
            EXPECT_EQ(stored.lastModified,
                      row.takesFileState ? before.lastModified().toUTC() : STALE_TIME);
            const QString hash = w.core->CreateCryptographicHash()->GetFileHash(file);
            EXPECT_EQ(stored.checksum, row.checksumAfter == HASH ? hash : row.checksumAfter);
            EXPECT_TRUE(w.config->fileMap.value(stored.serverPath.toLower()) == stored);
        }
        if (row.file) {
            EXPECT_EQ(Read(file), QByteArray(row.file));
        }
        EXPECT_EQ(QFileInfo::exists(partner), row.partner && row.direction == Up);
        EXPECT_EQ(QFileInfo::exists(w.TempFolder()), row.partner && row.direction == Up);
    }
}

TEST(PreProcessorTest, FolderRecordsLeftByAnInterruptedRunAreSettled) {
    struct Row {
        const char* name;
        Status status;
        int serverCreationFailed;
        bool kept;
        Status after;
    };
    World w;
    // The root's record is the user's setting of the root: repaired, never deleted.
    w.root.setSyncStatus(Status::OutOfSync);
    w.root.serverCreationFailed = 1;
    w.store->UpdateFolder(w.root);
    std::vector<std::pair<FolderConfiguration, Row>> records{
        {w.root, {"root", Status::OutOfSync, 1, true, Status::Synchronized}}};
    for (const Row& row : std::initializer_list<Row>{
             {"synchronizing", Status::Synchronizing, 0, true, Status::Synchronized},
             {"synchronizing, marked", Status::Synchronizing, 1, true, Status::Synchronized},
             {"out of sync", Status::OutOfSync, 0, true, Status::Synchronized},
             {"out of sync, marked", Status::OutOfSync, 1, false, {}},
             {"not synchronized", Status::NotSynchronized, 1, true, Status::NotSynchronized},
             {"synchronized", Status::Synchronized, 1, true, Status::Synchronized},
         }) {
        FolderConfiguration f;
        f.rootId = f.parentId = w.root.id;
        f.serverPath = QString("/My Root/") + row.name;
        f.setSyncStatus(row.status);
        f.serverCreationFailed = row.serverCreationFailed;
        w.store->AddFolder(f);
        records.emplace_back(f, row);
    }
    for (const auto& [f, row] : records)
        w.config->folderMap.insert(EntryInfoTree::KeyOf(f.serverPath), f);

    w.Run();

    for (const auto& [f, row] : records) {
        SCOPED_TRACE(row.name);
        const FolderConfiguration stored = w.store->GetFolderById(f.id);
        ASSERT_EQ(stored.id != -1, row.kept);
        EXPECT_EQ(w.config->folderMap.contains(EntryInfoTree::KeyOf(f.serverPath)), row.kept);
        if (row.kept) {
            EXPECT_EQ(stored.getSyncStatus(), row.after);
            EXPECT_TRUE(w.config->folderMap.value(EntryInfoTree::KeyOf(f.serverPath)) == stored);
        }
    }
}

TEST(PreProcessorTest, TemporaryFoldersLoseTransferLeftoversAndGoWhenEmpty) {
    struct Row {
        const char* name;
        bool interrupted;  // a download left its partner behind
        QStringList leftovers, kept;
    };
    const Row rows[] = {
        {"leftovers only", true, {"x.TMP", "y.DWN", ".z.TMP"}, {}},
        {"other names",
         true,
         {"x.TMP", "y.DWN", "n.txt", "l.tmp", "l.dwn"},
         {"l.dwn", "l.tmp", "n.txt"}},
        {"nothing interrupted", false, {"x.TMP"}, {"x.TMP"}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        World w;
        for (const QString& name : row.leftovers) World::Write(w.TempFolder() + "/" + name, "t");
        const QStringList userFiles{w.Path("keep.TMP"), w.Path("sub/keep.DWN")};
        for (const QString& path : userFiles) World::Write(path, "mine");
        World::Write(w.Path("a.txt"), "hello");
        World::Write(w.PartnerOf("a.txt"), "hel");
        w.AddRecord("a.txt", row.interrupted ? FileStatus::Synchronizing : FileStatus::Synchronized,
                    Down, "c");

        w.Run();

        QStringList left = QDir(w.TempFolder()).entryList(QDir::Files | QDir::Hidden);
        if (!row.interrupted) left.removeOne(QFileInfo(w.PartnerOf("a.txt")).fileName());
        left.sort();
        EXPECT_EQ(left, row.kept);
        EXPECT_EQ(QFileInfo::exists(w.TempFolder()), !row.kept.isEmpty());
        for (const QString& path : userFiles) EXPECT_EQ(Read(path), QByteArray("mine"));
    }
}

TEST(PreProcessorTest, FailedFileBatchRemovesNoRecord) {
    World w;
    World::Write(w.Path("a.txt"), "hello");
    World::Write(w.PartnerOf("a.txt"), "hello");
    w.AddRecord("a.txt", FileStatus::Synchronizing, Down, "c");
    const int done = w.AddRecord("gone.txt", FileStatus::Synchronizing, Del, "c");
    w.store->FailOn("UpdateFile");

    EXPECT_THROW(w.Run(), sync::database::DatabaseException);

    EXPECT_EQ(w.store->GetFileById(done).id, done);
    EXPECT_TRUE(w.config->fileMap.contains("/my root/gone.txt"));
}

}  // namespace
