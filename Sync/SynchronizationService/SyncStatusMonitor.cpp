#include "SyncStatusMonitor.h"

#include <QDir>
#include <QFileInfo>
#include <functional>
#include <initializer_list>
#include <utility>

#include "EntryInfoTree.h"
#include "SyncTaskType.h"

namespace sync {
namespace syncService {

using sync::config::FileConfiguration;
using sync::config::FileSynchronizationStatus;
using sync::config::FolderConfiguration;
using sync::config::FolderSynchronizationStatus;

namespace {

constexpr int kSynchronized = static_cast<int>(FolderSynchronizationStatus::Synchronized);
constexpr int kSynchronizing = static_cast<int>(FolderSynchronizationStatus::Synchronizing);

// Runs a function on every record of a walk.
class RecordVisitor : public syncStatusMonitor::Walker {
public:
    RecordVisitor(std::function<void(FolderConfiguration&)> onFolder,
                  std::function<void(FileConfiguration&)> onFile)
        : _onFolder(std::move(onFolder)), _onFile(std::move(onFile)) {}
    bool Visit(FolderConfiguration& folder) override {
        _onFolder(folder);
        return true;
    }
    bool Visit(FileConfiguration& file) override {
        _onFile(file);
        return true;
    }

private:
    std::function<void(FolderConfiguration&)> _onFolder;
    std::function<void(FileConfiguration&)> _onFile;
};

}  // namespace

namespace syncStatusMonitor {

QString Walker::GetParentFolder(const QString& path) {
    for (int i = path.size() - 2; i >= 0; --i)
        if (path.at(i) == QLatin1Char('/')) return path.left(i);
    return path;
}

QString PathKey(const QString& path) {
    // Qt folds every character through the Unicode tables; the monitor folds several paths per
    // report, nearly all of them ASCII.
    QString key = EntryInfoTree::LowerAscii(
        QDir::cleanPath(path), [](const QString& text) { return text.toCaseFolded(); });
    // Only "/" keeps its '/' after cleaning; as a folder it is the empty prefix of every
    // absolute path, the way FolderUtilities::IsParent sees it.
    if (key.endsWith(QLatin1Char('/'))) key.chop(1);
    return key;
}

bool IsSameOrBelow(const QString& key, const QString& folderKey) {
    if (!key.startsWith(folderKey)) return false;
    return key.size() == folderKey.size() || key.at(folderKey.size()) == QLatin1Char('/');
}

MarkFoldersSyncing::MarkFoldersSyncing(
    std::shared_ptr<sync::interf::IFolderConfigManager> folderConfigManager,
    std::shared_ptr<sync::interf::IFileConfigManager> fileConfigManager,
    const FolderConfiguration& rootFolder)
    : _folderConfigManager(std::move(folderConfigManager)),
      _fileConfigManager(std::move(fileConfigManager)),
      _rootKey(PathKey(rootFolder.localPath)),
      _authenticationId(rootFolder.authenticationId) {}

bool MarkFoldersSyncing::Visit(FolderConfiguration& folder) {
    folder.setSyncStatus(FolderSynchronizationStatus::Synchronizing);
    _MarkFolders(folder.localPath);
    return true;
}

bool MarkFoldersSyncing::Visit(FileConfiguration& file) {
    file.syncStatus = FileSynchronizationStatus::Synchronizing;
    file.syncStatusSet = true;
    if (file.id != -1) _fileConfigManager->UpdateFile(file);
    _MarkFolders(QFileInfo(file.localPath).absolutePath());
    return true;
}

void MarkFoldersSyncing::_MarkFolders(const QString& path) {
    // Cleaned, so that the database is asked for the folder the key names.
    QString current = QDir::cleanPath(path);
    for (;;) {
        const QString key = PathKey(current);
        // Above the root, or already done for another entry together with all above it.
        if (!IsSameOrBelow(key, _rootKey) || _visitedFolders.contains(key)) return;
        FolderConfiguration folder =
            _folderConfigManager->GetFolderByPath(current, _authenticationId);
        if (folder.id != -1 &&
            folder.getSyncStatus() != FolderSynchronizationStatus::Synchronizing) {
            folder.setSyncStatus(FolderSynchronizationStatus::Synchronizing);
            _folderConfigManager->UpdateFolder(folder);
        }
        _visitedFolders.insert(key);
        const QString parent = Walker::GetParentFolder(current);
        if (parent == current) return;
        current = parent;
    }
}

}  // namespace syncStatusMonitor

SyncStatusMonitor::SyncStatusMonitor(
    std::shared_ptr<sync::interf::IFolderConfigManager> folderConfigManager,
    std::shared_ptr<sync::interf::IFileConfigManager> fileConfigManager)
    : _folderConfigManager(std::move(folderConfigManager)),
      _fileConfigManager(std::move(fileConfigManager)) {}

void SyncStatusMonitor::Start(const FolderConfiguration& rootFolder,
                              sync::interf::ISyncTaskDepot& depot) {
    _ClearTasks();
    _rootFolder = rootFolder;
    _serverFileCreationTasks = depot.GetSyncTaskList(ServerFileCreation);
    _serverFileDeletionTasks = depot.GetSyncTaskList(ServerFileDeletion);
    _localFileCreationTasks = depot.GetSyncTaskList(LocalFileCreation);
    _localFileDeletionTasks = depot.GetSyncTaskList(LocalFileDeletion);
    _serverFolderCreationTasks = depot.GetSyncTaskList(ServerFolderCreation);
    _serverFolderDeletionTasks = depot.GetSyncTaskList(ServerFolderDeletion);
    _localFolderCreationTasks = depot.GetSyncTaskList(LocalFolderCreation);
    _localFolderDeletionTasks = depot.GetSyncTaskList(LocalFolderDeletion);

    bool anyTask = false;
    for (const TaskList* tasks : _TaskLists())
        anyTask = anyTask || (*tasks && !(*tasks)->isEmpty());
    if (anyTask) {
        sync::database::TransactionalScope scope;
        syncStatusMonitor::MarkFoldersSyncing mark(_folderConfigManager, _fileConfigManager,
                                                   _rootFolder);
        _WalkFoldersInDepot(mark);
        _WalkFilesInDepot(mark);
        scope.commit();
    }
    _BuildIndex();
    _started = true;
}

void SyncStatusMonitor::End() {
    _ClearTasks();
}

void SyncStatusMonitor::UpdateFolder(const QString& path, FolderSynchronizationStatus status) {
    if (!_started) return;
    _storedFolderStatus.remove(syncStatusMonitor::PathKey(path));
    std::optional<sync::database::TransactionalScope> scope;
    _DecideFolderStatus(path, status, scope);
    if (scope) scope->commit();
}

void SyncStatusMonitor::UpdateFile(const QString& path, FileSynchronizationStatus status) {
    if (!_started) return;
    const auto file = _fileByKey.constFind(syncStatusMonitor::PathKey(path));
    if (file != _fileByKey.constEnd()) _SetFileStatus(*file, status);
    std::optional<sync::database::TransactionalScope> scope;
    _DecideFolderStatus(QFileInfo(path).absolutePath(), FolderSynchronizationStatus::Synchronizing,
                        scope);
    if (scope) scope->commit();
}

std::array<SyncStatusMonitor::TaskList*, 8> SyncStatusMonitor::_TaskLists() {
    return {&_serverFileCreationTasks,  &_serverFileDeletionTasks,   &_localFileCreationTasks,
            &_localFileDeletionTasks,   &_serverFolderCreationTasks, &_serverFolderDeletionTasks,
            &_localFolderCreationTasks, &_localFolderDeletionTasks};
}

bool SyncStatusMonitor::_WalkFoldersInDepot(syncStatusMonitor::Walker& walker) {
    for (const TaskList* tasks : {&_serverFolderCreationTasks, &_serverFolderDeletionTasks,
                                  &_localFolderCreationTasks, &_localFolderDeletionTasks})
        if (!_WalkFolderList(*tasks, walker)) return false;
    return true;
}

bool SyncStatusMonitor::_WalkFilesInDepot(syncStatusMonitor::Walker& walker) {
    for (const TaskList* tasks : {&_serverFileCreationTasks, &_serverFileDeletionTasks,
                                  &_localFileCreationTasks, &_localFileDeletionTasks})
        if (!_WalkFileList(*tasks, walker)) return false;
    return true;
}

bool SyncStatusMonitor::_WalkFolderList(const TaskList& tasks, syncStatusMonitor::Walker& walker) {
    if (!tasks) return true;
    for (const auto& task : *tasks)
        if (!walker.Visit(task->GetFolderConfig())) return false;
    return true;
}

bool SyncStatusMonitor::_WalkFileList(const TaskList& tasks, syncStatusMonitor::Walker& walker) {
    if (!tasks) return true;
    for (const auto& task : *tasks)
        if (!walker.Visit(task->GetFileConfig())) return false;
    return true;
}

void SyncStatusMonitor::_ClearTasks() {
    _started = false;
    for (TaskList* tasks : _TaskLists()) tasks->reset();
    _rootKey.clear();
    _folderNodes.clear();
    _folderNodeByKey.clear();
    _files.clear();
    _folders.clear();
    _fileByKey.clear();
    _folderByKey.clear();
    _storedFolderStatus.clear();
    _folderLinks.clear();
}

void SyncStatusMonitor::_BuildIndex() {
    _rootKey = syncStatusMonitor::PathKey(_rootFolder.localPath);
    RecordVisitor index(
        [this](FolderConfiguration& folder) {
            const QString key = syncStatusMonitor::PathKey(folder.localPath);
            Counted<FolderConfiguration> counted;
            counted.record = &folder;
            counted.folderNode = _ContainingNode(key);
            counted.status = static_cast<int>(folder.getSyncStatus());
            _Count(counted.folderNode, false, counted.status, 1);
            if (!_folderByKey.contains(key)) _folderByKey.insert(key, int(_folders.size()));
            _folders.push_back(counted);
        },
        [this](FileConfiguration& file) {
            const QString key = syncStatusMonitor::PathKey(file.localPath);
            Counted<FileConfiguration> counted;
            counted.record = &file;
            counted.folderNode = _ContainingNode(key);
            counted.status = static_cast<int>(file.syncStatus);
            _Count(counted.folderNode, true, counted.status, 1);
            if (!_fileByKey.contains(key)) _fileByKey.insert(key, int(_files.size()));
            _files.push_back(counted);
        });
    _WalkFoldersInDepot(index);
    _WalkFilesInDepot(index);
}

int SyncStatusMonitor::_FolderNode(const QString& key) {
    const auto found = _folderNodeByKey.constFind(key);
    if (found != _folderNodeByKey.constEnd()) return *found;
    // Below the root, key is the root's key, '/', and more: its parent is at or below the root.
    const int parent = key == _rootKey ? -1 : _FolderNode(key.left(key.lastIndexOf('/')));
    FolderNode node;
    node.parent = parent;
    _folderNodes.push_back(node);
    const int index = int(_folderNodes.size()) - 1;
    _folderNodeByKey.insert(key, index);
    return index;
}

int SyncStatusMonitor::_ContainingNode(const QString& key) {
    const int slash = key.lastIndexOf(QLatin1Char('/'));
    if (slash < 0) return -1;
    const QString folderKey = key.left(slash);
    if (!syncStatusMonitor::IsSameOrBelow(folderKey, _rootKey)) return -1;
    return _FolderNode(folderKey);
}

void SyncStatusMonitor::_Count(int node, bool file, int status, int delta) {
    for (int n = node; n != -1; n = _folderNodes[n].parent) {
        Tally& tally = _folderNodes[n].tally;
        if (status == kSynchronizing)
            (file ? tally.filesSynchronizing : tally.foldersSynchronizing) += delta;
        if (status != kSynchronized)
            (file ? tally.filesNotSynchronized : tally.foldersNotSynchronized) += delta;
    }
}

void SyncStatusMonitor::_SetFileStatus(int index, FileSynchronizationStatus status) {
    Counted<FileConfiguration>& counted = _files[index];
    counted.record->syncStatus = status;
    counted.record->syncStatusSet = true;
    const int value = static_cast<int>(status);
    if (value == counted.status) return;
    _Count(counted.folderNode, true, counted.status, -1);
    _Count(counted.folderNode, true, value, 1);
    counted.status = value;
}

void SyncStatusMonitor::_SetFolderStatus(int index, FolderSynchronizationStatus status) {
    Counted<FolderConfiguration>& counted = _folders[index];
    counted.record->setSyncStatus(status);
    const int value = static_cast<int>(status);
    if (value == counted.status) return;
    _Count(counted.folderNode, false, counted.status, -1);
    _Count(counted.folderNode, false, value, 1);
    counted.status = value;
}

const SyncStatusMonitor::FolderLink& SyncStatusMonitor::_Link(const QString& path) {
    const auto found = _folderLinks.constFind(path);
    if (found != _folderLinks.constEnd()) return *found;
    FolderLink link;
    link.key = syncStatusMonitor::PathKey(path);
    link.parent = syncStatusMonitor::Walker::GetParentFolder(path);
    return *_folderLinks.insert(path, link);
}

void SyncStatusMonitor::_DecideFolderStatus(
    const QString& path, FolderSynchronizationStatus status,
    std::optional<sync::database::TransactionalScope>& scope) {
    // Cleaned, so that the database is asked for the folder the key names.
    QString current = QDir::cleanPath(path);
    FolderSynchronizationStatus reported = status;
    for (;;) {
        // Copied: the cache may grow, and move its entries, before this pass is done.
        const FolderLink link = _Link(current);
        const QString& key = link.key;
        if (!syncStatusMonitor::IsSameOrBelow(key, _rootKey)) return;
        const FolderSynchronizationStatus derived = _DetermineFolderStatusByAllSubFilesFolders(key);
        // A failed folder stays failed even when everything below it succeeded.
        const FolderSynchronizationStatus decided =
            reported == FolderSynchronizationStatus::OutOfSync &&
                    derived == FolderSynchronizationStatus::Synchronized
                ? FolderSynchronizationStatus::OutOfSync
                : derived;
        const auto folder = _folderByKey.constFind(key);
        if (folder != _folderByKey.constEnd()) _SetFolderStatus(*folder, decided);
        _UpdateFolderConfig(current, key, decided, scope);
        // Each folder above follows from its contents alone.
        if (link.parent == current) return;
        current = link.parent;
        reported = FolderSynchronizationStatus::Synchronizing;
    }
}

FolderSynchronizationStatus SyncStatusMonitor::_DetermineFolderStatusByAllSubFilesFolders(
    const QString& key) const {
    const auto node = _folderNodeByKey.constFind(key);
    if (node == _folderNodeByKey.constEnd()) return FolderSynchronizationStatus::Synchronized;
    const Tally& tally = _folderNodes[*node].tally;
    if (tally.filesSynchronizing > 0) return FolderSynchronizationStatus::Synchronizing;
    if (tally.filesNotSynchronized > 0) return FolderSynchronizationStatus::OutOfSync;
    if (tally.foldersSynchronizing > 0) return FolderSynchronizationStatus::Synchronizing;
    if (tally.foldersNotSynchronized > 0) return FolderSynchronizationStatus::OutOfSync;
    return FolderSynchronizationStatus::Synchronized;
}

void SyncStatusMonitor::_UpdateFolderConfig(
    const QString& path, const QString& key, FolderSynchronizationStatus status,
    std::optional<sync::database::TransactionalScope>& scope) {
    const auto known = _storedFolderStatus.constFind(key);
    if (known != _storedFolderStatus.constEnd() && *known == status) return;
    FolderConfiguration folder =
        _folderConfigManager->GetFolderByPath(path, _rootFolder.authenticationId);
    // Without a record the manager would write nothing.
    if (folder.id == -1) return;
    if (folder.getSyncStatus() != status) {
        if (!scope) scope.emplace();
        folder.setSyncStatus(status);
        if (!_folderConfigManager->UpdateFolder(folder)) return;
    }
    _storedFolderStatus.insert(key, status);
}

}  // namespace syncService
}  // namespace sync
