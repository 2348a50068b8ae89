#pragma once

#include <QList>
#include <QObject>
#include <QSet>
#include <QString>
#include <QStringList>
#include <QWeakPointer>
#include <exception>
#include <memory>

#include "FolderConfiguration.h"
#include "IAuthenticationConfigManager.h"
#include "ICheckForExit.h"
#include "IConnectedToNetwork.h"
#include "ICoreFactory.h"
#include "IEntryInfoTreeRetriever.h"
#include "IFileConfigManager.h"
#include "IFolderConfigManager.h"
#include "IFolderFilter.h"
#include "IQDirWrapper.h"
#include "IRemoteFolderManagerFactory.h"
#include "IServerConfigManager.h"
#include "ISyncHostApplication.h"
#include "ISyncSignalsAndSlots.h"
#include "ISyncTask.h"
#include "ISyncTaskEngine.h"
#include "ISynchronizeRunner.h"
#include "ISynchronizer.h"
#include "IValidateLoginCredentials.h"
#include "SyncResults.h"

namespace sync {
namespace syncService {

// One synchronisation cycle over every configured root folder: audits the database, creates
// missing root folders, plans and executes each root folder and reports the outcome through
// signals, log lines and the action log. Lives for one cycle on the service thread.
class Synchronizer : public sync::interf::ISynchronizer {
    Q_OBJECT
public:
    using TaskList = QList<std::shared_ptr<sync::interf::ISyncTask>>;

    Synchronizer(
        std::shared_ptr<sync::interf::IAuthenticationConfigManager> authenticationConfigManager,
        std::shared_ptr<sync::interf::IServerConfigManager> serverConfigManager,
        std::shared_ptr<sync::interf::ISyncHostApplication> hostApplication,
        std::shared_ptr<sync::interf::IFileConfigManager> fileConfigManager,
        std::shared_ptr<sync::interf::IFolderConfigManager> folderConfigManager,
        std::shared_ptr<sync::interf::factory::IRemoteFolderManagerFactory>
            remoteFolderManagerFactory,
        std::shared_ptr<sync::interf::IQDirWrapper> dirWrapper,
        std::shared_ptr<sync::interf::ISyncTaskEngine> taskEngine,
        std::shared_ptr<sync::interf::factory::ICoreFactory> coreFactory,
        std::shared_ptr<sync::interf::IValidateLoginCredentials> validateLoginCredentials,
        QWeakPointer<sync::interf::ISyncSignalsAndSlots> signalsAndSlots,
        std::shared_ptr<sync::interf::IEntryInfoTreeRetriever> localTreeRetriever,
        std::shared_ptr<sync::interf::IEntryInfoTreeRetriever> configTreeRetriever,
        std::shared_ptr<sync::interf::IEntryInfoTreeRetriever> serverTreeRetriever,
        std::shared_ptr<sync::interf::ISynchronizeRunner> runner,
        std::shared_ptr<sync::interf::IFolderFilter> folderFilter);
    ~Synchronizer() override;

    sync::core::SyncResults Synchronize() override;

Q_SIGNALS:
    void SyncingFolders();
    void BeginSyncingRootFolder(long folderId, sync::core::SyncResults results, bool isFirstSync);
    void FinishedSyncingRootFolder(long folderId, sync::core::SyncResults results,
                                   bool isFirstSync);
    void FolderSyncError(QString folderAbsolutePath, long folderId, int httpErrorCode);
    void FolderAuthenticationError(long folderId);
    void FinishedSyncingFolders(bool wasError);
    void ConnectionError(int errCode);

public Q_SLOTS:
    void OnLocalFolderFiltered(QString path);
    void OnLocalFileFiltered(QString path);
    void OnServerFolderFiltered(QString path);
    void OnServerFileFiltered(QString path);

private:
    void _ConnectSignals();

