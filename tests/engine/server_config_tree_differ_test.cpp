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

FileConfiguration ServerRecord(const char* hash, const char* version, const char* versionId) {
    FileConfiguration file;
    file.serverPath = QStringLiteral("/Root/a.txt");
    file.localPath = QStringLiteral("/nonexistent/Root/a.txt");
    file.size = 100;
    file.serverFileId = QStringLiteral("id-1");
    if (hash) file.serverChecksum = QString::fromLatin1(hash);
    if (version) file.properties.insert(QStringLiteral("version"), QString::fromLatin1(version));
    if (versionId)
        file.properties.insert(QStringLiteral("versionId"), QString::fromLatin1(versionId));
    return file;
}

}  // namespace

TEST(ServerDifferTest, ContentRules) {
    struct Side {
        const char* hash;
        const char* version;
        const char* versionId;
    };
    struct Case {
        const char* name;
        qint64 serverSize;
        Side config, server;
        bool modified;
    } const cases[] = {
        {"SizeDecidesFirst", 101, {"h", "1", "v"}, {"h", "1", "v"}, true},
        {"EqualHashes", 100, {"h", "1", "v"}, {"h", "2", "w"}, false},
        {"HashesDifferOnlyInCase", 100, {"abc", "1", "v"}, {"ABC", "1", "v"}, true},
        {"OneHashMissingVersionsEqual", 100, {"h", "4", "v"}, {"", "4", "w"}, false},
        {"OneHashMissingVersionsDiffer", 100, {"h", "4", "v"}, {"", "5", "v"}, true},
        {"NotANumberReadsAsZero", 100, {"", "x", "v"}, {"", "0", "w"}, false},
        {"NoVersionsVersionIdsDifferOnlyInCase",
         100,
         {"", kMissing, "v1"},
         {"", kMissing, "V1"},
         false},
        {"OneVersionMissingVersionIdsEqual", 100, {"", "3", "v1"}, {"", kMissing, "v1"}, false},
        {"OneVersionMissingVersionIdsDiffer", 100, {"", "3", "v1"}, {"", kMissing, "v2"}, true},
        {"NegativeVersionHashAgainstVersionId", 100, {"", "-1", "abc"}, {"ABC", "-1", "v"}, false},
    };
    ServerConfigTreeDiffer differ;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        FileConfiguration config =
            ServerRecord(c.config.hash, c.config.version, c.config.versionId);
        FileConfiguration server =
            ServerRecord(c.server.hash, c.server.version, c.server.versionId);
        server.size = c.serverSize;
        EXPECT_EQ(differ.IsFileContentModified(config, server), c.modified);
    }
}

TEST(ServerDifferTest, ModifiedRules) {
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    const QString lockedPath = dir.filePath(QStringLiteral("locked.txt"));
    QFile locked(lockedPath);
    ASSERT_TRUE(locked.open(QIODevice::WriteOnly));
    ASSERT_EQ(::flock(locked.handle(), LOCK_EX | LOCK_NB), 0);  // another writer holds it

    struct Case {
        const char* name;
        qint64 serverSize;
        int serverPrivileges;
        bool localLocked;
        FileSynchronizationStatus status;
        int transferDirection;
        bool modified;
        int referencesOnly;
        const char* warning;
    } const cases[] = {
        {"Changed", 101, 31, false, FileSynchronizationStatus::Synchronized, 0, true, 0, ""},
        {"ChangedWithoutDownloadBit", 101, 29, false, FileSynchronizationStatus::Synchronized, 0,
         false, 0,
         "Skipping download of modified file /Root/a.txt since there is no download privilege"},
        {"ChangedButLocalFileOpenForWriting", 101, 31, true,
         FileSynchronizationStatus::Synchronized, 0, false, 0,
         "Skipping download of modified file /Root/a.txt since local file %1 is currently locked "
         "for write"},
        {"UnchangedAfterFailedDownload", 100, 31, false, FileSynchronizationStatus::OutOfSync, 1,
         true, 1, ""},
        {"UnchangedAfterFailedUpload", 100, 31, false, FileSynchronizationStatus::OutOfSync, 2,
         false, 0, ""},
    };
    ServerConfigTreeDiffer differ;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        sync::test::LogCapture log;
        FileConfiguration config = ServerRecord("h", "1", "v");
        config.syncStatus = c.status;
        config.transferDirection = c.transferDirection;
        config.referencesOnly = 1 - c.referencesOnly;  // the rule must overwrite it
        FileConfiguration server = ServerRecord("h", "1", "v");
        server.size = c.serverSize;
        server.privileges = c.serverPrivileges;
        if (c.localLocked) server.localPath = lockedPath;
        EXPECT_EQ(differ.DetectFileModified(config, server), c.modified);
        EXPECT_EQ(config.referencesOnly, c.referencesOnly);
        EXPECT_EQ(server.referencesOnly, c.referencesOnly);
        const QString warning = QString::fromLatin1(c.warning).replace("%1", lockedPath);
        EXPECT_EQ(log.Messages(log4cplus::WARN_LOG_LEVEL),
                  warning.isEmpty() ? QStringList() : QStringList{warning});
    }
}

TEST(ServerDifferTest, NewFileWithoutDownloadBitIsSilentlySkipped) {
    sync::test::LogCapture log;
    EntryInfoTree config, server;
    FileConfiguration file = ServerRecord("h", "1", "v");
    file.privileges = 29;
    server.fileMap.insert(QStringLiteral("/root/a.txt"), file);
    FolderConfiguration folder;
    folder.serverPath = QStringLiteral("/Root/New");
    server.folderMap.insert(QStringLiteral("/root/new"), folder);

    const EntryInfoTreeChange change = ServerConfigTreeDiffer().Diff(config, server, true);
    EXPECT_TRUE(change.getFileActionMap().isEmpty());
    EXPECT_EQ(change.getFolderActionMap().value(QStringLiteral("/root/new")), Added);
    EXPECT_TRUE(log.Lines().empty());
}

// The server may list paths in another letter case than the database recorded them: still
// the same entries, unchanged.
TEST(ServerDifferTest, ListingInOtherLetterCaseIsTheSameTree) {
    EntryInfoTree config, server;
    FileConfiguration configFile = ServerRecord("h", "1", "v");
    configFile.syncStatus = FileSynchronizationStatus::Synchronized;
    FolderConfiguration configFolder;
    configFolder.serverPath = QStringLiteral("/Root/Docs");
    configFolder.setSyncStatus(sync::config::FolderSynchronizationStatus::Synchronized);
    config.fileMap.insert(configFile.serverPath.toLower(), configFile);
    config.folderMap.insert(configFolder.serverPath.toLower(), configFolder);

    FileConfiguration serverFile = configFile;
    serverFile.serverPath = QStringLiteral("/ROOT/A.TXT");
    FolderConfiguration serverFolder = configFolder;
    serverFolder.serverPath = QStringLiteral("/root/DOCS");
    server.fileMap.insert(serverFile.serverPath.toLower(), serverFile);
    server.folderMap.insert(serverFolder.serverPath.toLower(), serverFolder);

    const EntryInfoTreeChange change = ServerConfigTreeDiffer().Diff(config, server, true);
    EXPECT_TRUE(change.getFileActionMap().isEmpty());
    EXPECT_TRUE(change.getFolderActionMap().isEmpty());
}
