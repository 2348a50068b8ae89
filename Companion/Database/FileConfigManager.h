#pragma once

#include <memory>

#include "ConfigDatabase.h"
#include "IFileConfigManager.h"

namespace sync {
namespace database {

// File records in the configuration database. A record is a generated file when its
// isGenerated field is not 0; generatedKind tells which kind (2 = base copy). A file belongs to
// an account through its root folder record (GetFileByPath).
//
// Failures throw DatabaseException naming the file. Every operation first reports, once, a
// batch that a TransactionalScope lost when its commit failed at the scope's end.
class FileConfigManager : public sync::interf::IFileConfigManager {
public:
    explicit FileConfigManager(std::shared_ptr<ConfigDatabase> database);
    ~FileConfigManager() override;

    sync::config::FileConfiguration GetFileById(int fileId) override;
    sync::config::FileConfiguration GetGeneratedFileById(int fileId) override;
    QVector<sync::config::FileConfiguration> GetFilesOfMissingRootFolders() override;
    sync::config::FileConfiguration GetFileByPath(const QString& localPath,
                                                  int authenticationId) override;
    // In id order.
    QVector<sync::config::FileConfiguration> GetFilesByRootId(int rootId,
                                                              bool generatedToo = false) override;
    // In id order; the flag is accepted for the interface and selects nothing.
    QVector<sync::config::FileConfiguration> GetGeneratedFilesByRootId(int rootId,
                                                                       bool flag = false) override;
    QVector<sync::config::FileConfiguration> GetGeneratedFilesByKind(int kind) override;
    bool UpdateFile(const sync::config::FileConfiguration& file) override;
    bool AddFile(sync::config::FileConfiguration& file) override;
    void RemoveFile(int fileId) override;
    // Both remove only generated-file records; another record with that id stays.
    void RemoveGeneratedFileById(int fileId) override;
    void RemoveGeneratedFile(int fileId) override;

private:
    std::shared_ptr<ConfigDatabase> _database;
};

}  // namespace database
}  // namespace sync
