#include <gtest/gtest.h>

#include "DifferMocks.h"
#include "EntryInfoTreeDiffer.h"
#include "LocalConfigTreeDiffer.h"
#include "ServerConfigTreeDiffer.h"

using namespace sync::syncService;
using sync::config::FileConfiguration;
using sync::config::FileSynchronizationStatus;
using sync::config::FolderConfiguration;
using sync::config::FolderSynchronizationStatus;

namespace {

// Answers every rule with one scripted value and records which rules were asked.
class ScriptedDiffer : public EntryInfoTreeDiffer {
public:
    explicit ScriptedDiffer(bool answer) : _answer(answer) {}
    QStringList asked;

    bool DetectFileModified(FileConfiguration&, FileConfiguration&) override {
        return _Ask("Modified");
    }
    bool DetectFileAdded(FileConfiguration&, EntryInfoTree&, EntryInfoTree&) override {
        return _Ask("Added");
    }
    bool DetectFileDeleted(FileConfiguration&) override { return _Ask("Deleted"); }
    bool DetectFolderAdded(FolderConfiguration&, EntryInfoTree&, EntryInfoTree&) override {
        return _Ask("FolderAdded");
    }
    bool DetectFolderDeleted(FolderConfiguration&) override { return _Ask("FolderDeleted"); }

private:
    bool _Ask(const char* rule) {
        asked << QString::fromLatin1(rule);
        return _answer;
    }
    bool _answer;
};

enum Presence { ConfigOnly, OtherOnly, Both };
enum Source { None, FromConfig, FromOther };

struct WalkCase {
    const char* name;
    Presence presence;
    int configStatus;  // FileSynchronizationStatus / FolderSynchronizationStatus value
    bool configHasServerId;
    int otherPrivileges;
    bool checkDownloadPrivilege;
    bool ruleAnswer;
    const char* ruleAsked;  // "" when no rule may be asked
    EntryAction expected;   // NoChange: the change set stays empty
    Source record;
};

const WalkCase kFileCases[] = {
    {"SyncedMissingDeleteAllowed", ConfigOnly, 0, true, 31, false, true, "Deleted", Deleted,
     FromConfig},
    {"SyncedMissingDeleteRefused", ConfigOnly, 0, true, 31, false, false, "Deleted", NoChange,
     None},
    {"NotSynchronizedMissing", ConfigOnly, 3, true, 31, false, true, "", NoChange, None},
    {"NoServerIdMissing", ConfigOnly, 0, false, 31, false, true, "", NoChange, None},
    {"NoServerIdPresentIsOfferedAsAdded", Both, 0, false, 31, false, true, "Added", Added,
     FromOther},
    {"NotSynchronizedPresentRefused", Both, 3, true, 31, false, false, "Added", NoChange, None},
    {"SyncedModified", Both, 0, true, 31, false, true, "Modified", Modified, FromOther},
    {"SyncedUnchanged", Both, 0, true, 31, false, false, "Modified", NoChange, None},
    {"UnchangedWithoutDownloadBitOnServer", Both, 0, true, 29, true, false, "Modified", Deleted,
     FromConfig},
    {"UnchangedWithoutDownloadBitLocally", Both, 0, true, 29, false, false, "Modified", NoChange,
     None},
    {"UnsynchronisedWithoutDownloadBit", Both, 3, false, 29, true, false, "Added", NoChange, None},
    {"NewAccepted", OtherOnly, 0, true, 31, true, true, "Added", Added, FromOther},
    {"NewRefused", OtherOnly, 0, true, 31, true, false, "Added", NoChange, None},
};

const WalkCase kFolderCases[] = {
    {"SyncedMissingDeleteAllowed", ConfigOnly, 0, true, 31, false, true, "FolderDeleted", Deleted,
     FromConfig},
    {"SyncedMissingDeleteRefused", ConfigOnly, 1, true, 31, false, false, "FolderDeleted", NoChange,
     None},
    {"NotSynchronizedMissing", ConfigOnly, 3, true, 31, false, true, "", NoChange, None},
    {"NotSynchronizedPresentCarriesConfigRecord", Both, 3, true, 31, false, true, "FolderAdded",
     Added, FromConfig},
    {"SyncedPresentIsNeverModified", Both, 0, true, 31, true, true, "", NoChange, None},
    {"NewAccepted", OtherOnly, 0, true, 31, false, true, "FolderAdded", Added, FromOther},
    {"NewRefused", OtherOnly, 0, true, 31, false, false, "FolderAdded", NoChange, None},
};

// The config record and the other side's record spell the path differently: one key.
const QString kConfigPath = QStringLiteral("/Root/Docs/Report.txt");
const QString kOtherPath = QStringLiteral("/root/DOCS/report.TXT");
const QString kKey = QStringLiteral("/root/docs/report.txt");

template <typename Record>
Record MakeRecord(const QString& serverPath, const char* origin) {
    Record record;
    record.serverPath = serverPath;
    record.localPath = QString::fromLatin1(origin);
    return record;
}

void ExpectChange(const WalkCase& c, EntryAction action, const QString& localPath) {
    EXPECT_EQ(action, c.expected);
    EXPECT_EQ(localPath, c.record == FromConfig ? "config" : "other");
}

}  // namespace

