#pragma once

#include <QString>
#include <QVector>

#include "FileConfiguration.h"

namespace sync {
namespace interf {

// File records of the configuration database. Lookups that find nothing answer a record with
// id -1. Every operation throws sync::database::DatabaseException (a std::runtime_error naming
// the database file) when the database cannot be read or written, and, once, when the last
// batch of writes could not be committed as its TransactionalScope ended; reads see the writes
// of the open transaction.
class IFileConfigManager {
public:
    virtual ~IFileConfigManager() = default;
    virtual sync::config::FileConfiguration GetFileById(int fileId) = 0;
    // A generated file's record by id; id -1 when none.
    virtual sync::config::FileConfiguration GetGeneratedFileById(int fileId) = 0;
    // Records whose root folder record no longer exists.
    virtual QVector<sync::config::FileConfiguration> GetFilesOfMissingRootFolders() = 0;
    // By local path (compared without regard to case) for one account.
    virtual sync::config::FileConfiguration GetFileByPath(const QString& localPath,
                                                          int authenticationId) = 0;
    // All non-generated file records of a root folder; generatedToo adds generated ones.
    virtual QVector<sync::config::FileConfiguration> GetFilesByRootId(
        int rootId, bool generatedToo = false) = 0;
    // Generated-file records of a root folder (files derived from another record).
    virtual QVector<sync::config::FileConfiguration> GetGeneratedFilesByRootId(
        int rootId, bool flag = false) = 0;
    // All generated-file records of one kind (2 = base copies).
    virtual QVector<sync::config::FileConfiguration> GetGeneratedFilesByKind(int kind) = 0;
    // Writes back an existing record; a record with id -1 writes nothing and answers false.
    virtual bool UpdateFile(const sync::config::FileConfiguration& file) = 0;
    // Inserts a record and sets its new id (1 or more) in the argument; false on failure.
    virtual bool AddFile(sync::config::FileConfiguration& file) = 0;
    virtual void RemoveFile(int fileId) = 0;
    virtual void RemoveGeneratedFileById(int fileId) = 0;
    virtual void RemoveGeneratedFile(int fileId) = 0;
};

}  // namespace interf
}  // namespace sync
