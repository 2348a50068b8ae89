#include "PlanningRunner.h"

#include "EntryInfoTreeChange.h"
#include "ExcludedEntryPruner.h"
#include "SyncTaskDepot.h"

namespace sync {
namespace test {

using sync::syncService::EntryInfoTree;
using sync::syncService::EntryInfoTreeChange;
using sync::syncService::SyncTaskDepot;

namespace {

QString ActionName(sync::syncService::EntryAction action) {
    switch (action) {
        case sync::syncService::NoChange:
            return QStringLiteral("NoChange");
        case sync::syncService::Added:
            return QStringLiteral("Added");
        case sync::syncService::Deleted:
            return QStringLiteral("Deleted");
        case sync::syncService::Modified:
            return QStringLiteral("Modified");
    }
    return QString::number(action);
}

}  // namespace

PlanningRunner::PlanningRunner(
    std::shared_ptr<sync::interf::IEntryInfoTreeRetriever> localRetriever,
    std::shared_ptr<sync::interf::IEntryInfoTreeRetriever> configRetriever,
    std::shared_ptr<sync::interf::IEntryInfoTreeRetriever> serverRetriever,
    std::shared_ptr<sync::interf::factory::ICoreFactory> coreFactory)
    : _localRetriever(std::move(localRetriever)),
      _configRetriever(std::move(configRetriever)),
      _serverRetriever(std::move(serverRetriever)),
      _checkForExit(coreFactory->CreateCheckForExit()) {}

std::shared_ptr<SyncTaskDepot> PlanningRunner::Process(sync::config::FolderConfiguration& root) {
    auto depot = std::make_shared<SyncTaskDepot>();
    const std::shared_ptr<EntryInfoTree> local = _localRetriever->GetEntryInfoTree(root);
    if (!local || _checkForExit->ShouldExit()) return depot;
    const std::shared_ptr<EntryInfoTree> config = _configRetriever->GetEntryInfoTree(root);
    if (!config || _checkForExit->ShouldExit()) return depot;
    const std::shared_ptr<EntryInfoTree> server = _serverRetriever->GetEntryInfoTree(root);
    if (!server || _checkForExit->ShouldExit()) return depot;

    sync::syncService::ExcludedEntryPruner::Prune(root.serverPath, *config, *local, *server);
    // A server that answered "not modified" reported no tree to compare.
    if (_serverRetriever->IsTreeModified())
        _Record(QStringLiteral("server"), _serverDiffer.Diff(*config, *server, true));
    _Record(QStringLiteral("local"), _localDiffer.Diff(*config, *local, false));
    emit ConfigDataRetrieved(local.get(), config.get(), server.get());
    return depot;
}

void PlanningRunner::_Record(const QString& side, const EntryInfoTreeChange& change) {
    for (auto it = change._folderActionMap.constBegin(); it != change._folderActionMap.constEnd();
         ++it)
        plan << QStringLiteral("%1 %2 folder %3")
                    .arg(side, ActionName(it.value()),
                         change._folderMap.value(it.key()).serverPath);
    for (auto it = change._fileActionMap.constBegin(); it != change._fileActionMap.constEnd();
         ++it) {
        const sync::config::FileConfiguration file = change._fileMap.value(it.key());
        plan << QStringLiteral("%1 %2 file %3%4")
                    .arg(side, ActionName(it.value()), file.serverPath,
                         file.referencesOnly ? QStringLiteral(" (references only)") : QString());
    }
}

}  // namespace test
}  // namespace sync