    // Root folder synchronisation.
    sync::core::SyncResults _SynchronizeRootFolder(sync::config::FolderConfiguration& root);
    sync::core::SyncResults _CreateRootFolder(sync::config::FolderConfiguration& root);
    void _MarkRootContentNotSynchronized(const sync::config::FolderConfiguration& root);
    bool _IsServerPathServerRoot(const sync::config::FolderConfiguration& root) const;
    void _UpdateRootFolderStatusForOutOfSync(int folderId);
    QStringList _GetFileConfigurationList(const std::shared_ptr<TaskList>& tasks,
                                          const QList<QString>* excluded = nullptr) const;
    QStringList _GetFolderConfigurationList(const std::shared_ptr<TaskList>& tasks,
                                            const QList<QString>* excluded = nullptr) const;
    static bool _Contains(const QList<QString>* list, const QString& path);
    // The entries of the list, letter case folded, for lookups that ignore case.
    static QSet<QString> _CaseFolded(const QList<QString>* list);
    bool _ConfiguredFolderExists(const sync::config::FolderConfiguration& root);
    static bool _RemoveFolderConfigWhenRootFolderMissing(
        const sync::config::FolderConfiguration& root);
    bool _StillValidFolderConfig(const sync::config::FolderConfiguration& root);

    // What one root folder of the cycle loop came to.
    struct RootOutcome {
        bool skipped = false;  // the record was gone before anything was done
        sync::core::SyncResults results;
        int errorCode = 0;      // reported with FolderSyncError
        int exceptionCode = 0;  // an HTTP status that ended the root, counted in the total
        bool failed = false;    // the root ends with errors: status, signals
    };

    // Steps of the cycle loop.
    void _RepairRootFolderRecord(sync::config::FolderConfiguration& root);
    // Returns true when the missing root is reported as an error.
    bool _HandleMissingLocalRoot(sync::config::FolderConfiguration& root);
    RootOutcome _SynchronizeRootFolderRecord(
        sync::config::FolderConfiguration& root,
        sync::config::FolderSynchronizationStatus statusBefore);
    void _RecordRootException(const sync::config::FolderConfiguration& root,
                              const std::exception_ptr& error, RootOutcome& outcome);
    static int _ErrorCodeOf(const sync::core::SyncResults& results);
    static void _LogErrorReport(const sync::config::FolderConfiguration& root,
                                const sync::core::SyncResults& results);
    QString _ServerUrlOf(const sync::config::FolderConfiguration& root);

    // Database audit and cleanup.
    void _AuditDatabase();
    void _FixRootFolders();
    void _RemoveFolderConfigurationsOfNonExistingRootFolders();
    void _RemoveFileConfigurationsOfNonExistingRootFolders();
    void _CleanupBaseFiles();
    void _CleanupDb(const sync::config::FolderConfiguration& root);
    void _RemoveRootFolderConfig(const sync::config::FolderConfiguration& root);
    void _ReleaseMemory();

    // Action log.
    void _AddSyncCompleteToActionLog(const sync::config::FolderConfiguration& root,
                                     sync::core::SyncResults& results, bool wasOutOfSync);
    void _AddNetworkDriveConnectFailedToActionLog(const sync::config::FolderConfiguration& root);

    std::shared_ptr<sync::interf::IAuthenticationConfigManager> _authenticationConfigManager;
    std::shared_ptr<sync::interf::IServerConfigManager> _serverConfigManager;
    std::shared_ptr<sync::interf::ISyncHostApplication> _hostApplication;
    std::shared_ptr<sync::interf::IFileConfigManager> _fileConfigManager;
    std::shared_ptr<sync::interf::IFolderConfigManager> _folderConfigManager;
    std::shared_ptr<sync::interf::factory::IRemoteFolderManagerFactory> _remoteFolderManagerFactory;
    std::shared_ptr<sync::interf::IQDirWrapper> _dirWrapper;
    std::shared_ptr<sync::interf::ISyncTaskEngine> _taskEngine;
    std::shared_ptr<sync::interf::factory::ICoreFactory> _coreFactory;
    std::shared_ptr<sync::interf::IValidateLoginCredentials> _validateLoginCredentials;
    QWeakPointer<sync::interf::ISyncSignalsAndSlots> _signalsAndSlots;
    std::shared_ptr<sync::interf::IEntryInfoTreeRetriever> _localTreeRetriever;
    std::shared_ptr<sync::interf::IEntryInfoTreeRetriever> _configTreeRetriever;
    std::shared_ptr<sync::interf::IEntryInfoTreeRetriever> _serverTreeRetriever;
    std::shared_ptr<sync::interf::ISynchronizeRunner> _runner;
    std::shared_ptr<sync::interf::IFolderFilter> _folderFilter;

    std::shared_ptr<sync::interf::ICheckForExit> _checkForExit;
    std::shared_ptr<sync::interf::IConnectedToNetwork> _connectedToNetwork;
};

}  // namespace syncService
}  // namespace sync
