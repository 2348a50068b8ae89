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

PlanRecorder::PlanRecorder(std::shared_ptr<sync::interf::ISyncTaskEngine> engine)
    : _engine(std::move(engine)) {
    if (_engine)
        connect(_engine.get(), &sync::interf::ISyncTaskEngine::LocalOrServerFolderCreated, this,
                &sync::interf::ISyncTaskEngine::LocalOrServerFolderCreated);
}

void PlanRecorder::SetFilteredLocalFolderCount(int n) {
    if (_engine) _engine->SetFilteredLocalFolderCount(n);
}
void PlanRecorder::SetFilteredLocalFileCount(int n) {
    if (_engine) _engine->SetFilteredLocalFileCount(n);
}
void PlanRecorder::SetFilteredServerFolderCount(int n) {
    if (_engine) _engine->SetFilteredServerFolderCount(n);
}
void PlanRecorder::SetFilteredServerFileCount(int n) {
    if (_engine) _engine->SetFilteredServerFileCount(n);
}
void PlanRecorder::InitFilteredCount() {
    if (_engine) _engine->InitFilteredCount();
}
void PlanRecorder::TransferLocalOrServerFolderCreated(
    const QString& path, sync::config::FolderSynchronizationStatus status) {
    if (_engine) _engine->TransferLocalOrServerFolderCreated(path, status);
}
void PlanRecorder::HandleSubFolderFilteredOut(QString path) {
    if (_engine) _engine->HandleSubFolderFilteredOut(path);
}
void PlanRecorder::HandleFileFilteredOut(QString path) {
    if (_engine) _engine->HandleFileFilteredOut(path);
}

sync::core::SyncResults PlanRecorder::Process(const sync::config::FolderConfiguration& root,
                                              std::shared_ptr<sync::interf::ISyncTaskDepot> depot) {
    if (!depot) return _engine ? _engine->Process(root, depot) : sync::core::SyncResults();
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
    return _engine ? _engine->Process(root, depot) : sync::core::SyncResults();
}

}  // namespace test
}  // namespace sync
