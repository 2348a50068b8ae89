#pragma once

#include <QList>

#include "FileConfiguration.h"
#include "FolderConfiguration.h"
#include "ServerConfiguration.h"
#include "SyncResults.h"

namespace sync {
namespace interf {

// Uploads local files. Per-file failures are counted in the result and left as each record's
// status (OutOfSync); the record of an uploaded file gets its serverFileId, serverChecksum and
// status Synchronized. Throws sync::http::HttpException only when no file can be tried at all.
class IFileUploadClient {
public:
    virtual ~IFileUploadClient() = default;
    virtual sync::core::SyncResults UploadFiles(const sync::config::ServerConfiguration& server,
                                                const sync::config::FolderConfiguration& root,
                                                QList<sync::config::FileConfiguration>& files) = 0;
};

}  // namespace interf
}  // namespace sync
