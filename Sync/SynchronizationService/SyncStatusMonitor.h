#pragma once

#include <QHash>
#include <QList>
#include <QObject>
#include <QSet>
#include <QString>
#include <array>
#include <memory>
#include <optional>
#include <vector>

#include "FileConfiguration.h"
#include "FolderConfiguration.h"
#include "IFileConfigManager.h"
#include "IFolderConfigManager.h"
#include "ISyncTask.h"
#include "ISyncTaskDepot.h"
#include "SyncEnums.h"
#include "TransactionalScope.h"

namespace sync {
namespace syncService {
namespace syncStatusMonitor {

// Visits the records of a depot's tasks. Each visit answers false to end the walk; a walker
// meant for one kind of record answers false for the other, which it is never offered.
class Walker {
public:
    virtual ~Walker() = default;
    virtual bool Visit(sync::config::FolderConfiguration& folder) = 0;
    virtual bool Visit(sync::config::FileConfiguration& file) = 0;

    // The part of path before its last '/', a trailing '/' ignored; a path without any '/'
    // is its own parent.
    static QString GetParentFolder(const QString& path);
};

// How the monitor compares paths: cleaned, without regard to case, no trailing '/'. Two paths
// name the same entry when their keys are equal.
QString PathKey(const QString& path);
// True when the entry of key is the folder of folderKey or lies below it.
bool IsSameOrBelow(const QString& key, const QString& folderKey);

// Marks every entry that is about to be synchronised as Synchronizing: the task's record, the
// file's database record, and the database record of every folder between the entry and the
// root folder, each folder read and written at most once per walker.
class MarkFoldersSyncing : public Walker {
public:
    MarkFoldersSyncing(std::shared_ptr<sync::interf::IFolderConfigManager> folderConfigManager,
                       std::shared_ptr<sync::interf::IFileConfigManager> fileConfigManager,
                       const sync::config::FolderConfiguration& rootFolder);
    bool Visit(sync::config::FolderConfiguration& folder) override;
    bool Visit(sync::config::FileConfiguration& file) override;

private:
    void _MarkFolders(const QString& path);

    std::shared_ptr<sync::interf::IFolderConfigManager> _folderConfigManager;
    std::shared_ptr<sync::interf::IFileConfigManager> _fileConfigManager;
    QString _rootKey;
    int _authenticationId;
    QSet<QString> _visitedFolders;  // path keys
};

}  // namespace syncStatusMonitor

// Keeps the synchronisation status of every entry of a root folder's depot current while the
// depot is executed: Start marks everything Synchronizing, each worker's Done settles one entry,
// and every folder from that entry up to the root folder is derived again from what lies below
// it, in the task records and in the database.
//
// A folder's derived status does not depend on the order of the tasks: Synchronizing when a file
// below it is Synchronizing, else OutOfSync when a file below it is not Synchronized, else the
// same two tests on the folders below it, else Synchronized. Only task records count; filtered
// out entries have no task and take no part, so an ignored file never keeps its folder out of
// sync. Counts per folder, kept as statuses change, make each Done cost the depth of its path
// instead of a walk over the whole depot.
//
// The counts follow the statuses that reach the monitor through Done (and Start). A worker may
// set a record's status before it reports it; that record counts with its new status once its
// Done arrives. Records are matched by the localPath they had at Start.
class SyncStatusMonitor : public QObject {
    Q_OBJECT
public:
    using TaskList = std::shared_ptr<QList<std::shared_ptr<sync::interf::ISyncTask>>>;

    SyncStatusMonitor(std::shared_ptr<sync::interf::IFolderConfigManager> folderConfigManager,
                      std::shared_ptr<sync::interf::IFileConfigManager> fileConfigManager);
    ~SyncStatusMonitor() override = default;

    // Told of entries left out while the trees are retrieved. A filtered-out entry has no task
    // and takes no part in any folder's status, so nothing is kept of it.
    void HandleSubFolderFilteredOut(const QString& path) { (void)path; }
    void HandleFileFilteredOut(const QString& path) { (void)path; }

