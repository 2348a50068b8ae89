#pragma once

#include <QMetaType>

namespace sync {
namespace config {

// Status of a folder record; shares its values with FileSynchronizationStatus.
enum class FolderSynchronizationStatus : int {
    Synchronized = 0,
    Synchronizing = 1,
    OutOfSync = 2,
    NotSynchronized = 3,
};

// Status of a file record; the values are those of FolderSynchronizationStatus.
enum class FileSynchronizationStatus : int {
    Synchronized = 0,
    Synchronizing = 1,
    OutOfSync = 2,
    NotSynchronized = 3,
};

// Bit flags of FolderConfiguration::syncOption.
enum FolderSyncOption {
    NoSyncOption = 0,
    RootFolderReset = 1,
    SyncHiddenEntries = 2,
    KeepRootFolderOnRemoval = 4,
    SkipDownloadingNewFiles = 8,
};

// Bits of the privileges field of both records.
enum Privilege {
    PrivilegeDownload = 2,
    PrivilegeUpload = 4,
    PrivilegeDelete = 8,
    PrivilegeAll = 31,
};

}  // namespace config
}  // namespace sync

Q_DECLARE_METATYPE(sync::config::FolderSynchronizationStatus)
Q_DECLARE_METATYPE(sync::config::FileSynchronizationStatus)
