// Accounts, schedule, settings and the action log kept in the configuration database.

#include <gtest/gtest.h>

#include <QTemporaryDir>

#include "ActionLogWording.h"
#include "AuthenticationConfigManager.h"
#include "ConfigDatabase.h"
#include "ConfigurationFactory.h"
#include "DatabaseActionLog.h"
#include "DatabaseBackends.h"
#include "FolderConfigManager.h"
#include "ScheduleEntryManager.h"
#include "ServerConfigManager.h"
#include "SyncConfiguration.h"

using namespace sync::config;
using namespace sync::database;
using sync::core::SyncDetails;

namespace {

class DatabaseSettingsTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(_dir.isValid());
        Reopen();
    }
    void TearDown() override { ConfigDatabase::Uninstall(); }
    void Reopen() {
        ConfigDatabase::Uninstall();
        db.reset();
        db = ConfigDatabase::Open(_dir.filePath(QStringLiteral("sync.db")));
        ConfigDatabase::Install(db);
    }

    std::shared_ptr<ConfigDatabase> db;

private:
    QTemporaryDir _dir;
};

TEST_F(DatabaseSettingsTest, AccountsAreFoundByIdAndThroughTheirRootFolders) {
    AuthenticationConfigManager accounts(db);
    ServerConfiguration account;
    account.name = QStringLiteral("Work");
    account.kind = QStringLiteral("webdav");
    account.baseUrl = QStringLiteral("https://dav.example/remote");
    account.userName = QStringLiteral("jö");
    account.settings = {{QStringLiteral("timeout"), QStringLiteral("30")}};
    accounts.AddAccount(account);
    ASSERT_GE(account.id, 1);

    FolderConfigManager folders(db);
    FolderConfiguration root;
    root.authenticationId = account.id;
    root.localPath = QStringLiteral("/home/u/Work");
    ASSERT_TRUE(folders.AddFolder(root));

    Reopen();
    // The engine gets its server configuration manager from the factory.
    auto servers = sync::factory::ConfigurationFactory::CreateServerConfigManager();
    ASSERT_TRUE(servers);
    EXPECT_TRUE(servers->GetServerConfiguration(account.id) == account);
    EXPECT_TRUE(servers->GetServerConfigurationByFolderId(root.id) == account);
    EXPECT_EQ(servers->GetServerConfigurationByFolderId(root.id + 100).id, -1);

    AuthenticationConfigManager reopened(db);
    account.baseUrl = QStringLiteral("https://other.example");
    EXPECT_TRUE(reopened.UpdateAccount(account));
    EXPECT_TRUE(reopened.GetAccounts() == QVector<ServerConfiguration>{account});
    reopened.RemoveAuthentication(account.id);
    EXPECT_EQ(servers->GetServerConfiguration(account.id).id, -1);
    EXPECT_FALSE(reopened.UpdateAccount(account));
}

TEST_F(DatabaseSettingsTest, ScheduleStartsAtTheDefaultAndKeepsWhatIsStored) {
    ScheduleEntryManager schedule(db);
    const ScheduleEntry initial = schedule.GetScheduleEntry();
    EXPECT_EQ(initial.syncType, Periodic);
    EXPECT_EQ(initial.syncInterval, 300);
    EXPECT_TRUE(initial.syncTime.isNull());

    ScheduleEntry entry;
    entry.syncType = Daily;
    entry.syncInterval = 900;
    entry.syncTime = sync::test::LocalTime(1600000000000);
    entry.lastChanged = sync::test::UtcTime(1600000005000);
    schedule.UpdateScheduleEntry(entry);
    entry.syncInterval = 1200;
    schedule.UpdateScheduleEntry(entry);

    Reopen();
    const ScheduleEntry read = ScheduleEntryManager(db).GetScheduleEntry();
    EXPECT_EQ(read.syncType, Daily);
    EXPECT_EQ(read.syncInterval, 1200);
    sync::test::ExpectSameTime(entry.syncTime, read.syncTime, "syncTime");
    sync::test::ExpectSameTime(entry.lastChanged, read.lastChanged, "lastChanged");
}

TEST_F(DatabaseSettingsTest, SettingsAnswerDefaultsUntilSet) {
    SyncConfiguration settings(db);
    EXPECT_EQ(settings.GetSyncInterval(), SyncConfiguration::DefaultSyncIntervalSeconds);
    EXPECT_EQ(settings.GetTooManyRequestsHoldSeconds(),
              SyncConfiguration::DefaultTooManyRequestsHoldSeconds);
    settings.SetSyncInterval(60);
    settings.SetTooManyRequestsHoldSeconds(0);  // not a usable hold: the default stays in force
    Reopen();
    SyncConfiguration reopened(db);
    EXPECT_EQ(reopened.GetSyncInterval(), 60);
    EXPECT_EQ(reopened.GetTooManyRequestsHoldSeconds(),
              SyncConfiguration::DefaultTooManyRequestsHoldSeconds);
}

