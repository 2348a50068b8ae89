#pragma once

#include <QStringList>
#include <memory>

#include "ICoreFactory.h"
#include "IEntryInfoTreeRetriever.h"
#include "ISyncTaskEngine.h"
#include "ISynchronizeRunner.h"
#include "LocalConfigTreeDiffer.h"
#include "ServerConfigTreeDiffer.h"

namespace sync {
namespace test {

// Plans a root folder with the engine's real retrievers, pruner and differs, and stops there:
// it writes both sides' change sets down as lines ("local Added file /Docs/a.txt", "server
// Deleted folder /Docs/old") and hands back an empty depot. It stands in for the runner until
// conflict resolution and the task engine exist; scenarios then see what would be done.
class PlanningRunner : public sync::interf::ISynchronizeRunner {
public:
    PlanningRunner(std::shared_ptr<sync::interf::IEntryInfoTreeRetriever> localRetriever,
                   std::shared_ptr<sync::interf::IEntryInfoTreeRetriever> configRetriever,
                   std::shared_ptr<sync::interf::IEntryInfoTreeRetriever> serverRetriever,
                   std::shared_ptr<sync::interf::factory::ICoreFactory> coreFactory);

    std::shared_ptr<sync::syncService::SyncTaskDepot> Process(
        sync::config::FolderConfiguration& root) override;

    // The planned changes of every root folder processed so far.
    QStringList plan;

private:
    void _Record(const QString& side, const sync::syncService::EntryInfoTreeChange& change);

    std::shared_ptr<sync::interf::IEntryInfoTreeRetriever> _localRetriever;
    std::shared_ptr<sync::interf::IEntryInfoTreeRetriever> _configRetriever;
    std::shared_ptr<sync::interf::IEntryInfoTreeRetriever> _serverRetriever;
    std::shared_ptr<sync::interf::ICheckForExit> _checkForExit;
    sync::syncService::LocalConfigTreeDiffer _localDiffer;
    sync::syncService::ServerConfigTreeDiffer _serverDiffer;
};

// A task engine that executes nothing: every depot comes back as done without work.
class IdleTaskEngine : public sync::interf::ISyncTaskEngine {
public:
    sync::core::SyncResults Process(const sync::config::FolderConfiguration&,
                                    std::shared_ptr<sync::interf::ISyncTaskDepot>) override {
        return sync::core::SyncResults();
    }
    void SetFilteredLocalFolderCount(int) override {}
    void SetFilteredLocalFileCount(int) override {}
    void SetFilteredServerFolderCount(int) override {}
    void SetFilteredServerFileCount(int) override {}
    void InitFilteredCount() override {}
    void TransferLocalOrServerFolderCreated(const QString&,
                                            sync::config::FolderSynchronizationStatus) override {}
    void HandleSubFolderFilteredOut(QString) override {}
    void HandleFileFilteredOut(QString) override {}
};

}  // namespace test
}  // namespace sync
