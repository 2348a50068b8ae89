#include "SyncMetaTypes.h"

namespace sync {
namespace core {

void RegisterSyncMetaTypes() {
    qRegisterMetaType<sync::core::SyncResults>("SyncResults");
    qRegisterMetaType<sync::core::SyncResults>("sync::core::SyncResults");
    qRegisterMetaType<sync::config::FolderSynchronizationStatus>(
        "sync::config::FolderSynchronizationStatus");
    qRegisterMetaType<sync::config::FileSynchronizationStatus>(
        "sync::config::FileSynchronizationStatus");
}

}  // namespace core
}  // namespace sync
