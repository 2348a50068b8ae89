#pragma once

#include <QDateTime>
#include <QList>
#include <QMap>
#include <QString>
#include <QtGlobal>

#include "FileLink.h"
#include "PropertyMap.h"
#include "SparseValue.h"
#include "SyncEnums.h"

namespace sync {
namespace config {

// One file as the database, the disk or the server describes it. Copied by value everywhere.
class FileConfiguration {
public:
    FileConfiguration() = default;
    FileConfiguration(const FileConfiguration& other) { _CopyMembers(other); }
    FileConfiguration& operator=(const FileConfiguration& other) {
        if (this != &other) _CopyMembers(other);
        return *this;
    }
    // Trees and query results hold hundreds of thousands of records; moving them is cheap.
    FileConfiguration(FileConfiguration&&) noexcept = default;
    FileConfiguration& operator=(FileConfiguration&&) noexcept = default;
    // Not virtual: nothing derives from a record, and a vtable pointer in each of them costs
    // a tree of 100,000 records nearly a megabyte.
    ~FileConfiguration() = default;

    bool operator==(const FileConfiguration& o) const;
    bool operator!=(const FileConfiguration& o) const { return !(*this == o); }

    // Takes other's string for each text that is equal here, so that both records share one
    // copy; every field reads exactly as before.
    void ShareTextsWith(const FileConfiguration& other);

    // Declared widest first, so that the small fields pack together without padding.
    QString name;
    QString localPath;
    QString serverPath;
    QString checksum;
    QString privilegeInfo;
    QString serverFileId;
    QString serverChecksum;
    SparseValue<QString> contentType;        // kept for the host; the engine does not read it
    SparseValue<QList<FileLink>> fileLinks;  // kept for the host
    PropertyMap properties;  // server-side attributes, read like QMap<QString, QString>
    QDateTime created;       // kept for the host; the engine does not read it
    QDateTime lastModified;
    QDateTime lastTransferAttempt;           // time of the last transfer or deletion attempt
    QDateTime serverModified = QDateTime();  // UTC; kept for the host
    qint64 size = 0;
    int id = -1;
    int folderId = -1;
    int rootId = -1;
    int transferDirection = 0;  // 1 download, 2 upload, 3 local deletion
    int inheritedId = -1;
    int generatedKind = 0;  // kind of a generated file (2 = base copy)
    int parentFileId = -1;
    int privileges = PrivilegeAll;
    int isGenerated = 0;  // 1 for a file the engine generated from another record
    FileSynchronizationStatus syncStatus = FileSynchronizationStatus::OutOfSync;
    int referencesOnly = 0;
    bool transferPending = false;
    bool syncStatusSet = false;  // the status monitor has decided this record's status

private:
    void _CopyMembers(const FileConfiguration& o);
};

}  // namespace config
}  // namespace sync

// Every member may be moved in memory as raw bytes. Vectors of 100,000 records then grow in
// place (realloc) instead of into a second block beside the first.
Q_DECLARE_TYPEINFO(sync::config::FileConfiguration, Q_RELOCATABLE_TYPE);
