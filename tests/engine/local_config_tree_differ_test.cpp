#include <gtest/gtest.h>

#include "DifferMocks.h"
#include "LocalConfigTreeDiffer.h"
#include "LogCapture.h"

using namespace sync::syncService;
using sync::config::FileConfiguration;
using sync::config::FileSynchronizationStatus;
using sync::config::FolderConfiguration;
using ::testing::_;
using ::testing::Return;

namespace {

constexpr qint64 kSyncedSecs = 1714557600;  // whole seconds, as the database keeps them
const QString kNoHash;                      // the mock is not asked

FileConfiguration ConfigFile() {
    FileConfiguration file;
    file.serverPath = QStringLiteral("/Root/a.txt");
    file.localPath = QStringLiteral("/home/u/Root/a.txt");
    file.size = 100;
    file.lastModified = QDateTime::fromSecsSinceEpoch(kSyncedSecs).toUTC();
    file.checksum = QStringLiteral("abc");
    file.serverFileId = QStringLiteral("id-1");
    file.syncStatus = FileSynchronizationStatus::Synchronized;
    return file;
}

// The disk reports local time, with milliseconds.
FileConfiguration LocalFile(qint64 size, qint64 msecsAfterSync) {
    FileConfiguration file = ConfigFile();
    file.checksum.clear();
    file.size = size;
    file.lastModified = QDateTime::fromMSecsSinceEpoch(kSyncedSecs * 1000 + msecsAfterSync);
    return file;
}

class LocalDifferTest : public sync::test::MockHashTest {};

}  // namespace

TEST_F(LocalDifferTest, ContentRules) {
    struct Case {
        const char* name;
        qint64 size;
        qint64 msecsAfterSync;
        bool hashAsked;
        QString hash;
        bool modified;
    } const cases[] = {
        {"SizeChanged", 101, 5000, false, kNoHash, true},
        {"Unchanged", 100, 0, false, kNoHash, false},
        {"OnlyMillisecondsDiffer", 100, 999, false, kNoHash, false},
        {"TouchedWithoutContentChange", 100, 5000, true, QStringLiteral("abc"), false},
        {"RewrittenWithSameSize", 100, 5000, true, QStringLiteral("def"), true},
        {"HashDiffersOnlyInCase", 100, 5000, true, QStringLiteral("ABC"), true},
        {"HashCannotBeComputed", 100, 5000, true, QString(), false},
    };
    LocalConfigTreeDiffer differ;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        FileConfiguration config = ConfigFile();
        FileConfiguration local = LocalFile(c.size, c.msecsAfterSync);
        if (c.hashAsked)
            EXPECT_CALL(*hash, GetFileHash(local.localPath)).WillOnce(Return(c.hash));
        else
            EXPECT_CALL(*hash, GetFileHash(_)).Times(0);
        EXPECT_EQ(differ.IsFileContentModified(config, local), c.modified);
        ::testing::Mock::VerifyAndClearExpectations(hash.get());
    }
}

TEST_F(LocalDifferTest, ModifiedRules) {
    struct Case {
        const char* name;
        qint64 size;
        int localPrivileges;
        FileSynchronizationStatus status;
        int transferDirection;
        bool modified;
        int referencesOnly;
        bool warned;
    } const cases[] = {
        {"ContentChanged", 101, 31, FileSynchronizationStatus::OutOfSync, 2, true, 0, false},
        {"ContentChangedWithoutUploadBit", 101, 27, FileSynchronizationStatus::Synchronized, 0,
         false, 0, true},
        {"UnchangedAfterFailedUpload", 100, 31, FileSynchronizationStatus::OutOfSync, 2, true, 1,
         false},
        {"UnchangedAfterFailedDownload", 100, 31, FileSynchronizationStatus::OutOfSync, 1, false, 0,
         false},
        {"UnchangedInStep", 100, 31, FileSynchronizationStatus::Synchronized, 2, false, 0, false},
    };
    LocalConfigTreeDiffer differ;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        sync::test::LogCapture log;
        FileConfiguration config = ConfigFile();
        config.syncStatus = c.status;
        config.transferDirection = c.transferDirection;
        config.referencesOnly = 1 - c.referencesOnly;  // the rule must overwrite it
        FileConfiguration local = LocalFile(c.size, 0);
        local.privileges = c.localPrivileges;
        EXPECT_EQ(differ.DetectFileModified(config, local), c.modified);
        EXPECT_EQ(config.referencesOnly, c.referencesOnly);
        EXPECT_EQ(local.referencesOnly, c.referencesOnly);
        EXPECT_EQ(log.Count(log4cplus::WARN_LOG_LEVEL,
                            "Skipping upload of modified file /home/u/Root/a.txt since there is "
                            "no upload privilege"),
                  c.warned ? 1 : 0);
    }
}

