#pragma once

#include <memory>
#include <type_traits>

#include "ISyncTask.h"
#include "SyncServiceException.h"

namespace sync {
namespace syncService {

// One unit of work on a copy of one record. The trees and change sets are shared with the
// runner and every other task of the root folder; a task never copies them.
template <typename T>
class SyncTask : public sync::interf::ISyncTask {
    static_assert(std::is_same<T, sync::config::FileConfiguration>::value ||
                      std::is_same<T, sync::config::FolderConfiguration>::value,
                  "a task works on a file or a folder record");

public:
    SyncTask() = default;
    // The server-side argument comes first in each pair.
    SyncTask(SyncTaskType type, const T& config, EntryAction serverAction, EntryAction localAction,
             std::shared_ptr<EntryInfoTree> serverTree, std::shared_ptr<EntryInfoTree> configTree,
             std::shared_ptr<EntryInfoTree> localTree,
             std::shared_ptr<EntryInfoTreeChange> serverChange,
             std::shared_ptr<EntryInfoTreeChange> localChange)
        : _syncTaskType(type),
          _config(config),
          _serverAction(serverAction),
          _localAction(localAction),
          _serverTree(std::move(serverTree)),
          _configTree(std::move(configTree)),
          _localTree(std::move(localTree)),
          _localChange(std::move(localChange)),
          _serverChange(std::move(serverChange)) {}
    SyncTask(const SyncTask& other) : sync::interf::ISyncTask() { _CopyFrom(other); }
    // Copies any task of the same record kind, whatever its concrete class.
    explicit SyncTask(sync::interf::ISyncTask& other) : sync::interf::ISyncTask() {
        _syncTaskType = other.GetSyncTaskType();
        _config = RecordOf(other);
        _serverAction = other.GetServerChangeAction();
        _localAction = other.GetLocalChangeAction();
        _serverTree = other.GetServerTree();
        _configTree = other.GetConfigTree();
        _localTree = other.GetLocalTree();
        _localChange = other.GetLocalChange();
        _serverChange = other.GetServerChange();
    }
    SyncTask& operator=(const SyncTask& other) {
        if (this != &other) _CopyFrom(other);
        return *this;
    }
    ~SyncTask() override = default;

    SyncTaskType GetSyncTaskType() const override { return _syncTaskType; }
    EntryAction GetLocalChangeAction() const override { return _localAction; }
    EntryAction GetServerChangeAction() const override { return _serverAction; }
    std::shared_ptr<EntryInfoTree> GetLocalTree() const override { return _localTree; }
    std::shared_ptr<EntryInfoTree> GetConfigTree() const override { return _configTree; }
    std::shared_ptr<EntryInfoTree> GetServerTree() const override { return _serverTree; }
    std::shared_ptr<EntryInfoTreeChange> GetServerChange() const override { return _serverChange; }
    std::shared_ptr<EntryInfoTreeChange> GetLocalChange() const override { return _localChange; }

    bool IsFileTask() const override { return IsFileTaskType(_syncTaskType); }

    sync::config::FileConfiguration& GetFileConfig() override {
        if (!IsFileTask())
            throw SyncServiceException(
                QStringLiteral("SyncTask type is folder task, cannot get the file config"));
        return FileRecord(_config);
    }

    sync::config::FolderConfiguration& GetFolderConfig() override {
        if (IsFileTask())
            throw SyncServiceException(
                QStringLiteral("SyncTask type is file task, cannot get the folder config"));
        return FolderRecord(_config);
    }

    const QString& GetKey() const override {
        if (_syncTaskType == None)
            throw SyncServiceException(
                QStringLiteral("_syncTaskType is none task type, cannot get key"));
        return _config.serverPath;
    }

    virtual T& GetConfig() { return _config; }

    // Folder kinds are exactly 1, 2, 5 and 6; anything else, None included, is a file kind.
    static bool IsFileTaskType(SyncTaskType type) {
        return !(type == ServerFolderCreation || type == ServerFolderDeletion ||
                 type == LocalFolderCreation || type == LocalFolderDeletion);
    }

private:
    static sync::config::FileConfiguration& FileRecord(sync::config::FileConfiguration& r) {
        return r;
    }
    static sync::config::FileConfiguration& FileRecord(sync::config::FolderConfiguration&) {
        throw SyncServiceException(
            QStringLiteral("SyncTask type is folder task, cannot get the file config"));
    }
    static sync::config::FolderConfiguration& FolderRecord(sync::config::FolderConfiguration& r) {
        return r;
    }
    static sync::config::FolderConfiguration& FolderRecord(sync::config::FileConfiguration&) {
        throw SyncServiceException(
            QStringLiteral("SyncTask type is file task, cannot get the folder config"));
    }
    static T RecordOf(sync::interf::ISyncTask& other);

    void _CopyFrom(const SyncTask& o) {
        _syncTaskType = o._syncTaskType;
        _config = o._config;
        _serverAction = o._serverAction;
        _localAction = o._localAction;
        _serverTree = o._serverTree;
        _configTree = o._configTree;
        _localTree = o._localTree;
        _localChange = o._localChange;
        _serverChange = o._serverChange;
    }

    SyncTaskType _syncTaskType = None;
    T _config;
    EntryAction _serverAction = NoChange;
    EntryAction _localAction = NoChange;
    std::shared_ptr<EntryInfoTree> _serverTree;
    std::shared_ptr<EntryInfoTree> _configTree;
    std::shared_ptr<EntryInfoTree> _localTree;
    std::shared_ptr<EntryInfoTreeChange> _localChange;
    std::shared_ptr<EntryInfoTreeChange> _serverChange;
};

template <>
inline sync::config::FileConfiguration SyncTask<sync::config::FileConfiguration>::RecordOf(
    sync::interf::ISyncTask& other) {
    return other.GetFileConfig();
}

template <>
inline sync::config::FolderConfiguration SyncTask<sync::config::FolderConfiguration>::RecordOf(
    sync::interf::ISyncTask& other) {
    return other.GetFolderConfig();
}

using FileSyncTask = SyncTask<sync::config::FileConfiguration>;
using FolderSyncTask = SyncTask<sync::config::FolderConfiguration>;

}  // namespace syncService
}  // namespace sync
