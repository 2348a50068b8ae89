#pragma once

// A configuration database file in a temporary folder, installed for TransactionalScope and the
// server configuration factory. Reopen() drops every connection and opens the file afresh.

#include <gtest/gtest.h>
#include <QDateTime>
#include <QTemporaryDir>
#include <QTimeZone>
#include <memory>
#include <string>

#include "ConfigDatabase.h"
#include "FileConfigManager.h"
#include "FolderConfigManager.h"

namespace sync {
namespace test {

class DatabaseTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(dir.isValid());
        Reopen();
    }
    void TearDown() override { Close(); }
    void Close() {
        folders.reset();
        files.reset();
        database::ConfigDatabase::Uninstall();
        db.reset();
    }
    void Reopen() {
        Close();
        db = database::ConfigDatabase::Open(Path());
        database::ConfigDatabase::Install(db);
        folders = std::make_shared<database::FolderConfigManager>(db);
        files = std::make_shared<database::FileConfigManager>(db);
    }
    QString Path() const { return dir.filePath(QStringLiteral("sync.db")); }

    QTemporaryDir dir;
    std::shared_ptr<database::ConfigDatabase> db;
    std::shared_ptr<database::FolderConfigManager> folders;
    std::shared_ptr<database::FileConfigManager> files;
};

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
