#include "HostApplication.h"

#include <QMutexLocker>
#include <QSet>

#include "SyncLog.h"
#include "SyncTaskDepot.h"

namespace sync {
namespace host {

using sync::syncService::SyncTaskType;

namespace {

struct Verb {
    SyncTaskType type;
    const char* text;
};

// In the order the engine runs them.
const Verb kVerbs[] = {
    {SyncTaskType::LocalFolderCreation, "create local folder"},
    {SyncTaskType::ServerFolderCreation, "create server folder"},
    {SyncTaskType::ServerFileCreation, "upload"},
    {SyncTaskType::LocalFileCreation, "download"},
    {SyncTaskType::ServerFileDeletion, "delete on server"},
    {SyncTaskType::LocalFileDeletion, "delete locally"},
    {SyncTaskType::ServerFolderDeletion, "delete server folder"},
    {SyncTaskType::LocalFolderDeletion, "delete local folder"},
    {SyncTaskType::FileConflictMarking, "mark conflict"},
};

bool IsFolderTask(SyncTaskType type) {
    return type == SyncTaskType::LocalFolderCreation ||
           type == SyncTaskType::ServerFolderCreation ||
           type == SyncTaskType::ServerFolderDeletion || type == SyncTaskType::LocalFolderDeletion;
}

// The depot answers no list at all for a type without tasks.
QList<std::shared_ptr<sync::interf::ISyncTask>> TasksOf(
    const sync::syncService::SyncTaskDepot& depot, SyncTaskType type) {
    const auto list = depot.GetSyncTaskList(type);
    return list ? *list : QList<std::shared_ptr<sync::interf::ISyncTask>>();
}

QString LocalPathOf(sync::interf::ISyncTask& task, SyncTaskType type) {
    return IsFolderTask(type) ? task.GetFolderConfig().localPath : task.GetFileConfig().localPath;
}

}  // namespace

HostApplication::HostApplication(Options options,
                                 std::shared_ptr<sync::interf::IFileConfigManager> files)
    : _options(options), _files(std::move(files)) {}

QString HostApplication::GetRootFolderText() {
    return QStringLiteral("Synced folder");
}

bool HostApplication::IsSyncAllowed() {
    return true;
}

void HostApplication::SyncStarted() {}

int HostApplication::DoomedFiles(const QVector<sync::config::FileConfiguration>& known,
                                 const sync::syncService::SyncTaskDepot& depot) {
    QSet<QString> files;
    QStringList folders;
    for (SyncTaskType type : {SyncTaskType::ServerFileDeletion, SyncTaskType::LocalFileDeletion})
        for (const auto& task : TasksOf(depot, type)) files.insert(task->GetFileConfig().localPath);
    for (SyncTaskType type :
         {SyncTaskType::ServerFolderDeletion, SyncTaskType::LocalFolderDeletion})
        for (const auto& task : TasksOf(depot, type))
            folders << task->GetFolderConfig().localPath + QLatin1Char('/');
    int doomed = 0;
    for (const auto& file : known) {
        bool gone = files.contains(file.localPath);
        for (int i = 0; !gone && i < folders.size(); ++i)
            gone = file.localPath.startsWith(folders[i]);
        if (gone) ++doomed;
    }
    return doomed;
}

bool HostApplication::PreProcessFiles(const sync::config::FolderConfiguration& root,
                                      std::shared_ptr<sync::syncService::SyncTaskDepot> depot) {
    if (_options.dryRun) {
        QStringList lines;
        for (const Verb& verb : kVerbs)
            for (const auto& task : TasksOf(*depot, verb.type))
                // A first sync plans the root folder itself; it exists already.
                if (LocalPathOf(*task, verb.type) != root.localPath)
                    lines << QStringLiteral("%1 %2").arg(QLatin1String(verb.text),
                                                         LocalPathOf(*task, verb.type));
        QMutexLocker lock(&_mutex);
        _planLines << lines;
        return false;
    }
    if (_options.allowMassDelete) return true;

    // The check reads every file record of the root; a plan that deletes nothing skips it.
    int deletions = 0;
    for (SyncTaskType type :
         {SyncTaskType::ServerFileDeletion, SyncTaskType::LocalFileDeletion,
          SyncTaskType::ServerFolderDeletion, SyncTaskType::LocalFolderDeletion})
        deletions += TasksOf(*depot, type).size();
    if (deletions == 0) return true;
    const QVector<sync::config::FileConfiguration> known = _files->GetFilesByRootId(root.id);
    const int doomed = DoomedFiles(known, *depot);
    if (doomed > HandfulOfFiles && doomed * 2 > known.size()) {
        const QString message =
            QStringLiteral(
                "%1: the plan would delete %2 of its %3 files; nothing was changed. "
                "Run again with --allow-mass-delete if that is what you want.")
                .arg(root.localPath)
                .arg(doomed)
                .arg(known.size());
        SYNC_LOG_WARN(message);
        QMutexLocker lock(&_mutex);
        _heldBack << message;
        return false;
    }
    return true;
}

void HostApplication::PostProcessFiles(const sync::config::FolderConfiguration&,
                                       std::shared_ptr<sync::syncService::SyncTaskDepot>,
                                       sync::core::SyncResults&) {}

void HostApplication::SyncFinished() {}

QStringList HostApplication::PlanLines() const {
    QMutexLocker lock(&_mutex);
    return _planLines;
}

QStringList HostApplication::HeldBack() const {
    QMutexLocker lock(&_mutex);
    return _heldBack;
}

}  // namespace host
}  // namespace sync
