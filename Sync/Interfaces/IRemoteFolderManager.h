#pragma once

#include <QString>
#include <QVector>
#include <memory>

#include "FileConfiguration.h"
#include "FolderConfiguration.h"
#include "SyncResults.h"

namespace sync {
namespace interf {

// Folders on the server for one account. Result codes: 0 success, 304 not modified since the
// last request, 404 not found, any other value an HTTP error status. Failures of a whole
// request that has no result code throw sync::http::HttpException.
class IRemoteFolderManager {
public:
    virtual ~IRemoteFolderManager() = default;
    // Creates the folder (and, when createParents is true, its missing parents); sets its
    // serverFolderId. Failures are counted in the result (FolderServerCreationErrors, code).
    virtual sync::core::SyncResults CreateFolder(sync::config::FolderConfiguration& folder,
                                                 const QString& text, bool createParents) = 0;
    // Deletes the folder with its content. 404 counts as done; other failures throw
    // HttpException.
    virtual sync::core::SyncResults DeleteFolder(sync::config::FolderConfiguration& folder) = 0;
    // True when the folder exists; fills info's serverFolderId, privilegeInfo, privileges.
    // Throws HttpException when the server cannot answer.
    virtual bool GetFolderInfo(const sync::config::FolderConfiguration& folder,
                               sync::config::FolderConfiguration& info) = 0;
    // Fills every folder and file below the root; sets the root's request time.
    virtual int GetFolderTree(sync::config::FolderConfiguration& root,
                              std::shared_ptr<QVector<sync::config::FolderConfiguration>> folders,
                              std::shared_ptr<QVector<sync::config::FileConfiguration>> files) = 0;
};

}  // namespace interf
}  // namespace sync
