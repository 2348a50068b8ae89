#include "Synchronizer.h"

#include <algorithm>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QHash>
#include <QVector>
#include <exception>

#include "CoreFactory.h"
#include "Finally.h"
#include "FolderUtilities.h"
#include "HttpException.h"
#include "SyncCodes.h"
#include "SyncLog.h"
#include "SyncMetaTypes.h"
#include "SyncServiceException.h"
#include "SyncTaskDepot.h"
#include "SyncTaskType.h"
#include "TransactionalScope.h"

namespace sync {
namespace syncService {

using sync::config::FileConfiguration;
using sync::config::FileSynchronizationStatus;
using sync::config::FolderConfiguration;
using sync::config::FolderSynchronizationStatus;
using sync::core::SyncResults;
using Category = sync::core::SyncResults::Category;

namespace {

namespace actionlog = sync::core::actionlog;
namespace http = sync::http;

constexpr int kTruncatedListLength = 25;

// The categories of the per-root-folder error report, in report order, with the line that
// lists each category's failed entries.
struct ErrorReportRow {
    Category category;
    const char* counterLabel;
    const char* failureListMessage;
};

const ErrorReportRow kErrorReport[] = {
    {SyncResults::FileServerCreation, " FileServerCreationErrors: %1",
     "FileServerCreationErrors: Failed to upload the following files:\n%1"},
    {SyncResults::FileServerDeletion, " FileServerDeletionErrors: %1",
     "FileServerDeletionErrors: Failed to delete the following files in server:\n%1"},
    {SyncResults::FolderServerCreation, " FolderServerCreationErrors: %1",
     "FolderServerCreationErrors: Failed to create the following folders in server:\n%1"},
    {SyncResults::FolderServerDeletion, " FolderServerDeletionErrors: %1",
     "FolderServerDeletionErrors: Failed to delete the following folders in server:\n%1"},
    {SyncResults::FileLocalCreation, " FileLocalCreationErrors: %1",
     "FileLocalCreationErrors: Failed to download the following files:\n%1"},
    {SyncResults::FileLocalDeletion, " FileLocalDeletionErrors: %1",
     "FileLocalDeletionErrors: Failed to delete the following files:\n%1"},
    {SyncResults::FolderLocalCreation, " FolderLocalCreationErrors: %1",
     "FolderLocalCreationErrors: Failed to create the following folders:\n%1"},
    {SyncResults::FolderLocalDeletion, " FolderLocalDeletionErrors: %1",
     "FolderLocalDeletionErrors: Failed to delete the following folderss:\n%1"},
};

struct TaskCategory {
    SyncTaskType type;
    Category category;
};

// Which category a task type's work is counted in; conflict marking is not counted.
const TaskCategory kPlannedOrder[] = {
    {LocalFolderCreation, SyncResults::FolderLocalCreation},
    {ServerFolderCreation, SyncResults::FolderServerCreation},
    {LocalFileCreation, SyncResults::FileLocalCreation},
    {ServerFileCreation, SyncResults::FileServerCreation},
    {LocalFileDeletion, SyncResults::FileLocalDeletion},
    {ServerFileDeletion, SyncResults::FileServerDeletion},
    {LocalFolderDeletion, SyncResults::FolderLocalDeletion},
    {ServerFolderDeletion, SyncResults::FolderServerDeletion},
};

const TaskCategory kFinalOrder[] = {
    {LocalFileCreation, SyncResults::FileLocalCreation},
    {ServerFileCreation, SyncResults::FileServerCreation},
    {LocalFileDeletion, SyncResults::FileLocalDeletion},
    {ServerFileDeletion, SyncResults::FileServerDeletion},
    {ServerFolderCreation, SyncResults::FolderServerCreation},
    {ServerFolderDeletion, SyncResults::FolderServerDeletion},
    {LocalFolderCreation, SyncResults::FolderLocalCreation},
    {LocalFolderDeletion, SyncResults::FolderLocalDeletion},
};

bool IsFolderType(SyncTaskType type) {
    return type == ServerFolderCreation || type == ServerFolderDeletion ||
           type == LocalFolderCreation || type == LocalFolderDeletion;
}

QString JoinTruncated(const QStringList& list) {
    return sync::core::FolderUtilities::GetTruncatedList(list, kTruncatedListLength)
        .join(QLatin1Char('\n'));
}

std::shared_ptr<sync::interf::IActionLog> ActionLog() {
    return sync::factory::CoreFactory::ActionLog();
}

}  // namespace

Synchronizer::Synchronizer(
    std::shared_ptr<sync::interf::IAuthenticationConfigManager> authenticationConfigManager,
    std::shared_ptr<sync::interf::IServerConfigManager> serverConfigManager,
    std::shared_ptr<sync::interf::ISyncHostApplication> hostApplication,
    std::shared_ptr<sync::interf::IFileConfigManager> fileConfigManager,
    std::shared_ptr<sync::interf::IFolderConfigManager> folderConfigManager,
    std::shared_ptr<sync::interf::factory::IRemoteFolderManagerFactory> remoteFolderManagerFactory,
    std::shared_ptr<sync::interf::IQDirWrapper> dirWrapper,
    std::shared_ptr<sync::interf::ISyncTaskEngine> taskEngine,
    std::shared_ptr<sync::interf::factory::ICoreFactory> coreFactory,
    std::shared_ptr<sync::interf::IValidateLoginCredentials> validateLoginCredentials,
    QWeakPointer<sync::interf::ISyncSignalsAndSlots> signalsAndSlots,
    std::shared_ptr<sync::interf::IEntryInfoTreeRetriever> localTreeRetriever,
    std::shared_ptr<sync::interf::IEntryInfoTreeRetriever> configTreeRetriever,
    std::shared_ptr<sync::interf::IEntryInfoTreeRetriever> serverTreeRetriever,
    std::shared_ptr<sync::interf::ISynchronizeRunner> runner,
    std::shared_ptr<sync::interf::IFolderFilter> folderFilter)
    : _authenticationConfigManager(std::move(authenticationConfigManager)),
      _serverConfigManager(std::move(serverConfigManager)),
      _hostApplication(std::move(hostApplication)),
      _fileConfigManager(std::move(fileConfigManager)),
      _folderConfigManager(std::move(folderConfigManager)),
      _remoteFolderManagerFactory(std::move(remoteFolderManagerFactory)),
      _dirWrapper(std::move(dirWrapper)),
      _taskEngine(std::move(taskEngine)),
      _coreFactory(std::move(coreFactory)),
      _validateLoginCredentials(std::move(validateLoginCredentials)),
      _signalsAndSlots(std::move(signalsAndSlots)),
      _localTreeRetriever(std::move(localTreeRetriever)),
      _configTreeRetriever(std::move(configTreeRetriever)),
      _serverTreeRetriever(std::move(serverTreeRetriever)),
      _runner(std::move(runner)),
      _folderFilter(std::move(folderFilter)) {
    // SyncResults crosses to the host's thread by value; it must be known before connecting.
    sync::core::RegisterSyncMetaTypes();
    if (!_coreFactory) _coreFactory = std::make_shared<sync::factory::CoreFactory>();
    _checkForExit = _coreFactory->CreateCheckForExit();
    _connectedToNetwork = _coreFactory->CreateConnectedToNetwork();
    _ConnectSignals();
}

Synchronizer::~Synchronizer() = default;

void Synchronizer::_ConnectSignals() {
    const QSharedPointer<sync::interf::ISyncSignalsAndSlots> host = _signalsAndSlots.toStrongRef();
    sync::interf::ISyncSignalsAndSlots* receiver = host.data();
    if (receiver) {
        // The host handles the reports on its own thread.
        connect(this, SIGNAL(ConnectionError(int)), receiver, SLOT(HandleConnectionError(int)),
                Qt::QueuedConnection);
        connect(this, SIGNAL(SyncingFolders()), receiver, SLOT(HandleSyncingFolders()),
                Qt::QueuedConnection);
        connect(this, SIGNAL(FolderSyncError(QString, long, int)), receiver,
                SLOT(HandleFolderSyncError(QString, long, int)), Qt::QueuedConnection);
        connect(this, SIGNAL(FolderAuthenticationError(long)), receiver,
                SLOT(HandleFolderAuthenticationError(long)), Qt::QueuedConnection);
        connect(this, SIGNAL(FinishedSyncingFolders(bool)), receiver,
                SLOT(HandleFinishedSyncingFolders(bool)), Qt::QueuedConnection);
        connect(this, SIGNAL(BeginSyncingRootFolder(long, sync::core::SyncResults, bool)), receiver,
                SLOT(HandleBeginSyncingRootFolder(long, sync::core::SyncResults, bool)),
                Qt::QueuedConnection);
        connect(this, SIGNAL(FinishedSyncingRootFolder(long, sync::core::SyncResults, bool)),
                receiver,
                SLOT(HandleFinishedSyncingRootFolder(long, sync::core::SyncResults, bool)),
                Qt::QueuedConnection);
    }

    sync::interf::IEntryInfoTreeRetriever* local = _localTreeRetriever.get();
    sync::interf::ISyncTaskEngine* engine = _taskEngine.get();
    if (local) {
        if (receiver)
            connect(local, SIGNAL(SubFolderNameNotAllowed(QString)), receiver,
                    SLOT(HandleSubFolderNameNotAllowed(QString)), Qt::QueuedConnection);
        if (engine) {
            connect(local, SIGNAL(SubFolderNameNotAllowed(QString)), engine,
                    SLOT(HandleSubFolderFilteredOut(QString)));
            connect(local, SIGNAL(FolderFilteredOut(QString)), engine,
                    SLOT(HandleSubFolderFilteredOut(QString)));
            connect(local, SIGNAL(FileFilteredOut(QString)), engine,
                    SLOT(HandleFileFilteredOut(QString)));
        }
        connect(local, SIGNAL(SubFolderNameNotAllowed(QString)), this,
                SLOT(OnLocalFolderFiltered(QString)));
        connect(local, SIGNAL(FolderFilteredOut(QString)), this,
                SLOT(OnLocalFolderFiltered(QString)));
        connect(local, SIGNAL(FileFilteredOut(QString)), this, SLOT(OnLocalFileFiltered(QString)));
    }

    if (sync::interf::IEntryInfoTreeRetriever* server = _serverTreeRetriever.get()) {
        connect(server, SIGNAL(FolderFilteredOut(QString)), this,
                SLOT(OnServerFolderFiltered(QString)));
        connect(server, SIGNAL(FileFilteredOut(QString)), this,
                SLOT(OnServerFileFiltered(QString)));
    }
}

void Synchronizer::OnLocalFolderFiltered(QString) {
    _taskEngine->SetFilteredLocalFolderCount(1);
}

void Synchronizer::OnLocalFileFiltered(QString) {
    _taskEngine->SetFilteredLocalFileCount(1);
}

void Synchronizer::OnServerFolderFiltered(QString) {
    _taskEngine->SetFilteredServerFolderCount(1);
}

void Synchronizer::OnServerFileFiltered(QString) {
    _taskEngine->SetFilteredServerFileCount(1);
}

// ---------------------------------------------------------------------------------------------
// The cycle

SyncResults Synchronizer::Synchronize() {
    sync::core::Finally releaseMemory([this] { _ReleaseMemory(); });

    if (!_connectedToNetwork->IsConnected()) {
        SYNC_LOG_ERROR("No internet connection");
        emit ConnectionError(actionlog::kNotConnected);
        return SyncResults();
    }
    if (_checkForExit->ShouldExit()) return SyncResults();

    SYNC_LOG_INFO("Sync beginning");
    if (_hostApplication) _hostApplication->SyncStarted();
    emit SyncingFolders();

    SyncResults total;
    _AuditDatabase();

    const QVector<FolderConfiguration> rootFolders = _folderConfigManager->GetRootFolders();
    QList<QString> seenLocalPaths;
    bool errorsReported = false;
    int synchronizedRootFolders = 0;

    for (const FolderConfiguration& record : rootFolders) {
        FolderConfiguration root(record);
        if (_checkForExit->ShouldExit()) break;
        if (root.hasSyncOption(sync::config::RootFolderReset)) continue;
        if (_folderFilter && !_folderFilter->IsRootFolderIncluded(root)) continue;

        if (_Contains(&seenLocalPaths, root.localPath)) {
            SYNC_LOG_WARN("Duplicate root folder record %1 found in database. Removing it.",
                          root.localPath);
            if (!_folderConfigManager->RemoveRootFolder(root.id))
                SYNC_LOG_WARN("Failed to remove duplicate root folder record %1 in database.",
                              root.localPath);
            continue;
        }
        seenLocalPaths.append(root.localPath);

        _RepairRootFolderRecord(root);
        const FolderSynchronizationStatus statusBefore = root.getSyncStatus();

        if (!_ConfiguredFolderExists(root) &&
            statusBefore != FolderSynchronizationStatus::NotSynchronized) {
            if (_HandleMissingLocalRoot(root)) errorsReported = true;
            continue;
        }

        const RootOutcome outcome = _SynchronizeRootFolderRecord(root, statusBefore);
        if (outcome.skipped) continue;
        ++synchronizedRootFolders;
        total += outcome.results;
        if (outcome.exceptionCode != 0) total.errorCodes[outcome.exceptionCode] += 1;

        if (outcome.failed) {
            _UpdateRootFolderStatusForOutOfSync(root.id);
            if (outcome.errorCode == http::Unauthorized) emit FolderAuthenticationError(root.id);
            emit FolderSyncError(root.localPath, root.id, outcome.errorCode);
            errorsReported = true;
        }

        _CleanupBaseFiles();
        emit FinishedSyncingRootFolder(
            root.id, outcome.results, statusBefore == FolderSynchronizationStatus::NotSynchronized);

        // The server is full: every further upload would fail the same way.
        if (outcome.errorCode == http::InsufficientStorage) break;
    }

    if (synchronizedRootFolders == 0) SYNC_LOG_INFO("No folder is enabled for sync");

    if (_checkForExit->ShouldExit())
        SYNC_LOG_INFO("Sync canceled");
    else if (errorsReported || total.anyErrors())
        SYNC_LOG_INFO("Sync finished with errors");
    else
        SYNC_LOG_INFO("Sync finished successfully");

    emit FinishedSyncingFolders(errorsReported || total.anyErrors());
    if (_hostApplication) _hostApplication->SyncFinished();
    return total;
}

Synchronizer::RootOutcome Synchronizer::_SynchronizeRootFolderRecord(
    FolderConfiguration& root, FolderSynchronizationStatus statusBefore) {
    RootOutcome outcome;
    try {
        if (!_StillValidFolderConfig(root)) {
            outcome.skipped = true;
            return outcome;
        }
        SYNC_LOG_INFO("Syncing root folder %1", root.localPath);

        outcome.results = _SynchronizeRootFolder(root);
        _AddSyncCompleteToActionLog(root, outcome.results,
                                    statusBefore == FolderSynchronizationStatus::OutOfSync);

        if (_checkForExit->ShouldExit()) {
            SYNC_LOG_INFO("Sync canceled for root folder %1", root.localPath);
        } else if (!outcome.results.anyErrors()) {
            const FolderConfiguration current = _folderConfigManager->GetFolderById(root.id);
            if (current.id < 0 ||
                current.getSyncStatus() == FolderSynchronizationStatus::Synchronized) {
                SYNC_LOG_INFO("Sync finished successfully for root folder %1", root.localPath);
            } else {
                SYNC_LOG_WARN(
                    "Sync finished successfully for root folder %1, but root folder sync "
                    "status (%2) is unexpected. Usually this indicates an internal error.",
                    root.localPath, current.getSyncStatus());
            }
        } else {
            outcome.errorCode = _ErrorCodeOf(outcome.results);
            _LogErrorReport(root, outcome.results);
            outcome.failed = true;
        }
    } catch (...) {
        _RecordRootException(root, std::current_exception(), outcome);
    }
    return outcome;
}

// The one place where an exception that ended a root folder becomes what the cycle reports.
void Synchronizer::_RecordRootException(const FolderConfiguration& root,
                                        const std::exception_ptr& error, RootOutcome& outcome) {
    try {
        std::rethrow_exception(error);
    } catch (const sync::http::HttpException& e) {
        // An account that was removed while its root folder synchronised is no error. A
        // database that cannot answer now must not turn a reported failure into an escape.
        bool removed = false;
        if (e.code == http::Unauthorized) {
            try {
                removed = !_StillValidFolderConfig(root);
            } catch (const std::exception&) {
            }
        }
        if (removed) return;
        SYNC_LOG_ERROR("%1", e.what());
        ActionLog()->AddHttpErrorEntry(actionlog::RootFolderFailed, e.code, root.localPath,
                                       root.name, _ServerUrlOf(root));
        outcome.exceptionCode = e.code;
        outcome.errorCode = e.code;
    } catch (const SyncServiceException& e) {
        ActionLog()->AddFolderEntry(actionlog::RootFolderFailed, root.localPath, root.name);
        SYNC_LOG_ERROR("%1", e.what());
    } catch (...) {
        auto log = ActionLog();
        log->AddFolderEntryWithDetails(actionlog::RootFolderFailed, root.localPath, root.name,
                                       log->CreateDetails(actionlog::UnexpectedError));
        SYNC_LOG_ERROR("Caught unknown, unexpected exception.  Swallowing exception.");
        // A database or disk failure says what went wrong; the user needs that line.
        try {
            throw;
        } catch (const std::exception& e) {
            SYNC_LOG_ERROR("%1", e.what());
        } catch (...) {
        }
    }
    outcome.failed = true;
}

void Synchronizer::_RepairRootFolderRecord(FolderConfiguration& root) {
    bool changed = false;
    if (root.privilegeInfo.isEmpty() && _hostApplication) {
        const QString text = _hostApplication->GetRootFolderText();
        if (text != root.privilegeInfo) {
            root.privilegeInfo = text;
            changed = true;
        }
    }
    if (root.inheritedId != root.id) {
        root.inheritedId = root.id;
        changed = true;
    }
    if (changed) {
        sync::database::TransactionalScope scope;
        _folderConfigManager->UpdateFolder(root);
    }
}

bool Synchronizer::_HandleMissingLocalRoot(FolderConfiguration& root) {
    if (_RemoveFolderConfigWhenRootFolderMissing(root)) {
        // Removal and re-adding belong together: a crash between them would lose the root.
        sync::database::TransactionalScope scope;
        _RemoveRootFolderConfig(root);
        if (root.hasSyncOption(sync::config::KeepRootFolderOnRemoval)) {
            // Added back as a fresh root, parked until the user sets it up again.
            root.setSyncOption(root.getSyncOption() | sync::config::RootFolderReset);
            root.setSyncStatus(FolderSynchronizationStatus::NotSynchronized);
            root.id = -1;
            root.rootId = -1;
            root.inheritedId = -1;
            root.parentId = -1;
            if (!_folderConfigManager->AddFolder(root))
                SYNC_LOG_ERROR("Error adding local folder into config db.  Path is: %1",
                               root.localPath);
        }
        scope.commit();
        return false;
    }
    // Any other location may only be unreachable for now (a network drive): keep the record.
    _AddNetworkDriveConnectFailedToActionLog(root);
    root.setSyncStatus(FolderSynchronizationStatus::OutOfSync);
    _folderConfigManager->UpdateFolder(root);
    return true;
}

int Synchronizer::_ErrorCodeOf(const SyncResults& results) {
    if (results.errorCodes.size() == 1) return results.errorCodes.firstKey();
    if (results.errorCodes.size() > 1) return -1;
    return 0;
}

void Synchronizer::_LogErrorReport(const FolderConfiguration& root, const SyncResults& results) {
    QString line =
        QStringLiteral("Sync finished with errors for root folder %1. Errors:").arg(root.localPath);
    for (const ErrorReportRow& row : kErrorReport) {
        const int count = results.errors(row.category);
        if (count >= 1) line += QString::fromLatin1(row.counterLabel).arg(count);
    }
    SYNC_LOG_ERROR("%1", line);
    for (const ErrorReportRow& row : kErrorReport) {
        const QStringList& failed = results.errorPaths(row.category);
        if (!failed.isEmpty()) SYNC_LOG_ERROR(row.failureListMessage, JoinTruncated(failed));
    }
}

QString Synchronizer::_ServerUrlOf(const FolderConfiguration& root) {
    const sync::config::ServerConfiguration server =
        _serverConfigManager->GetServerConfiguration(root.authenticationId);
    QString base = server.baseUrl;
    while (base.endsWith(QLatin1Char('/'))) base.chop(1);
    QString path = root.serverPath;
    while (path.startsWith(QLatin1Char('/'))) path.remove(0, 1);
    return base + QLatin1Char('/') + path;
}

// ---------------------------------------------------------------------------------------------
// One root folder

SyncResults Synchronizer::_SynchronizeRootFolder(FolderConfiguration& root) {
    SyncResults r = _CreateRootFolder(root);
    if (r.anyErrors()) return r;

    _taskEngine->InitFilteredCount();
    if (_checkForExit->ShouldExit()) return SyncResults();

    const std::shared_ptr<SyncTaskDepot> depot = _runner->Process(root);
    if (_checkForExit->ShouldExit()) return SyncResults();

    // The plan per category: count and localPath of every task.
    QHash<int, std::shared_ptr<TaskList>> tasksByType;
    SyncResults planned;
    for (const TaskCategory& row : kPlannedOrder) {
        std::shared_ptr<TaskList> tasks = depot ? depot->GetSyncTaskList(row.type) : nullptr;
        tasksByType.insert(row.type, tasks);
        const QStringList paths = IsFolderType(row.type) ? _GetFolderConfigurationList(tasks)
                                                         : _GetFileConfigurationList(tasks);
        planned.done(row.category) = paths.size();
        planned.donePaths(row.category) = paths;
    }
    emit BeginSyncingRootFolder(
        root.id, planned, root.getSyncStatus() == FolderSynchronizationStatus::NotSynchronized);

    if (_hostApplication && !_hostApplication->PreProcessFiles(root, depot)) {
        SYNC_LOG_INFO("Canceling sync. ISyncHostApplication::PreProcessFiles returned false.");
        return r;
    }

    r += _taskEngine->Process(root, depot);

    // What was planned and did not fail is what got done.
    for (const TaskCategory& row : kFinalOrder) {
        const std::shared_ptr<TaskList> tasks = tasksByType.value(row.type);
        const QList<QString>& failed = r.errorPaths(row.category);
        r.donePaths(row.category) = IsFolderType(row.type)
                                        ? _GetFolderConfigurationList(tasks, &failed)
                                        : _GetFileConfigurationList(tasks, &failed);
    }

    if (_hostApplication) _hostApplication->PostProcessFiles(root, depot, r);
    return r;
}

SyncResults Synchronizer::_CreateRootFolder(FolderConfiguration& root) {
    SyncResults r;
    const FolderSynchronizationStatus status = root.getSyncStatus();
    if (status != FolderSynchronizationStatus::OutOfSync &&
        status != FolderSynchronizationStatus::NotSynchronized)
        return r;

    _dirWrapper->SetPath(root.localPath);
    const bool localExists = _dirWrapper->Exists();
    const std::shared_ptr<sync::interf::IRemoteFolderManager> remote =
        _remoteFolderManagerFactory->CreateRemoteFolderManager(root.authenticationId);

    bool serverExists = false;
    try {
        if (_IsServerPathServerRoot(root)) {
            serverExists = true;
        } else {
            FolderConfiguration info;
            serverExists = remote->GetFolderInfo(root, info);
            if (!serverExists && localExists) {
                // Recorded before anything is created: should the creation or this process
                // fail afterwards, the records already say "never synchronised" and the next
                // cycle uploads the local content instead of deleting it.
                _MarkRootContentNotSynchronized(root);
                SYNC_LOG_INFO("Server root folder doesn't exist: %0. Creating it.",
                              root.serverPath);
                const SyncResults created = remote->CreateFolder(root, QString(), true);
                if (!created.anyErrors()) {
                    sync::database::TransactionalScope scope;
                    _folderConfigManager->UpdateFolder(root);
                    ++r.FolderServerCreations;
                    r.FolderServerCreationPaths.append(root.serverPath);
                } else {
                    ++r.FolderServerCreationErrors;
                    r.FolderServerCreationErrorPaths.append(root.serverPath);
                    for (auto it = created.errorCodes.cbegin(); it != created.errorCodes.cend();
                         ++it)
                        r.errorCodes[it.key()] += it.value();
                }
            } else if (serverExists && root.getServerFolderId().isEmpty()) {
                root.setServerFolderId(info.getServerFolderId());
                root.privilegeInfo = info.privilegeInfo;
                root.privileges = info.privileges;
                _folderConfigManager->UpdateFolder(root);
            }
        }
    } catch (const std::exception& e) {
        ++r.FolderServerCreationErrors;
        r.FolderServerCreationErrorPaths.append(root.serverPath);
        // The status decides what the cycle does next: 401 asks for credentials, 507 stops.
        if (const auto* http = dynamic_cast<const sync::http::HttpException*>(&e))
            r.errorCodes[http->code] += 1;
        SYNC_LOG_ERROR("Failed to create server root folder %0. %1", root.serverPath, e.what());
    }

    if (!localExists) {
        if (!serverExists) {
            SYNC_LOG_ERROR("Both server root folder '%1' and local root folder '%2' not found",
                           root.serverPath, root.localPath);
        } else {
            _dirWrapper->SetPath(root.localPath);
            if (!_dirWrapper->DirectoryExists()) {
                SYNC_LOG_INFO("Local root folder %0 doesn't exist. Creating it.", root.localPath);
                if (_dirWrapper->MakePath(root.localPath)) {
                    ++r.FolderLocalCreations;
                    r.FolderLocalCreationPaths.append(root.localPath);
                } else {
                    ++r.FolderLocalCreationErrors;
                    r.FolderLocalCreationErrorPaths.append(root.localPath);
                    SYNC_LOG_ERROR("Failed to create local root folder %0", root.localPath);
                }
            }
        }
    }
    return r;
}

// A root that lost its server folder would otherwise compare an empty new server folder
// against a full database: every entry would look deleted on the server and the whole local
// folder would be deleted. Records that were never synchronised count as absent, so the local
// content is uploaded again instead. Whatever the root's own status, its children may have
// been synchronised. Throws when the records could not all be written and committed.
void Synchronizer::_MarkRootContentNotSynchronized(const FolderConfiguration& root) {
    QVector<FolderConfiguration> folders = _folderConfigManager->GetFoldersByRootId(root.id);
    const QVector<FileConfiguration> files = _fileConfigManager->GetFilesByRootId(root.id, false);
    // A root that was never synchronised (the server folder is simply new) has nothing to mark.
    if (files.isEmpty() &&
        std::all_of(folders.cbegin(), folders.cend(),
                    [&](const FolderConfiguration& f) { return f.id == root.id; }))
        return;
    SYNC_LOG_WARN(
        "Server root folder %1 of %2 has vanished. Marking its content as not synchronized so "
        "that it is uploaded again.",
        root.serverPath, root.localPath);
    sync::database::TransactionalScope scope;
    bool written = true;
    for (FolderConfiguration folder : folders) {
        if (folder.id == root.id) continue;
        folder.setSyncStatus(FolderSynchronizationStatus::NotSynchronized);
        written = _folderConfigManager->UpdateFolder(folder) && written;
    }
    for (FileConfiguration file : files) {
        file.syncStatus = FileSynchronizationStatus::NotSynchronized;
        written = _fileConfigManager->UpdateFile(file) && written;
    }
    if (!written) {
        // Ends the scope without keeping any of it.
        throw SyncServiceException(
            QStringLiteral("Could not mark the content of root folder %1 as not synchronized")
                .arg(root.localPath));
    }
    scope.commit();
}

bool Synchronizer::_IsServerPathServerRoot(const FolderConfiguration& root) const {
    QString path = root.serverPath;
    if (!path.startsWith(root.serverRootPath, Qt::CaseInsensitive)) return false;
    path.remove(0, root.serverRootPath.size());
    if (path.startsWith(QLatin1Char('/'))) path.remove(0, 1);
    return path.isEmpty();
}

void Synchronizer::_UpdateRootFolderStatusForOutOfSync(int folderId) {
    FolderConfiguration folder = _folderConfigManager->GetFolderById(folderId);
    folder.setSyncStatus(FolderSynchronizationStatus::OutOfSync);
    if (!_folderConfigManager->UpdateFolder(folder))
        SYNC_LOG_WARN("Error updating local folder %0 while updating status", folder.localPath);
}

QStringList Synchronizer::_GetFileConfigurationList(const std::shared_ptr<TaskList>& tasks,
                                                    const QList<QString>* excluded) const {
    QStringList paths;
    if (!tasks) return paths;
    const QSet<QString> skipped = _CaseFolded(excluded);
    for (const std::shared_ptr<sync::interf::ISyncTask>& task : *tasks) {
        const QString& path = task->GetFileConfig().localPath;
        if (skipped.isEmpty() || !skipped.contains(path.toCaseFolded())) paths.append(path);
    }
    return paths;
}

QStringList Synchronizer::_GetFolderConfigurationList(const std::shared_ptr<TaskList>& tasks,
                                                      const QList<QString>* excluded) const {
    QStringList paths;
    if (!tasks) return paths;
    const QSet<QString> skipped = _CaseFolded(excluded);
    for (const std::shared_ptr<sync::interf::ISyncTask>& task : *tasks) {
        const QString& path = task->GetFolderConfig().localPath;
        if (skipped.isEmpty() || !skipped.contains(path.toCaseFolded())) paths.append(path);
    }
    return paths;
}

QSet<QString> Synchronizer::_CaseFolded(const QList<QString>* list) {
    // One set per list: a root with a hundred thousand failed paths is not compared pairwise.
    QSet<QString> set;
    if (!list) return set;
    set.reserve(list->size());
    for (const QString& entry : *list) set.insert(entry.toCaseFolded());
    return set;
}

bool Synchronizer::_Contains(const QList<QString>* list, const QString& path) {
    if (!list) return false;
    for (const QString& entry : *list) {
        if (entry.compare(path, Qt::CaseInsensitive) == 0) return true;
    }
    return false;
}

bool Synchronizer::_ConfiguredFolderExists(const FolderConfiguration& root) {
    _dirWrapper->SetPath(root.localPath);
    return _dirWrapper->DirectoryExists();
}

bool Synchronizer::_RemoveFolderConfigWhenRootFolderMissing(const FolderConfiguration& root) {
    return root.inheritedValue == 1 || root.inheritedValue == 3 || root.inheritedValue == 5;
}

bool Synchronizer::_StillValidFolderConfig(const FolderConfiguration& root) {
    return _folderConfigManager->GetFolderById(root.id).id >= 0;
}

// ---------------------------------------------------------------------------------------------
// Database audit and cleanup

void Synchronizer::_AuditDatabase() {
    _FixRootFolders();
    if (_checkForExit->ShouldExit()) return;
    _RemoveFolderConfigurationsOfNonExistingRootFolders();
    if (_checkForExit->ShouldExit()) return;
    _RemoveFileConfigurationsOfNonExistingRootFolders();
}

void Synchronizer::_FixRootFolders() {
    for (FolderConfiguration root : _folderConfigManager->GetRootFolders()) {
        if (_checkForExit->ShouldExit()) return;
        if (root.inheritedId == root.id) continue;
        SYNC_LOG_WARN("Incorrect RootId found in database for root folder %1. Fixing it.",
                      root.localPath);
        root.inheritedId = root.id;
        sync::database::TransactionalScope scope;
        _folderConfigManager->UpdateFolder(root);
    }
}

void Synchronizer::_RemoveFolderConfigurationsOfNonExistingRootFolders() {
    const QVector<FolderConfiguration> orphans =
        _folderConfigManager->GetFoldersOfMissingRootFolders();
    if (orphans.isEmpty()) return;

    QStringList paths;
    for (const FolderConfiguration& folder : orphans) paths.append(folder.localPath);
    SYNC_LOG_WARN(
        "%1 folder(s) found in database whose root folders don't exist. Removing these invalid "
        "folders.",
        orphans.size());
    SYNC_LOG_DEBUG("List of folder(s) whose root folders don't exist:\n%1", JoinTruncated(paths));

    sync::database::TransactionalScope scope;
    for (const FolderConfiguration& folder : orphans) {
        if (_checkForExit->ShouldExit()) break;
        _folderConfigManager->RemoveFolder(folder.id);
    }
}

void Synchronizer::_RemoveFileConfigurationsOfNonExistingRootFolders() {
    const QVector<FileConfiguration> orphans = _fileConfigManager->GetFilesOfMissingRootFolders();
    if (orphans.isEmpty()) return;

    QStringList paths;
    for (const FileConfiguration& file : orphans) paths.append(file.localPath);
    SYNC_LOG_WARN(
        "%1 file(s) found in database whose root folders don't exist. Removing these invalid "
        "files.",
        orphans.size());
    SYNC_LOG_DEBUG("List of file(s) whose root folders don't exist:\n%1", JoinTruncated(paths));

    sync::database::TransactionalScope scope;
    for (const FileConfiguration& file : orphans) {
        if (_checkForExit->ShouldExit()) break;
        _fileConfigManager->RemoveFile(file.id);
    }
}

void Synchronizer::_CleanupBaseFiles() {
    for (const FileConfiguration& base :
         _fileConfigManager->GetGeneratedFilesByKind(sync::config::GeneratedBaseCopy)) {
        const FileConfiguration source = _fileConfigManager->GetFileById(base.parentFileId);
        const bool baseFileExists = QFileInfo::exists(base.localPath);
        if (source.id != -1 && baseFileExists) continue;

        _fileConfigManager->RemoveGeneratedFileById(base.id);
        if (baseFileExists && !QFile::remove(base.localPath))
            SYNC_LOG_INFO("Failed to delete base file during cleanup: %1", base.localPath);
        const QString directory = QFileInfo(base.localPath).absolutePath();
        // rmdir leaves a directory that still holds other base copies in place.
        if (QFileInfo(directory).isDir()) QDir().rmdir(directory);
    }
}

void Synchronizer::_CleanupDb(const FolderConfiguration&) {
    _CleanupBaseFiles();
}

void Synchronizer::_RemoveRootFolderConfig(const FolderConfiguration& root) {
    auto log = ActionLog();
    log->AddFolderEntryWithDetails(
        actionlog::RootFolderRemoved, root.localPath, root.name,
        log->CreateDetailsWithArguments(actionlog::RootFolderRemovedPath,
                                        {QDir::toNativeSeparators(root.localPath)}));

    sync::database::TransactionalScope scope;
    if (!_folderConfigManager->RemoveRootFolder(root.id))
        SYNC_LOG_INFO("Unable to delete local folder: %1 from local database.", root.localPath);
    // A root that is added back keeps its account, or it could never sign in again.
    if (!root.hasSyncOption(sync::config::KeepRootFolderOnRemoval) &&
        !_folderConfigManager->IsAuthenticationInUse(root.authenticationId))
        _authenticationConfigManager->RemoveAuthentication(root.authenticationId);
    scope.commit();
}

void Synchronizer::_ReleaseMemory() {
    _folderConfigManager->ReleaseMemory();
}

// ---------------------------------------------------------------------------------------------
// Action log

void Synchronizer::_AddSyncCompleteToActionLog(const FolderConfiguration& root,
                                               SyncResults& results, bool wasOutOfSync) {
    auto log = ActionLog();
    QVector<QString> arguments{
        QString::number(results.FileServerCreations), QString::number(results.FileLocalCreations),
        QString::number(results.FileServerDeletions), QString::number(results.FileLocalDeletions)};
    if (!results.anyErrors()) {
        const bool noFileWork = results.FileServerCreations == 0 &&
                                results.FileLocalCreations == 0 &&
                                results.FileServerDeletions == 0 && results.FileLocalDeletions == 0;
        if (!noFileWork) {
            log->AddFolderEntryWithDetails(
                actionlog::RootFolderSynchronized, root.localPath, root.name,
                log->CreateDetailsWithArguments(actionlog::TransferCounts, arguments));
        } else if (wasOutOfSync || results.anyWorkDone()) {
            log->AddFolderEntry(actionlog::RootFolderSynchronized, root.localPath, root.name);
        }
        return;
    }
    for (int count : {results.FileServerCreationErrors, results.FileLocalCreationErrors,
                      results.FileServerDeletionErrors, results.FileLocalDeletionErrors,
                      results.FolderServerCreationErrors, results.FolderLocalCreationErrors,
                      results.FolderServerDeletionErrors, results.FolderLocalDeletionErrors})
        arguments.append(QString::number(count));
    log->AddFolderEntryWithDetails(
        actionlog::RootFolderFailed, root.localPath, root.name,
        log->CreateDetailsWithArguments(actionlog::ErrorCounts, arguments));
}

void Synchronizer::_AddNetworkDriveConnectFailedToActionLog(const FolderConfiguration& root) {
    auto log = ActionLog();
    log->AddFolderEntryWithDetails(
        actionlog::ConnectionProblem, root.localPath, root.name,
        log->CreateDetailsWithArguments(actionlog::NetworkDriveUnreachable, {root.localPath}));
}

}  // namespace syncService
}  // namespace sync
