#include <gtest/gtest.h>
#include <sys/file.h>
#include <QFile>
#include <QTemporaryDir>

#include "LogCapture.h"
#include "ServerConfigTreeDiffer.h"

using namespace sync::syncService;
using sync::config::FileConfiguration;
using sync::config::FileSynchronizationStatus;
using sync::config::FolderConfiguration;

namespace {

const char* const kMissing = nullptr;

struct Side {
    const char *hash, *version, *versionId;
};

FileConfiguration ServerRecord(const Side& side = {"h", "1", "v"}) {
    FileConfiguration file;
    file.serverPath = "/Root/a.txt";
    file.localPath = "/nonexistent/Root/a.txt";
    file.size = 100;
    file.serverFileId = "id-1";
    file.serverChecksum = side.hash;
    if (side.version) file.properties.insert("version", side.version);
    if (side.versionId) file.properties.insert("versionId", side.versionId);
    return file;
}

}  // namespace

TEST(ServerDifferTest, ContentRules) {
    const struct {
        const char* name;
        qint64 serverSize;
        Side config, server;
        bool modified;
    } cases[] = {
        {"SizeDecidesFirst", 101, {"h", "1", "v"}, {"h", "1", "v"}, true},
        {"EqualHashes", 100, {"h", "1", "v"}, {"h", "2", "w"}, false},
        {"HashesDifferOnlyInCase", 100, {"abc", "1", "v"}, {"ABC", "1", "v"}, true},
        {"OneHashMissingVersionsEqual", 100, {"h", "4", "v"}, {"", "4", "w"}, false},
        {"OneHashMissingVersionsDiffer", 100, {"h", "4", "v"}, {"", "5", "v"}, true},
        {"NotANumberReadsAsZero", 100, {"", "x", "v"}, {"", "0", "w"}, false},
        {"NoVersionsIdsDifferInCase", 100, {"", kMissing, "v1"}, {"", kMissing, "V1"}, false},
        {"OneVersionMissingVersionIdsEqual", 100, {"", "3", "v1"}, {"", kMissing, "v1"}, false},
        {"OneVersionMissingVersionIdsDiffer", 100, {"", "3", "v1"}, {"", kMissing, "v2"}, true},
        {"NegativeVersionHashAgainstVersionId", 100, {"", "-1", "abc"}, {"ABC", "-1", "v"}, false},
    };
    ServerConfigTreeDiffer differ;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        FileConfiguration config = ServerRecord(c.config);
        FileConfiguration server = ServerRecord(c.server);
        server.size = c.serverSize;
        EXPECT_EQ(differ.IsFileContentModified(config, server), c.modified);
    }
}

TEST(ServerDifferTest, ModifiedRules) {
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    const QString lockedPath = dir.filePath("locked.txt");
    QFile locked(lockedPath);
    ASSERT_TRUE(locked.open(QIODevice::WriteOnly));
    ASSERT_EQ(::flock(locked.handle(), LOCK_EX | LOCK_NB), 0);  // another writer holds it

    // Privileges 29 lack the download bit.
    const struct {
        const char* name;
        int serverSize, serverPrivileges, localLocked, outOfSync, transferDirection, modified,
            referencesOnly;
        const char* warning;
    } cases[] = {
        {"Changed", 101, 31, 0, 0, 0, 1, 0, ""},
        {"ChangedWithoutDownloadBit", 101, 29, 0, 0, 0, 0, 0,
         "Skipping download of modified file /Root/a.txt since there is no download privilege"},
        {"ChangedButLocalFileOpenForWriting", 101, 31, 1, 0, 0, 0, 0,
         "Skipping download of modified file /Root/a.txt since local file %1 is currently locked "
         "for write"},
        {"UnchangedAfterFailedDownload", 100, 31, 0, 1, 1, 1, 1, ""},
        {"UnchangedAfterFailedUpload", 100, 31, 0, 1, 2, 0, 0, ""},
    };
    ServerConfigTreeDiffer differ;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        sync::test::LogCapture log;
        FileConfiguration config = ServerRecord();
        config.syncStatus = c.outOfSync ? FileSynchronizationStatus::OutOfSync
                                        : FileSynchronizationStatus::Synchronized;
        config.transferDirection = c.transferDirection;
        config.referencesOnly = 1 - c.referencesOnly;  // the rule must overwrite it
        FileConfiguration server = ServerRecord();
        server.size = c.serverSize;
        server.privileges = c.serverPrivileges;
        if (c.localLocked) server.localPath = lockedPath;
        EntryInfoTree configTree, serverTree;
        configTree.fileMap.insert("/root/a.txt", config);
        serverTree.fileMap.insert("/root/a.txt", server);
        EXPECT_EQ(differ.DetectFileModified(config, server), bool(c.modified));
        EXPECT_EQ(config.referencesOnly, c.referencesOnly);
        EXPECT_EQ(server.referencesOnly, c.referencesOnly);
        const QString warning = QString::fromLatin1(c.warning).replace("%1", lockedPath);
        EXPECT_EQ(log.Messages(log4cplus::WARN_LOG_LEVEL),
                  warning.isEmpty() ? QStringList() : QStringList{warning});
        // The walk over whole trees decides the same, whichever way it compares.
        const EntryInfoTreeChange change = differ.Diff(configTree, serverTree, false);
        EXPECT_EQ(change._fileActionMap.value("/root/a.txt", NoChange),
                  c.modified ? Modified : NoChange);
        EXPECT_EQ(change._fileMap.value("/root/a.txt").referencesOnly, c.referencesOnly);
    }
}

// New server folders are never held back; new files need the download bit, silently.
TEST(ServerDifferTest, NewFileWithoutDownloadBitIsSilentlySkipped) {
    sync::test::LogCapture log;
    EntryInfoTree config, server;
    FileConfiguration file = ServerRecord();
    file.privileges = 29;
    server.fileMap.insert("/root/a.txt", file);
    FolderConfiguration folder;
    folder.serverPath = "/Root/New";
    server.folderMap.insert("/root/new", folder);

    const EntryInfoTreeChange change = ServerConfigTreeDiffer().Diff(config, server, true);
    EXPECT_TRUE(change.getFileActionMap().isEmpty());
    EXPECT_EQ(change.getFolderActionMap().value("/root/new"), Added);
    EXPECT_TRUE(log.Lines().empty());
}
