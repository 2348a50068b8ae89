#include "PlanRecorder.h"

#include "ISyncTaskDepot.h"
#include "SyncTaskType.h"

namespace sync {
namespace test {

using namespace sync::syncService;

namespace {

const char* TypeName(SyncTaskType type) {
    switch (type) {
        case ServerFolderCreation:
            return "ServerFolderCreation";
        case ServerFolderDeletion:
            return "ServerFolderDeletion";
        case ServerFileCreation:
            return "ServerFileCreation";
        case ServerFileDeletion:
            return "ServerFileDeletion";
        case LocalFolderCreation:
            return "LocalFolderCreation";
        case LocalFolderDeletion:
            return "LocalFolderDeletion";
        case LocalFileCreation:
            return "LocalFileCreation";
        case LocalFileDeletion:
            return "LocalFileDeletion";
        case FileConflictMarking:
            return "FileConflictMarking";
        case None:
            break;
    }
    return "None";
}

}  // namespace

sync::core::SyncResults PlanRecorder::Process(const sync::config::FolderConfiguration&,
                                              std::shared_ptr<sync::interf::ISyncTaskDepot> depot) {
    if (!depot) return sync::core::SyncResults();
    depot->RemoveConflictAndDuplicateTask();
    for (int type = ServerFolderCreation; type <= FileConflictMarking; ++type) {
        const auto tasks = depot->GetSyncTaskList(static_cast<SyncTaskType>(type));
        if (!tasks) continue;
        for (const auto& task : *tasks) {
            QString line =
                QStringLiteral("plan %1 %2")
                    .arg(QLatin1String(TypeName(task->GetSyncTaskType())), task->GetKey());
            if (task->IsFileTask() && task->GetFileConfig().referencesOnly)
                line += QStringLiteral(" (references only)");
            plan << line;
        }
    }
    return sync::core::SyncResults();
}

}  // namespace test
}  // namespace sync
