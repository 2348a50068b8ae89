#pragma once

#include <QObject>
#include <memory>

#include "EntryInfoTree.h"
#include "FolderConfiguration.h"

namespace sync {
namespace syncService {
class SyncTaskDepot;
}
namespace interf {

// Plans one root folder into a task depot.
class ISynchronizeRunner : public QObject {
    Q_OBJECT
public:
    ~ISynchronizeRunner() override = default;
    // Always a depot (possibly empty), never null. Server failures throw
    // sync::http::HttpException.
    virtual std::shared_ptr<sync::syncService::SyncTaskDepot> Process(
        sync::config::FolderConfiguration& root) = 0;

Q_SIGNALS:
    // The three trees of the planning pass; valid only during the emission.
    void ConfigDataRetrieved(sync::syncService::EntryInfoTree* localTree,
                             sync::syncService::EntryInfoTree* configTree,
                             sync::syncService::EntryInfoTree* serverTree);
};

}  // namespace interf
}  // namespace sync