    // Takes the depot's monitored tasks (all but conflict marking) and marks them, inside one
    // transaction, as Synchronizing. A depot without such tasks writes nothing. Exceptions of
    // the configuration managers pass through.
    void Start(const sync::config::FolderConfiguration& rootFolder,
               sync::interf::ISyncTaskDepot& depot);
    // Lets go of the tasks; the monitor is idle until the next Start.
    void End();

public Q_SLOTS:
    // A folder reported OutOfSync stays OutOfSync even when everything below it succeeded.
    // Paths outside the root folder change nothing.
    void UpdateFolder(const QString& path, sync::config::FolderSynchronizationStatus status);
    void UpdateFile(const QString& path, sync::config::FileSynchronizationStatus status);

private:
    // Entries below one folder, by status; a folder's own record is not below it.
    struct Tally {
        int filesSynchronizing = 0;
        int filesNotSynchronized = 0;
        int foldersSynchronizing = 0;
        int foldersNotSynchronized = 0;
    };
    // A folder at or below the root folder that has task records below it.
    struct FolderNode {
        int parent = -1;  // -1 for the root folder
        Tally tally;
    };
    // A task record and the status it is counted with in its folders' tallies.
    template <typename Record>
    struct Counted {
        Record* record = nullptr;
        int folderNode = -1;  // the folder that holds the entry; -1 outside the root folder
        int status = 0;
    };

    bool _WalkFoldersInDepot(syncStatusMonitor::Walker& walker);
    bool _WalkFilesInDepot(syncStatusMonitor::Walker& walker);
    static bool _WalkFolderList(const TaskList& tasks, syncStatusMonitor::Walker& walker);
    static bool _WalkFileList(const TaskList& tasks, syncStatusMonitor::Walker& walker);

    // The eight monitored lists, files first.
    std::array<TaskList*, 8> _TaskLists();
    void _ClearTasks();
    void _BuildIndex();
    int _FolderNode(const QString& key);
    // The node of the folder that holds the entry of key, created with its ancestors up to the
    // root folder; -1 when that folder is outside the root folder.
    int _ContainingNode(const QString& key);
    void _Count(int node, bool file, int status, int delta);
    void _SetFileStatus(int index, sync::config::FileSynchronizationStatus status);
    void _SetFolderStatus(int index, sync::config::FolderSynchronizationStatus status);

    // What a report needs of each folder on its way up, worked out once per folder: a
    // depot's reports climb through the same few folders again and again.
    struct FolderLink {
        QString key;     // PathKey of the folder's path
        QString parent;  // Walker::GetParentFolder of it
    };
    const FolderLink& _Link(const QString& cleanedPath);

    // Walks from path up to the root folder; opens scope at the first write.
    void _DecideFolderStatus(const QString& path, sync::config::FolderSynchronizationStatus status,
                             std::optional<sync::database::TransactionalScope>& scope);
    sync::config::FolderSynchronizationStatus _DetermineFolderStatusByAllSubFilesFolders(
        const QString& key) const;
    void _UpdateFolderConfig(const QString& path, const QString& key,
                             sync::config::FolderSynchronizationStatus status,
                             std::optional<sync::database::TransactionalScope>& scope);

    sync::config::FolderConfiguration _rootFolder;
    TaskList _serverFileCreationTasks;
    TaskList _serverFileDeletionTasks;
    TaskList _localFileCreationTasks;
    TaskList _localFileDeletionTasks;
    TaskList _serverFolderCreationTasks;
    TaskList _serverFolderDeletionTasks;
    TaskList _localFolderCreationTasks;
    TaskList _localFolderDeletionTasks;
    std::shared_ptr<sync::interf::IFolderConfigManager> _folderConfigManager;
    std::shared_ptr<sync::interf::IFileConfigManager> _fileConfigManager;

    bool _started = false;  // between Start and End; reports while idle are dropped
    QString _rootKey;
    std::vector<FolderNode> _folderNodes;
    QHash<QString, int> _folderNodeByKey;
    std::vector<Counted<sync::config::FileConfiguration>> _files;
    std::vector<Counted<sync::config::FolderConfiguration>> _folders;
    // The first record of each path in walk order, the one a report for that path settles.
    QHash<QString, int> _fileByKey;
    QHash<QString, int> _folderByKey;
    // The status each folder record is known to hold since the monitor last read or wrote it,
    // by path key, so that a report reads a folder above it only when its status changes. Only
    // the monitor writes the status of a folder it has not been told about; a folder reported
    // through UpdateFolder is read again, since its worker may have just written it.
    QHash<QString, sync::config::FolderSynchronizationStatus> _storedFolderStatus;
    // By cleaned folder path.
    QHash<QString, FolderLink> _folderLinks;
};

}  // namespace syncService
}  // namespace sync