TEST_F(LocalDifferTest, NewEntriesFollowNearestAncestorOnServer) {
    // /Root (on server, may upload) / Locked (on server, no upload) / Fresh (not yet there)
    EntryInfoTree config, local;
    auto addFolder = [&config](const QString& path, const char* serverId, int privileges) {
        FolderConfiguration folder;
        folder.serverPath = path;
        folder.serverFolderId = QString::fromLatin1(serverId);
        folder.privileges = privileges;
        config.folderMap.insert(path.toLower(), folder);
    };
    addFolder(QStringLiteral("/Root"), "r", 31);
    addFolder(QStringLiteral("/Root/Locked"), "l", 27);
    addFolder(QStringLiteral("/Root/Locked/Fresh"), "", 31);
    addFolder(QStringLiteral("/Elsewhere"), "", 31);

    struct Case {
        const char* serverPath;
        bool accepted;
        const char* refusingAncestor;
    } const cases[] = {
        {"/Root/new.txt", true, ""},
        {"/Root/Open/new.txt", true, ""},
        {"/Root/Locked/new.txt", false, "/Root/Locked"},
        {"/ROOT/LOCKED/Fresh/new.txt", false, "/ROOT/LOCKED"},
        {"/Elsewhere/Below/new.txt", true, ""},
        {"loose.txt", true, ""},
    };
    LocalConfigTreeDiffer differ;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.serverPath);
        sync::test::LogCapture log;
        FileConfiguration file;
        file.serverPath = QString::fromLatin1(c.serverPath);
        file.localPath = QStringLiteral("/disk") + file.serverPath;
        FolderConfiguration folder;
        folder.serverPath = file.serverPath;
        folder.localPath = file.localPath;

        EXPECT_EQ(differ.DetectFileAdded(file, config, local), c.accepted);
        EXPECT_EQ(differ.DetectFolderAdded(folder, config, local), c.accepted);
        const QStringList expected =
            c.accepted ? QStringList()
                       : QStringList{QStringLiteral("Skipping upload of new file %1 since there is "
                                                    "no upload privilege in parent or ancestor "
                                                    "folder %2")
                                         .arg(file.localPath, c.refusingAncestor),
                                     QStringLiteral("Skipping creation of new folder %1 since "
                                                    "there is no upload privilege in parent or "
                                                    "ancestor folder %2")
                                         .arg(file.localPath, c.refusingAncestor)};
        EXPECT_EQ(log.Messages(log4cplus::WARN_LOG_LEVEL), expected);
    }
    EXPECT_EQ(config.folderMap.size(), 4) << "a lookup added a folder to the config tree";
}

TEST_F(LocalDifferTest, DeletionsNeedDeleteBit) {
    sync::test::LogCapture log;
    LocalConfigTreeDiffer differ;
    FileConfiguration file = ConfigFile();
    FolderConfiguration folder;
    folder.localPath = QStringLiteral("/home/u/Root/Sub");
    EXPECT_TRUE(differ.DetectFileDeleted(file));
    EXPECT_TRUE(differ.DetectFolderDeleted(folder));
    file.privileges = folder.privileges = 23;
    EXPECT_FALSE(differ.DetectFileDeleted(file));
    EXPECT_FALSE(differ.DetectFolderDeleted(folder));
    EXPECT_EQ(log.Messages(log4cplus::WARN_LOG_LEVEL),
              (QStringList{"Skipping deletion of file /home/u/Root/a.txt in server since there is "
                           "no delete privilege",
                           "Skipping deletion of folder /home/u/Root/Sub in server since there is "
                           "no delete privilege"}));
}

// Diffing a whole unchanged tree must not read a single file.
TEST_F(LocalDifferTest, UnchangedTreeIsNeverHashed) {
    EXPECT_CALL(*hash, GetFileHash(_)).Times(0);
    EntryInfoTree config, local;
    for (int i = 0; i < 50; ++i) {
        FileConfiguration configFile = ConfigFile();
        configFile.serverPath = QStringLiteral("/Root/f%1.txt").arg(i);
        config.fileMap.insert(configFile.serverPath.toLower(), configFile);
        FileConfiguration localFile = LocalFile(100, i * 17 % 1000);
        localFile.serverPath = configFile.serverPath;
        local.fileMap.insert(localFile.serverPath.toLower(), localFile);
    }
    const EntryInfoTreeChange change = LocalConfigTreeDiffer().Diff(config, local, false);
    EXPECT_TRUE(change.getFileActionMap().isEmpty());
}
