#include <gtest/gtest.h>

#include "EntryInfoTreeDiffer.h"

using namespace sync::syncService;
using sync::config::FileConfiguration;
using sync::config::FileSynchronizationStatus;
using sync::config::FolderConfiguration;
using sync::config::FolderSynchronizationStatus;

namespace {

// Answers every rule with one scripted value and records which rules were asked.
class ScriptedDiffer : public EntryInfoTreeDiffer {
public:
    explicit ScriptedDiffer(bool answer) : answer(answer) {}
    bool DetectFileModified(FileConfiguration&, FileConfiguration&) override {
        return Ask("Modified");
    }
    bool DetectFileAdded(FileConfiguration&, EntryInfoTree&, EntryInfoTree&) override {
        return Ask("Added");
    }
    bool DetectFileDeleted(FileConfiguration&) override { return Ask("Deleted"); }
    bool DetectFolderAdded(FolderConfiguration&, EntryInfoTree&, EntryInfoTree&) override {
        return Ask("FolderAdded");
    }
    bool DetectFolderDeleted(FolderConfiguration&) override { return Ask("FolderDeleted"); }
    bool Ask(const char* rule) {
        asked << rule;
        return answer;
    }
    bool answer;
    QStringList asked;
};

// The config record and the other side's record spell the path differently: one key.
const QString kConfigPath = "/Root/Docs/Report.txt";
const QString kOtherPath = "/root/DOCS/report.TXT";
const QString kKey = "/root/docs/report.txt";

// The change set as "<file|folder> <key> <action> <local path of the record carried>" lines.
QStringList Describe(const EntryInfoTreeChange& change) {
    static const char* const kActions[] = {"NoChange", "Added", "Deleted", "Modified"};
    QStringList lines;
    auto add = [&lines](const char* kind, const auto& actions, const auto& records) {
        for (auto it = actions.cbegin(); it != actions.cend(); ++it)
            lines << QString("%1 %2 %3 %4")
                         .arg(kind, it.key(), kActions[*it], records.value(it.key()).localPath);
    };
    add("file", change.getFileActionMap(), change.getFileMap());
    add("folder", change.getFolderActionMap(), change.getFolderMap());
    return lines;
}

template <typename Record>
Record Make(const QString& serverPath, const char* localPath) {
    Record record;
    record.serverPath = serverPath;
    record.localPath = localPath;
    return record;
}

enum Presence { ConfigOnly, OtherOnly, Both };

// Config status 3 is NotSynchronized; privileges 29 lack the download bit.
TEST(TreeDifferWalkTest, AsksTheRightRuleAndCarriesTheRightRecord) {
    const struct {
        const char* name;
        bool folder;
        Presence presence;
        int configStatus, configHasServerId, otherPrivileges, checkDownload, ruleAnswer;
        const char* ruleAsked;  // "" when no rule may be asked
        const char* expected;   // "<action> <config|other>"; "" when the change set stays empty
    } cases[] = {
        {"FileSyncedMissing", false, ConfigOnly, 0, 1, 31, 0, 1, "Deleted", "Deleted config"},
        {"FileSyncedMissingDeleteRefused", false, ConfigOnly, 0, 1, 31, 0, 0, "Deleted", ""},
        {"FileNotSynchronizedMissing", false, ConfigOnly, 3, 1, 31, 0, 1, "", ""},
        {"FileNoServerIdPresentIsOfferedAsAdded", false, Both, 0, 0, 31, 0, 1, "Added",
         "Added other"},
        {"FileNotSynchronizedPresentRefused", false, Both, 3, 1, 31, 0, 0, "Added", ""},
        {"FileSyncedModified", false, Both, 0, 1, 31, 0, 1, "Modified", "Modified other"},
        {"FileUnchangedNoDownloadBitOnServer", false, Both, 0, 1, 29, 1, 0, "Modified",
         "Deleted config"},
        {"FileUnchangedNoDownloadBitLocally", false, Both, 0, 1, 29, 0, 0, "Modified", ""},
        // Deleted here next to Added on the other side would be a pair no resolver takes.
        {"FileNeverSynchronisedWithoutDownloadBitIsNotDeleted", false, Both, 3, 0, 29, 1, 0,
         "Added", ""},
        {"FileNewAccepted", false, OtherOnly, 0, 1, 31, 1, 1, "Added", "Added other"},
        {"FileNewRefused", false, OtherOnly, 0, 1, 31, 1, 0, "Added", ""},
        {"FolderSyncedMissing", true, ConfigOnly, 0, 1, 31, 0, 1, "FolderDeleted",
         "Deleted config"},
        {"FolderSynchronizingMissingDeleteRefused", true, ConfigOnly, 1, 1, 31, 0, 0,
         "FolderDeleted", ""},
        {"FolderNotSynchronizedMissing", true, ConfigOnly, 3, 1, 31, 0, 1, "", ""},
        {"FolderNotSynchronizedPresentCarriesConfigRecord", true, Both, 3, 1, 31, 0, 1,
         "FolderAdded", "Added config"},
        {"FolderSyncedPresentIsNeverModified", true, Both, 0, 1, 31, 1, 1, "", ""},
        {"FolderNewAccepted", true, OtherOnly, 0, 1, 31, 0, 1, "FolderAdded", "Added other"},
        {"FolderNewRefused", true, OtherOnly, 0, 1, 31, 0, 0, "FolderAdded", ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EntryInfoTree config, other;
        auto configFile = Make<FileConfiguration>(kConfigPath, "config");
        auto otherFile = Make<FileConfiguration>(kOtherPath, "other");
        auto configFolder = Make<FolderConfiguration>(kConfigPath, "config");
        configFile.syncStatus = static_cast<FileSynchronizationStatus>(c.configStatus);
        configFolder.setSyncStatus(static_cast<FolderSynchronizationStatus>(c.configStatus));
        if (c.configHasServerId) configFile.serverFileId = "id-1";
        otherFile.privileges = c.otherPrivileges;
        if (c.presence != OtherOnly && c.folder) config.folderMap.insert(kKey, configFolder);
        if (c.presence != OtherOnly && !c.folder) config.fileMap.insert(kKey, configFile);
        if (c.presence != ConfigOnly && c.folder)
            other.folderMap.insert(kKey, Make<FolderConfiguration>(kOtherPath, "other"));
        if (c.presence != ConfigOnly && !c.folder) other.fileMap.insert(kKey, otherFile);

        ScriptedDiffer differ(c.ruleAnswer);
        const EntryInfoTreeChange change = differ.Diff(config, other, c.checkDownload);

        EXPECT_EQ(c.ruleAsked, differ.asked.join(","));
        const QString kind = c.folder ? "folder " : "file ";
        EXPECT_EQ(*c.expected ? QStringList{kind + kKey + ' ' + c.expected} : QStringList(),
                  Describe(change));
    }
}

// The passes over new entries are skipped when every entry of the other tree was matched; a
// cycle where more entries vanished than appeared must still find the new ones.
TEST(TreeDifferWalkTest, NewEntriesAreFoundWhereMoreVanished) {
    EntryInfoTree config, other;
    for (const char* gone : {"/r/a", "/r/b", "/r/c"}) {
        auto file = Make<FileConfiguration>(gone, "config");
        file.serverFileId = "id";
        file.syncStatus = FileSynchronizationStatus::Synchronized;
        config.fileMap.insert(gone, file);
        auto folder = Make<FolderConfiguration>(QString(gone) + "dir", "config");
        folder.setSyncStatus(FolderSynchronizationStatus::Synchronized);
        config.folderMap.insert(QString(gone) + "dir", folder);
    }
    other.fileMap.insert("/r/new", Make<FileConfiguration>("/r/new", "other"));
    other.folderMap.insert("/r/newdir", Make<FolderConfiguration>("/r/newdir", "other"));

    QStringList lines = Describe(ScriptedDiffer(true).Diff(config, other, false));
    lines.sort();
    EXPECT_EQ(lines,
              (QStringList{"file /r/a Deleted config", "file /r/b Deleted config",
                           "file /r/c Deleted config", "file /r/new Added other",
                           "folder /r/adir Deleted config", "folder /r/bdir Deleted config",
                           "folder /r/cdir Deleted config", "folder /r/newdir Added other"}));
}

}  // namespace
