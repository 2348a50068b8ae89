#pragma once

#include <cstdint>

namespace sync {
namespace syncService {

// The values are fixed: the engine, the worker manager and the depot's clean-up name them.
enum SyncTaskType : std::int32_t {
    None = 0,
    ServerFolderCreation = 1,
    ServerFolderDeletion = 2,
    ServerFileCreation = 3,
    ServerFileDeletion = 4,
    LocalFolderCreation = 5,
    LocalFolderDeletion = 6,
    LocalFileCreation = 7,
    LocalFileDeletion = 8,
    FileConflictMarking = 9,
};

}  // namespace syncService
}  // namespace sync
