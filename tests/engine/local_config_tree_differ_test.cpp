#include <gtest/gtest.h>

#include "LocalConfigTreeDiffer.h"
#include "LogCapture.h"
#include "RetrieverTestDoubles.h"

using namespace sync::syncService;
using sync::config::FileConfiguration;
using sync::config::FileSynchronizationStatus;
using sync::config::FolderConfiguration;
using sync::test::LogCapture;
using ::testing::_;
using ::testing::Return;

namespace {

constexpr qint64 kSyncedSecs = 1714557600;  // whole seconds, as the database keeps them

FileConfiguration ConfigFile() {
    FileConfiguration file;
    file.serverPath = "/Root/a.txt";
    file.localPath = "/home/u/Root/a.txt";
    file.size = 100;
    file.lastModified = QDateTime::fromSecsSinceEpoch(kSyncedSecs).toUTC();
    file.checksum = "abc";
    file.serverFileId = "id-1";
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

using LocalDifferTest = sync::test::MockHashTest;

// The hash is computed exactly when the size is equal and the time differs in whole seconds:
// an unchanged file is never read.
TEST_F(LocalDifferTest, ContentRules) {
    const struct {
        const char* name;
        qint64 size, msecsAfterSync;
        const char* hash;  // nullptr: the hash must not be computed
        bool modified;
    } cases[] = {
        {"SizeChanged", 101, 5000, nullptr, true},
        {"OnlyMillisecondsDiffer", 100, 999, nullptr, false},
        {"TouchedWithoutContentChange", 100, 5000, "abc", false},
        {"RewrittenWithSameSize", 100, 5000, "def", true},
        // An older copy put in place: an earlier time is a change as much as a later one.
        {"ReplacedByOlderCopyOfSameSize", 100, -86400000, "def", true},
        {"HashDiffersOnlyInCase", 100, 5000, "ABC", true},
        {"HashCannotBeComputed", 100, 5000, "", false},
    };
    LocalConfigTreeDiffer differ;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        FileConfiguration config = ConfigFile();
        FileConfiguration local = LocalFile(c.size, c.msecsAfterSync);
        if (c.hash)
            EXPECT_CALL(hash, GetFileHash(local.localPath)).WillOnce(Return(c.hash));
        else
            EXPECT_CALL(hash, GetFileHash(_)).Times(0);
        EXPECT_EQ(differ.IsFileContentModified(config, local), c.modified);
        ::testing::Mock::VerifyAndClearExpectations(&hash);
    }
}

TEST_F(LocalDifferTest, ModifiedRules) {
    // Privileges 27 lack the upload bit.
    const struct {
        const char* name;
        int size, localPrivileges, outOfSync, transferDirection, modified, referencesOnly, warned;
    } cases[] = {
        {"ContentChanged", 101, 31, 1, 2, 1, 0, 0},
        {"ContentChangedWithoutUploadBit", 101, 27, 0, 0, 0, 0, 1},
        {"UnchangedAfterFailedUpload", 100, 31, 1, 2, 1, 1, 0},
        {"UnchangedAfterFailedDownload", 100, 31, 1, 1, 0, 0, 0},
        {"UnchangedInStep", 100, 31, 0, 2, 0, 0, 0},
    };
    LocalConfigTreeDiffer differ;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        LogCapture log;
        FileConfiguration config = ConfigFile();
        config.syncStatus = c.outOfSync ? FileSynchronizationStatus::OutOfSync
                                        : FileSynchronizationStatus::Synchronized;
        config.transferDirection = c.transferDirection;
        config.referencesOnly = 1 - c.referencesOnly;  // the rule must overwrite it
        FileConfiguration local = LocalFile(c.size, 0);
        local.privileges = c.localPrivileges;
        EntryInfoTree configTree, localTree;
        configTree.fileMap.insert("/root/a.txt", config);
        localTree.fileMap.insert("/root/a.txt", local);
        EXPECT_EQ(differ.DetectFileModified(config, local), bool(c.modified));
        EXPECT_EQ(config.referencesOnly, c.referencesOnly);
        EXPECT_EQ(local.referencesOnly, c.referencesOnly);
        EXPECT_EQ(log.Messages(log4cplus::WARN_LOG_LEVEL),
                  c.warned ? QStringList{"Skipping upload of modified file /home/u/Root/a.txt "
                                         "since there is no upload privilege"}
                           : QStringList());
        // The walk over whole trees decides the same, whichever way it compares.
        const EntryInfoTreeChange change = differ.Diff(configTree, localTree, false);
        EXPECT_EQ(change._fileActionMap.value("/root/a.txt", NoChange),
                  c.modified ? Modified : NoChange);
        EXPECT_EQ(change._fileMap.value("/root/a.txt").referencesOnly, c.referencesOnly);
    }
}

TEST_F(LocalDifferTest, NewEntriesFollowNearestAncestorOnServer) {
    // /Root (on server, may upload) / Locked (on server, no upload) / Fresh (not yet there)
    EntryInfoTree config, local;
    auto addFolder = [&config](const QString& path, const char* serverId, int privileges) {
        FolderConfiguration folder;
        folder.serverPath = path;
        folder.serverFolderId = serverId;
        folder.privileges = privileges;
        config.folderMap.insert(path.toLower(), folder);
    };
    addFolder("/Root", "r", 31);
    addFolder("/Root/Locked", "l", 27);
    addFolder("/Root/Locked/Fresh", "", 31);
    addFolder("/Elsewhere", "", 31);

    const struct {
        const char* serverPath;
        const char* refusingAncestor;  // "": accepted
    } cases[] = {
        {"/Root/new.txt", ""},
        {"/Root/Open/new.txt", ""},
        {"/Root/Locked/new.txt", "/Root/Locked"},
        {"/ROOT/LOCKED/Fresh/new.txt", "/ROOT/LOCKED"},
        {"/Elsewhere/Below/new.txt", ""},
        {"loose.txt", ""},
    };
    LocalConfigTreeDiffer differ;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.serverPath);
        LogCapture log;
        FileConfiguration file;
        FolderConfiguration folder;
        file.serverPath = folder.serverPath = c.serverPath;
        file.localPath = folder.localPath = "/disk" + file.serverPath;
        const bool accepted = !*c.refusingAncestor;

        EXPECT_EQ(differ.DetectFileAdded(file, config, local), accepted);
        EXPECT_EQ(differ.DetectFolderAdded(folder, config, local), accepted);
        const QString tail = " since there is no upload privilege in parent or ancestor folder " +
                             QString(c.refusingAncestor);
        EXPECT_EQ(
            log.Messages(log4cplus::WARN_LOG_LEVEL),
            (accepted ? QStringList()
                      : QStringList{"Skipping upload of new file " + file.localPath + tail,
                                    "Skipping creation of new folder " + file.localPath + tail}));
    }
    EXPECT_EQ(config.folderMap.size(), 4) << "a lookup added a folder to the config tree";
}

TEST_F(LocalDifferTest, DeletionsNeedDeleteBit) {
    LogCapture log;
    LocalConfigTreeDiffer differ;
    FileConfiguration file = ConfigFile();
    FolderConfiguration folder;
    folder.localPath = "/home/u/Root/Sub";
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

}  // namespace
