#pragma once

#include <QObject>
#include <QString>
#include <memory>

#include "EntryAction.h"
#include "EntryInfoTree.h"
#include "EntryInfoTreeChange.h"
#include "FileConfiguration.h"
#include "FolderConfiguration.h"
#include "SyncTaskType.h"

namespace sync {
namespace interf {

// One unit of work for one file or folder of a root folder.
class ISyncTask : public QObject {
    Q_OBJECT
public:
    ~ISyncTask() override = default;
    virtual sync::syncService::SyncTaskType GetSyncTaskType() const = 0;
    virtual sync::syncService::EntryAction GetLocalChangeAction() const = 0;
    virtual sync::syncService::EntryAction GetServerChangeAction() const = 0;
    virtual std::shared_ptr<sync::syncService::EntryInfoTree> GetLocalTree() const = 0;
    virtual std::shared_ptr<sync::syncService::EntryInfoTree> GetConfigTree() const = 0;
    virtual std::shared_ptr<sync::syncService::EntryInfoTree> GetServerTree() const = 0;
    virtual std::shared_ptr<sync::syncService::EntryInfoTreeChange> GetServerChange() const = 0;
    virtual std::shared_ptr<sync::syncService::EntryInfoTreeChange> GetLocalChange() const = 0;
    // False for the folder types 1, 2, 5 and 6.
    virtual bool IsFileTask() const = 0;
    // Throws sync::syncService::SyncServiceException on a folder task.
    virtual sync::config::FileConfiguration& GetFileConfig() = 0;
    // Throws sync::syncService::SyncServiceException on a file task.
    virtual sync::config::FolderConfiguration& GetFolderConfig() = 0;
    // The record's serverPath, case kept; throws SyncServiceException for type None.
    virtual const QString& GetKey() const = 0;
};

}  // namespace interf
}  // namespace sync
