#pragma once

#include <QList>

#include "FileConfiguration.h"
#include "FolderConfiguration.h"
#include "SyncResults.h"

namespace sync {
namespace interf {

// Deletes files on the server; a file already gone counts as deleted. Per-file failures are
// counted in the result.
class IFileDeleteClient {
public:
    virtual ~IFileDeleteClient() = default;
    virtual sync::core::SyncResults DeleteFiles(const sync::config::FolderConfiguration& root,
                                                QList<sync::config::FileConfiguration>& files) = 0;
};

}  // namespace interf
}  // namespace sync
