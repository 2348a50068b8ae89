#pragma once

// A configuration database file in a temporary folder with every manager on it, installed for
// TransactionalScope and the server configuration factory. Reopen() drops every connection and
// opens the file afresh.

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <QDateTime>
#include <QFile>
#include <QTemporaryDir>
#include <QTimeZone>
#include <memory>
#include <string>

#include "AuthenticationConfigManager.h"
#include "ConfigDatabase.h"
#include "FileConfigManager.h"
#include "FolderConfigManager.h"
#include "ScheduleEntryManager.h"
#include "ServerConfigManager.h"
#include "SyncConfiguration.h"

namespace sync {
namespace test {

class SqliteStore {
public:
    SqliteStore() { Reopen(); }
    ~SqliteStore() { Close(); }
    void Close() {
        folders.reset();
        files.reset();
        accounts.reset();
        servers.reset();
        schedule.reset();
        settings.reset();
        database::ConfigDatabase::Uninstall();
        db.reset();
    }
    void Reopen() {
        Close();
        db = database::ConfigDatabase::Open(Path());
        database::ConfigDatabase::Install(db);
        folders = std::make_shared<database::FolderConfigManager>(db);
        files = std::make_shared<database::FileConfigManager>(db);
        accounts = std::make_shared<database::AuthenticationConfigManager>(db);
        servers = std::make_shared<database::ServerConfigManager>(db);
        schedule = std::make_shared<database::ScheduleEntryManager>(db);
        settings = std::make_shared<database::SyncConfiguration>(db);
    }
    QString Path() const { return dir.filePath(QStringLiteral("sync.db")); }

    QTemporaryDir dir;
    std::shared_ptr<database::ConfigDatabase> db;
    std::shared_ptr<database::FolderConfigManager> folders;
    std::shared_ptr<database::FileConfigManager> files;
    std::shared_ptr<database::AuthenticationConfigManager> accounts;
    std::shared_ptr<database::ServerConfigManager> servers;
    std::shared_ptr<database::ScheduleEntryManager> schedule;
    std::shared_ptr<database::SyncConfiguration> settings;
};

class DatabaseTest : public ::testing::Test, public SqliteStore {};

// Runs sql on a connection of its own, as another program would: to plant triggers, tables or
// old files, and to look at what reached the disk.
inline void ExecOnFile(const QString& path, const char* sql) {
    sqlite3* raw = nullptr;
    ASSERT_EQ(sqlite3_open(QFile::encodeName(path).constData(), &raw), SQLITE_OK);
    char* error = nullptr;
    EXPECT_EQ(sqlite3_exec(raw, sql, nullptr, nullptr, &error), SQLITE_OK) << (error ? error : "");
    sqlite3_free(error);
    sqlite3_close(raw);
}

// The first column of the first row of sql, read on a connection of its own.
inline qint64 QueryOnFile(const QString& path, const char* sql) {
    sqlite3* raw = nullptr;
    qint64 value = -1;
    sqlite3_stmt* stmt = nullptr;
    if (sqlite3_open(QFile::encodeName(path).constData(), &raw) == SQLITE_OK &&
        sqlite3_prepare_v2(raw, sql, -1, &stmt, nullptr) == SQLITE_OK &&
        sqlite3_step(stmt) == SQLITE_ROW)
        value = sqlite3_column_int64(stmt, 0);
    sqlite3_finalize(stmt);
    sqlite3_close(raw);
    return value;
}

inline QDateTime At(qint64 ms, Qt::TimeSpec spec, int offsetSeconds = 0) {
    return QDateTime::fromMSecsSinceEpoch(ms, spec, offsetSeconds);
}
inline QDateTime At(qint64 ms, const char* zone) {
    return QDateTime::fromMSecsSinceEpoch(ms, QTimeZone(QByteArray(zone)));
}

// QDateTime's == compares instants only; this text also shows the time spec, offset and zone.
inline std::string TimeText(const QDateTime& t) {
    if (t.isNull()) return "null";
    return QStringLiteral("%1 spec %2 %3")
        .arg(t.toString(Qt::ISODateWithMs))
        .arg(t.timeSpec())
        .arg(QString::fromUtf8(t.timeZone().id()))
        .toStdString();
}

}  // namespace test
}  // namespace sync
