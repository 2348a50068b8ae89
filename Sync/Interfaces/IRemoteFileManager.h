#pragma once

#include <QVector>
#include <memory>

#include "FileConfiguration.h"
#include "FolderConfiguration.h"

namespace sync {
namespace interf {

// Files on the server for one account; result codes as IRemoteFolderManager::GetFolderTree.
class IRemoteFileManager {
public:
    virtual ~IRemoteFileManager() = default;
    // Fills the files directly in the root folder.
    virtual int GetRootFiles(sync::config::FolderConfiguration& root,
                             std::shared_ptr<QVector<sync::config::FileConfiguration>> files) = 0;
};

}  // namespace interf
}  // namespace sync
