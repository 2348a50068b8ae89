#pragma once

#include <QStringList>
#include <memory>

#include "ISyncTaskEngine.h"

namespace sync {
namespace test {

// Stands in front of a task engine: it prunes each depot as the real engine does before its
// first step and writes the tasks down as lines ("plan LocalFileCreation /Docs/a.txt"), so that
// a scenario reads what the planning decided, then hands the depot on. Without an engine behind
// it nothing is executed.
class PlanRecorder : public sync::interf::ISyncTaskEngine {
public:
    explicit PlanRecorder(std::shared_ptr<sync::interf::ISyncTaskEngine> engine = nullptr);

    sync::core::SyncResults Process(const sync::config::FolderConfiguration& root,
                                    std::shared_ptr<sync::interf::ISyncTaskDepot> depot) override;
    void SetFilteredLocalFolderCount(int n) override;
    void SetFilteredLocalFileCount(int n) override;
    void SetFilteredServerFolderCount(int n) override;
    void SetFilteredServerFileCount(int n) override;
    void InitFilteredCount() override;
    void TransferLocalOrServerFolderCreated(
        const QString& path, sync::config::FolderSynchronizationStatus status) override;
    void HandleSubFolderFilteredOut(QString path) override;
    void HandleFileFilteredOut(QString path) override;

    // The tasks of every depot processed so far.
    QStringList plan;

private:
    std::shared_ptr<sync::interf::ISyncTaskEngine> _engine;
};

}  // namespace test
}  // namespace sync
