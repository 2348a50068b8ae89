#pragma once

#include <QList>

#include "FolderConfiguration.h"
#include "ServerConfiguration.h"
#include "SyncResults.h"
#include "SynchronizedFileConfiguration.h"

namespace sync {
namespace interf {

// Downloads server files. Each file is written to a temporary file and renamed into place;
// per-file failures are counted in the result and left as the entry record's status.
class IFileDownloadClient {
public:
    virtual ~IFileDownloadClient() = default;
    virtual sync::core::SyncResults DownloadFiles(
        const sync::config::ServerConfiguration& server,
        const sync::config::FolderConfiguration& root,
        QList<sync::thread::SynchronizedFileConfiguration>& files) = 0;
};

}  // namespace interf
}  // namespace sync
