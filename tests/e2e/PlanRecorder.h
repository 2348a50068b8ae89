#pragma once

#include <QStringList>
#include <memory>

#include "ISyncTaskEngine.h"

namespace sync {
namespace test {

// A task engine that executes nothing: it prunes each depot as the real engine does before its
// first step and writes the tasks down as lines ("plan LocalFileCreation /Docs/a.txt"), so that
// a scenario reads what the planning decided.
class PlanRecorder : public sync::interf::ISyncTaskEngine {
public:
    sync::core::SyncResults Process(const sync::config::FolderConfiguration& root,
                                    std::shared_ptr<sync::interf::ISyncTaskDepot> depot) override;
    void SetFilteredLocalFolderCount(int) override {}
    void SetFilteredLocalFileCount(int) override {}
    void SetFilteredServerFolderCount(int) override {}
    void SetFilteredServerFileCount(int) override {}
    void InitFilteredCount() override {}
    void TransferLocalOrServerFolderCreated(const QString&,
                                            sync::config::FolderSynchronizationStatus) override {}
    void HandleSubFolderFilteredOut(QString) override {}
    void HandleFileFilteredOut(QString) override {}

    // The tasks of every depot processed so far.
    QStringList plan;
};

}  // namespace test
}  // namespace sync
