#pragma once

// Backends that the configuration-manager conformance suite runs against. A backend gives the
// managers of one installation and can be reopened, which for a durable store means a fresh
// connection to the same file (an in-memory fake keeps its state and reopens as a no-op).

#include <gtest/gtest.h>
#include <QDateTime>
#include <QTemporaryDir>
#include <QTimeZone>
#include <memory>

#include "AuthenticationConfigManager.h"
#include "ConfigDatabase.h"
#include "FileConfigManager.h"
#include "FolderConfigManager.h"
#include "IAuthenticationConfigManager.h"
#include "IFileConfigManager.h"
#include "IFolderConfigManager.h"

namespace sync {
namespace test {

class SqliteBackend {
public:
    SqliteBackend() {
        EXPECT_TRUE(_dir.isValid());
        Reopen();
    }
    ~SqliteBackend() { sync::database::ConfigDatabase::Uninstall(); }

    void Reopen() {
        _folders.reset();
        _files.reset();
        _accounts.reset();
        sync::database::ConfigDatabase::Uninstall();
        _db.reset();
        _db = sync::database::ConfigDatabase::Open(Path());
        sync::database::ConfigDatabase::Install(_db);
        _folders = std::make_shared<sync::database::FolderConfigManager>(_db);
        _files = std::make_shared<sync::database::FileConfigManager>(_db);
        _accounts = std::make_shared<sync::database::AuthenticationConfigManager>(_db);
    }
    QString Path() const { return _dir.filePath(QStringLiteral("sync.db")); }

    std::shared_ptr<sync::interf::IFolderConfigManager> Folders() { return _folders; }
    std::shared_ptr<sync::interf::IFileConfigManager> Files() { return _files; }
    std::shared_ptr<sync::interf::IAuthenticationConfigManager> Accounts() { return _accounts; }

private:
    QTemporaryDir _dir;
    std::shared_ptr<sync::database::ConfigDatabase> _db;
    std::shared_ptr<sync::database::FolderConfigManager> _folders;
    std::shared_ptr<sync::database::FileConfigManager> _files;
    std::shared_ptr<sync::database::AuthenticationConfigManager> _accounts;
};

// Times of every kind a record may carry; QDateTime's == compares instants only, so the suite
// checks the time spec separately.
inline QDateTime UtcTime(qint64 ms) {
    return QDateTime::fromMSecsSinceEpoch(ms, Qt::UTC);
}
inline QDateTime LocalTime(qint64 ms) {
    return QDateTime::fromMSecsSinceEpoch(ms, Qt::LocalTime);
}
inline QDateTime OffsetTime(qint64 ms, int offsetSeconds) {
    return QDateTime::fromMSecsSinceEpoch(ms, Qt::OffsetFromUTC, offsetSeconds);
}
inline QDateTime ZoneTime(qint64 ms, const char* zone) {
    return QDateTime::fromMSecsSinceEpoch(ms, QTimeZone(QByteArray(zone)));
}

inline void ExpectSameTime(const QDateTime& expected, const QDateTime& actual, const char* field) {
    SCOPED_TRACE(field);
    EXPECT_EQ(expected.isNull(), actual.isNull());
    if (expected.isNull()) return;
    EXPECT_EQ(expected.toMSecsSinceEpoch(), actual.toMSecsSinceEpoch());
    EXPECT_EQ(expected.timeSpec(), actual.timeSpec());
    EXPECT_EQ(expected.offsetFromUtc(), actual.offsetFromUtc());
    if (expected.timeSpec() == Qt::TimeZone) {
        EXPECT_EQ(expected.timeZone(), actual.timeZone());
    }
}

}  // namespace test
}  // namespace sync
