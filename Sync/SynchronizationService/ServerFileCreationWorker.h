#pragma once

#include <QHash>
#include <QList>
#include <memory>

#include "BaseFileWorker.h"
#include "IFileUploadClient.h"
#include "IFolderConfigManager.h"
#include "IUrlBuilder.h"
#include "ServerConfiguration.h"

namespace sync {
namespace syncService {

// Uploads local files: prepares each file's database record, holds generated files back until
// their source has been uploaded, hands the files to the upload client in up to two batches,
// writes the outcome to the records and reports each file's status.
class ServerFileCreationWorker : public BaseFileWorker {
    Q_OBJECT
public:
    ServerFileCreationWorker(
        std::shared_ptr<sync::interf::IFileConfigManager> fileConfigManager,
        std::shared_ptr<sync::interf::IFolderConfigManager> folderConfigManager,
        std::shared_ptr<sync::interf::IFileUploadClient> uploadClient,
        std::shared_ptr<sync::interf::IUrlBuilder> urlBuilder,
        std::shared_ptr<sync::interf::ICheckForExit> checkForExit);
    ~ServerFileCreationWorker() override = default;

    sync::core::SyncResults InnerWork(
        const sync::config::FolderConfiguration& rootFolder,
        std::shared_ptr<QList<std::shared_ptr<sync::interf::ISyncTask>>> tasks) override;

private:
    // By name, case-sensitive.
    static bool _FileConfigurationLessThan(const sync::config::FileConfiguration* a,
                                           const sync::config::FileConfiguration* b);
    // Marks the tasks' own records as being uploaded and collects pointers to them, by name.
    void _CreateUploadFileConfig(
        std::shared_ptr<QList<std::shared_ptr<sync::interf::ISyncTask>>> tasks,
        std::shared_ptr<QList<sync::config::FileConfiguration*>>& files);
    sync::core::SyncResults _UploadFile(
        const sync::config::FolderConfiguration& rootFolder,
        std::shared_ptr<QList<sync::config::FileConfiguration*>> files);
    // The database record to upload for one task record; adds the record of a new file. The
    // folders of new files are read once per upload and kept in folders, by lower-case path:
    // an upload of a large new tree would otherwise read its folder again for every file.
    sync::config::FileConfiguration _PrepareRecord(
        const sync::config::FolderConfiguration& rootFolder, sync::config::FileConfiguration& file,
        QHash<QString, sync::config::FolderConfiguration>& folders);
    // Uploads one batch; a request refused as a whole fails every file of it.
    void _Upload(const sync::config::FolderConfiguration& rootFolder,
                 QList<sync::config::FileConfiguration>& files, sync::core::SyncResults& results);
    // Generated files whose source is still to be uploaded, taken out of files (in the order
    // of a walk from the end); a generated file whose source cannot be read goes to failed.
    QList<sync::config::FileConfiguration> _HoldBackGeneratedFiles(
        QList<sync::config::FileConfiguration>& files,
        QList<sync::config::FileConfiguration>& failed);
    // Of the held-back files, those whose source failed or vanished: taken out of heldBack.
    QList<sync::config::FileConfiguration> _DropOrphanedGeneratedFiles(
        QList<sync::config::FileConfiguration>& heldBack, const sync::core::SyncResults& results);
    // Writes the outcome of every file to its record and reports it: an upload that did not
    // settle a file leaves it OutOfSync.
    void _UpdateStatus(const sync::config::FolderConfiguration& rootFolder,
                       QList<sync::config::FileConfiguration>& files,
                       sync::core::SyncResults& results);

    std::shared_ptr<sync::interf::IFolderConfigManager> _folderConfigManager;
    std::shared_ptr<sync::interf::IFileUploadClient> _uploadClient;
    // Held for the workers built alike; the upload client builds its own addresses.
    std::shared_ptr<sync::interf::IUrlBuilder> _urlBuilder;
    sync::config::ServerConfiguration _serverConfiguration;
};

}  // namespace syncService
}  // namespace sync
