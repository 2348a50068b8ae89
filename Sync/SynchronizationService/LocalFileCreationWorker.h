#pragma once

#include <QList>
#include <QMap>
#include <memory>

#include "BaseFileWorker.h"
#include "ICustomFileConfigUpdater.h"
#include "IFileDownloadClient.h"
#include "IFolderConfigManager.h"
#include "IUrlBuilder.h"
#include "ServerConfiguration.h"
#include "SynchronizedFileConfiguration.h"

namespace sync {
namespace syncService {

// Task order of the downloads: by localPath without regard to case, so that the files of one
// folder are consecutive.
bool FileConfigurationLessThan(const std::shared_ptr<sync::interf::ISyncTask>& a,
                               const std::shared_ptr<sync::interf::ISyncTask>& b);

// Downloads the files added or changed on the server. The worker prepares one record per file,
// marks the records already in the database as being downloaded in one transaction, and hands
// the whole batch to the download client, which writes the files (through temporary files),
// stores the records and leaves each file's status in its record. It writes nothing to the disk
// itself.
class LocalFileCreationWorker : public BaseFileWorker {
    Q_OBJECT
public:
    LocalFileCreationWorker(
        std::shared_ptr<sync::interf::ICustomFileConfigUpdater> customFileConfigUpdater,
        std::shared_ptr<sync::interf::IFileDownloadClient> downloadClient,
        std::shared_ptr<sync::interf::IFolderConfigManager> folderConfigManager,
        std::shared_ptr<sync::interf::IFileConfigManager> fileConfigManager,
        std::shared_ptr<sync::interf::IUrlBuilder> urlBuilder,
        std::shared_ptr<sync::interf::ICheckForExit> checkForExit);
    ~LocalFileCreationWorker() override = default;

    sync::core::SyncResults InnerWork(
        const sync::config::FolderConfiguration& rootFolder,
        std::shared_ptr<QList<std::shared_ptr<sync::interf::ISyncTask>>> tasks) override;

private:
    using TaskList = std::shared_ptr<QList<std::shared_ptr<sync::interf::ISyncTask>>>;
    using Batch = QList<sync::thread::SynchronizedFileConfiguration>;

    // Sorts the shared task list and groups the tasks by the folder that holds them, looking
    // each folder up once.
    void _GetFolderConfigurationForFiles(const sync::config::FolderConfiguration& rootFolder,
                                         TaskList tasks,
                                         QMap<int, sync::config::FolderConfiguration>& foldersById,
                                         QMap<int, TaskList>& tasksByFolderId);
    // The database record prepared for the download; a new file takes its identity from the
    // server record and its place from folder.
    sync::config::FileConfiguration _CreateConfigFile(
        const sync::config::FileConfiguration& serverRecord,
        const sync::config::FileConfiguration& databaseRecord,
        const sync::config::FolderConfiguration& folder);
    void _UpdateStatus(Batch& batch);
    // Everything before the download: the batch, with the records already in the database
    // marked as being downloaded in one transaction. Throws what the database throws.
    Batch _PrepareBatch(const sync::config::FolderConfiguration& rootFolder, TaskList tasks);
    // Counts every task as a failed download and reports it.
    sync::core::SyncResults _FailAll(TaskList tasks);

    sync::config::ServerConfiguration _serverConfiguration;
    std::shared_ptr<sync::interf::IFileDownloadClient> _downloadClient;
    std::shared_ptr<sync::interf::IFolderConfigManager> _folderConfigManager;
    std::shared_ptr<sync::interf::ICustomFileConfigUpdater> _customFileConfigUpdater;
    std::shared_ptr<sync::interf::IUrlBuilder> _urlBuilder;
};

}  // namespace syncService
}  // namespace sync