TEST_F(DatabaseSettingsTest, ActionLogEntriesAreStoredAsGiven) {
    {
        DatabaseActionLog log(db);
        log.Initialize(0);
        log.AddEntry(4, log.CreateDetails(1));
        log.AddFolderEntry(2, QStringLiteral("/home/u/Docs"), QStringLiteral("Docs"));
        log.AddFolderEntryWithDetails(
            2, QStringLiteral("/home/u/Docs"), QStringLiteral("Docs"),
            log.CreateDetailsWithArguments(16, {QStringLiteral("2"), QStringLiteral("0"),
                                                QStringLiteral("0"), QStringLiteral("1")}));
        log.AddHttpErrorEntry(3, 507, QStringLiteral("/home/u/Docs"), QStringLiteral("Docs"),
                              QStringLiteral("https://dav.example/Docs"));
        log.Flush();
        EXPECT_EQ(log.PendingCount(), 0);
    }
    Reopen();
    DatabaseActionLog log(db);
    const auto entries = log.Entries();
    ASSERT_EQ(entries.size(), 4);
    EXPECT_EQ(entries[0].type, 4);
    EXPECT_TRUE(entries[0].hasDetails);
    EXPECT_EQ(entries[0].details, SyncDetails(1));
    EXPECT_TRUE(entries[0].localPath.isEmpty());
    EXPECT_FALSE(entries[1].hasDetails);
    EXPECT_EQ(entries[1].localPath, QStringLiteral("/home/u/Docs"));
    EXPECT_EQ(entries[2].details.arguments, QVector<QString>({"2", "0", "0", "1"}));
    EXPECT_EQ(entries[3].httpCode, 507);
    EXPECT_EQ(entries[3].url, QStringLiteral("https://dav.example/Docs"));
    EXPECT_EQ(entries[3].time.timeSpec(), Qt::UTC);
    EXPECT_LE(qAbs(entries[3].time.secsTo(QDateTime::currentDateTimeUtc())), 60);
    EXPECT_EQ(log.Entries(entries[1].id, 1), QVector<ActionLogEntry>{entries[2]});
}

ActionLogEntry Entry(int type, int kind = -1, QVector<QString> arguments = {}) {
    ActionLogEntry e;
    e.type = type;
    e.localPath = QStringLiteral("/home/u/Docs");
    e.name = QStringLiteral("Docs");
    e.hasDetails = kind >= 0;
    if (e.hasDetails) e.details = SyncDetails(kind, arguments);
    return e;
}

QVector<QString> Counts(std::initializer_list<int> values) {
    QVector<QString> out;
    for (int v : values) out << QString::number(v);
    return out;
}

TEST(ActionLogWordingTest, EveryEntryTheEngineWritesReadsAsASentence) {
    ActionLogEntry noNetwork = Entry(4, 1);
    noNetwork.localPath.clear();
    noNetwork.name.clear();
    ActionLogEntry http = Entry(3);
    http.httpCode = 401;
    http.url = QStringLiteral("https://dav.example/Docs");
    const struct {
        ActionLogEntry entry;
        const char* text;
    } rows[] = {
        {Entry(2), "Folder \"Docs\" was synchronised."},
        {Entry(2, 16, Counts({2, 0, 0, 1})),
         "Folder \"Docs\" was synchronised. 2 files uploaded and 1 file deleted on this "
         "computer."},
        {Entry(3), "Folder \"Docs\" could not be synchronised completely."},
        {Entry(3, 0),
         "Folder \"Docs\" could not be synchronised completely. An unexpected error "
         "occurred."},
        {Entry(3, 12, Counts({1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 2})),
         "Folder \"Docs\" could not be synchronised completely. 1 file uploaded. 1 file could "
         "not be downloaded and 2 folders could not be deleted on this computer."},
        {http,
         "Folder \"Docs\" could not be synchronised completely. Cause: the server did not "
         "accept the sign-in (HTTP 401) at https://dav.example/Docs."},
        {noNetwork,
         "Synchronisation could not connect. This computer is not connected to a "
         "network."},
        {Entry(4, 3, {QStringLiteral("/home/u/Docs")}),
         "Folder \"Docs\" could not be reached. The drive that holds \"/home/u/Docs\" cannot be "
         "reached."},
        {Entry(9),
         "File \"/home/u/Docs\" was deleted on the server and moved to the trash on "
         "this computer."},
        {Entry(15, 14),
         "File \"/home/u/Docs\" was deleted on the server but could not be removed "
         "from this computer. It may be open in another program, or permission "
         "was denied."},
        {Entry(17), "Folder \"/home/u/Docs\" was created on this computer."},
        {Entry(18, 20),
         "Folder \"/home/u/Docs\" could not be created on this computer. Its path "
         "is too long."},
        {Entry(19),
         "Folder \"/home/u/Docs\" was deleted on the server and removed from this "
         "computer."},
        {Entry(20, 14),
         "Folder \"/home/u/Docs\" was deleted on the server but could not be "
         "removed from this computer. It may be open in another program, or "
         "permission was denied."},
        {Entry(27, 19, {QStringLiteral("/home/u/Docs")}),
         "Folder \"Docs\" is no longer synchronised because it no longer exists on this "
         "computer. \"/home/u/Docs\" was removed from the synchronised folders."},
        {Entry(99, 77, {QStringLiteral("a"), QStringLiteral("b")}),
         "Synchronisation event 99 for \"/home/u/Docs\". (details 77: a, b)"},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(ActionLogWording::Describe(row.entry).toStdString(), std::string(row.text));
    }
}

}  // namespace