TEST(TreeDifferWalkTest, FileCases) {
    for (const auto& c : kFileCases) {
        SCOPED_TRACE(c.name);
        EntryInfoTree config, other;
        if (c.presence != OtherOnly) {
            auto file = MakeRecord<FileConfiguration>(kConfigPath, "config");
            file.syncStatus = static_cast<FileSynchronizationStatus>(c.configStatus);
            if (c.configHasServerId) file.serverFileId = QStringLiteral("id-1");
            config.fileMap.insert(kKey, file);
        }
        if (c.presence != ConfigOnly) {
            auto file = MakeRecord<FileConfiguration>(kOtherPath, "other");
            file.privileges = c.otherPrivileges;
            other.fileMap.insert(kKey, file);
        }
        ScriptedDiffer differ(c.ruleAnswer);
        const EntryInfoTreeChange change = differ.Diff(config, other, c.checkDownloadPrivilege);

        EXPECT_EQ(differ.asked.join(","), QString::fromLatin1(c.ruleAsked));
        EXPECT_TRUE(change.getFolderActionMap().isEmpty());
        if (c.expected == NoChange) {
            EXPECT_TRUE(change.getFileActionMap().isEmpty());
            EXPECT_TRUE(change.getFileMap().isEmpty());
        } else {
            ASSERT_EQ(change.getFileActionMap().keys(), QList<QString>{kKey});
            ExpectChange(c, change.getFileActionMap().value(kKey),
                         change.getFileMap().value(kKey).localPath);
        }
    }
}

TEST(TreeDifferWalkTest, FolderCases) {
    for (const auto& c : kFolderCases) {
        SCOPED_TRACE(c.name);
        EntryInfoTree config, other;
        if (c.presence != OtherOnly) {
            auto folder = MakeRecord<FolderConfiguration>(kConfigPath, "config");
            folder.setSyncStatus(static_cast<FolderSynchronizationStatus>(c.configStatus));
            config.folderMap.insert(kKey, folder);
        }
        if (c.presence != ConfigOnly)
            other.folderMap.insert(kKey, MakeRecord<FolderConfiguration>(kOtherPath, "other"));
        ScriptedDiffer differ(c.ruleAnswer);
        const EntryInfoTreeChange change = differ.Diff(config, other, c.checkDownloadPrivilege);

        EXPECT_EQ(differ.asked.join(","), QString::fromLatin1(c.ruleAsked));
        EXPECT_TRUE(change.getFileActionMap().isEmpty());
        if (c.expected == NoChange) {
            EXPECT_TRUE(change.getFolderActionMap().isEmpty());
            EXPECT_TRUE(change.getFolderMap().isEmpty());
        } else {
            ASSERT_EQ(change.getFolderActionMap().keys(), QList<QString>{kKey});
            ExpectChange(c, change.getFolderActionMap().value(kKey),
                         change.getFolderMap().value(kKey).localPath);
        }
    }
}

// A file new on both sides that the account may not download used to come out as Deleted on
// the server side next to Added on the local side: a pair no resolver takes, so the root
// folder failed in every cycle.
class UnsynchronisedFileTest : public sync::test::MockHashTest {};

TEST_F(UnsynchronisedFileTest, NewOnBothSidesWithoutDownloadBitIsNotDeletedOnServer) {
    auto configFile = MakeRecord<FileConfiguration>(kConfigPath, "config");
    configFile.syncStatus = FileSynchronizationStatus::NotSynchronized;
    EntryInfoTree config, local, server;
    config.fileMap.insert(kKey, configFile);
    local.fileMap.insert(kKey, MakeRecord<FileConfiguration>(kConfigPath, "local"));
    auto serverFile = MakeRecord<FileConfiguration>(kConfigPath, "server");
    serverFile.privileges = sync::config::PrivilegeAll & ~sync::config::PrivilegeDownload;
    server.fileMap.insert(kKey, serverFile);

    const auto serverChange = ServerConfigTreeDiffer().Diff(config, server, true);
    const auto localChange = LocalConfigTreeDiffer().Diff(config, local, false);

    EXPECT_TRUE(serverChange.getFileActionMap().isEmpty());
    EXPECT_EQ(localChange.getFileActionMap().value(kKey, NoChange), Added);
}
