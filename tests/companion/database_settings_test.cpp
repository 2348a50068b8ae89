// Accounts and the action log kept in the configuration database.

#include <gtest/gtest.h>

#include "ActionLogWording.h"
#include "ConfigurationFactory.h"
#include "DatabaseActionLog.h"
#include "DatabaseBackends.h"

using namespace sync::config;
using namespace sync::database;
using sync::core::SyncDetails;

namespace {

using SettingsTest = sync::test::DatabaseTest;

// The engine takes its server configuration manager from the factory, which Install points at
// the file; the rest of the account contract is in config_store_contract_test.
TEST_F(SettingsTest, InstalledDatabaseAnswersTheEnginesAccountQueries) {
    ServerConfiguration account;
    account.name = "Work";
    accounts->AddAccount(account);
    auto servers = sync::factory::ConfigurationFactory::CreateServerConfigManager();
    ASSERT_TRUE(servers);
    EXPECT_TRUE(servers->GetServerConfiguration(account.id) == account);
}

// An entry for the folder /u/Docs; arguments are separated by spaces.
ActionLogEntry Entry(int type, int kind = -1, const char* arguments = "") {
    ActionLogEntry e;
    e.type = type;
    e.localPath = "/u/Docs";
    e.name = "Docs";
    e.hasDetails = kind >= 0;
    if (e.hasDetails) {
        const QStringList words = QString(arguments).split(' ', Qt::SkipEmptyParts);
        e.details = SyncDetails(kind, QVector<QString>(words.begin(), words.end()));
    }
    return e;
}
ActionLogEntry NoNetwork() {
    ActionLogEntry e = Entry(4, 1);
    e.localPath.clear();
    e.name.clear();
    return e;
}
ActionLogEntry HttpError(int code) {
    ActionLogEntry e = Entry(3);
    e.httpCode = code;
    e.url = "https://dav.example/Docs";
    return e;
}

TEST_F(SettingsTest, ActionLogEntriesAreStoredAsGiven) {
    {
        DatabaseActionLog log(db);
        log.Initialize(0);
        log.AddEntry(4, log.CreateDetails(1));
        log.AddFolderEntry(2, "/u/Docs", "Docs");
        log.AddFolderEntryWithDetails(2, "/u/Docs", "Docs",
                                      log.CreateDetailsWithArguments(16, {"2", "0", "0", "1"}));
        log.AddHttpErrorEntry(3, 507, "/u/Docs", "Docs", "https://dav.example/Docs");
        log.Flush();
        EXPECT_EQ(log.PendingCount(), 0);
    }
    Reopen();
    DatabaseActionLog log(db);
    const auto entries = log.Entries();
    QVector<ActionLogEntry> expected = {NoNetwork(), Entry(2), Entry(2, 16, "2 0 0 1"),
                                        HttpError(507)};
    ASSERT_EQ(entries.size(), expected.size());
    for (int i = 0; i < entries.size(); ++i) {
        EXPECT_LE(qAbs(entries[i].time.secsTo(QDateTime::currentDateTimeUtc())), 60) << i;
        expected[i].id = entries[i].id;
        expected[i].time = entries[i].time;
        EXPECT_TRUE(entries[i] == expected[i]) << "entry " << i;
    }
    EXPECT_EQ(log.Entries(entries[1].id, 1), QVector<ActionLogEntry>{entries[2]});
}

// Only composed sentences are checked: a fixed text per type or kind would restate the code.
TEST(ActionLogWordingTest, EntriesReadAsSentencesWithTheirCountsArgumentsAndCause) {
    const struct {
        ActionLogEntry entry;
        const char* text;
    } rows[] = {
        {Entry(2, 16, "2 0 0 1"),
         "Folder \"Docs\" was synchronised. 2 files uploaded and 1 file deleted on this computer."},
        {Entry(3, 12, "1 0 0 0 0 1 0 0 0 0 0 2"),
         "Folder \"Docs\" could not be synchronised completely. 1 file uploaded. 1 file could not "
         "be downloaded and 2 folders could not be deleted on this computer."},
        {HttpError(401),
         "Folder \"Docs\" could not be synchronised completely. Cause: the server did not accept "
         "the sign-in (HTTP 401) at https://dav.example/Docs."},
        {NoNetwork(),
         "Synchronisation could not connect. This computer is not connected to a network."},
        {Entry(4, 3, "/u/Docs"),
         "Folder \"Docs\" could not be reached. The drive that holds \"/u/Docs\" cannot be "
         "reached."},
        {Entry(27, 19, "/u/Docs"),
         "Folder \"Docs\" is no longer synchronised because it no longer exists on this "
         "computer. \"/u/Docs\" was removed from the synchronised folders."},
        {Entry(99, 77, "a b"), "Synchronisation event 99 for \"/u/Docs\". (details 77: a, b)"},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(ActionLogWording::Describe(row.entry).toStdString(), std::string(row.text))
            << "type " << row.entry.type << ", details kind " << row.entry.details.kind;
    }
}

}  // namespace
