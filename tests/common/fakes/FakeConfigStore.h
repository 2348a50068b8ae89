#pragma once

#include <QMap>
#include <QString>
#include <QVector>
#include <memory>
#include <optional>
#include <vector>

#include "FaultPlan.h"
#include "IAuthenticationConfigManager.h"
#include "IFileConfigManager.h"
#include "IFolderConfigManager.h"
#include "IScheduleEntryManager.h"
#include "IServerConfigManager.h"
#include "ISyncConfiguration.h"
#include "ScheduleEntry.h"
#include "ServerConfiguration.h"
#include "TransactionalScope.h"

namespace sync {
namespace test {

// The configuration database in memory, answering like the SQLite managers of the database
// companion: the same ids (from 1, never handed out twice), case-insensitive path lookups, roots
// that are their own root, orphans, generated files, a root removed with everything it holds,
// id -1 for what is not there. config_store_contract_test runs one suite on both, so that
// engine tests can trust it.
//
// Faults: FailOn(operation, nth) makes every call, or the n-th call from now on, of an
// operation fail the way the real manager fails it:
//   answers false:  UpdateFolder, AddFolder, DeleteFolderById, RemoveRootFolder
//   answers default: GetSyncInterval, GetTooManyRequestsHoldSeconds
//   throws sync::database::DatabaseException: every other operation, and Begin and Commit of
//   the transaction backend.
// A failed operation writes nothing. ReleaseMemory is only counted: it cannot fail.
//
// TransactionBackend() gives TransactionalScope savepoints on this store, so that a batch
// unwound by an exception leaves nothing behind, as it does on the real database; a batch whose
// commit failed at the end of its scope makes the next operation throw, once.
class FakeConfigStore : public sync::interf::IFolderConfigManager,
                        public sync::interf::IFileConfigManager,
                        public sync::interf::IAuthenticationConfigManager,
                        public sync::interf::IServerConfigManager,
                        public sync::interf::IScheduleEntryManager,
                        public sync::interf::ISyncConfiguration,
                        public std::enable_shared_from_this<FakeConfigStore> {
public:
    using Folder = sync::config::FolderConfiguration;
    using File = sync::config::FileConfiguration;
    using Account = sync::config::ServerConfiguration;

    static constexpr int DefaultSyncIntervalSeconds = 300;
    static constexpr int DefaultTooManyRequestsHoldSeconds = 900;

    // IFolderConfigManager
    Folder GetFolderById(int folderId) override;
    Folder GetFolderByPath(const QString& localPath, int authenticationId) override;
    QVector<Folder> GetFoldersByRootId(int rootId) override;
    QVector<Folder> GetFoldersOfMissingRootFolders() override;
    bool UpdateFolder(const Folder& folder) override;
    bool AddFolder(Folder& folder) override;
    void RemoveFolder(int folderId) override;
    bool DeleteFolderById(int folderId) override;
    QVector<Folder> GetRootFolders() override;
    bool IsAuthenticationInUse(int authenticationId) override;
    void ReleaseMemory() override { _faults.Check(QStringLiteral("ReleaseMemory")); }
    bool RemoveRootFolder(int folderId) override;

    // IFileConfigManager
    File GetFileById(int fileId) override;
    File GetGeneratedFileById(int fileId) override;
    QVector<File> GetFilesOfMissingRootFolders() override;
    File GetFileByPath(const QString& localPath, int authenticationId) override;
    QVector<File> GetFilesByRootId(int rootId, bool generatedToo = false) override;
    QVector<File> GetGeneratedFilesByRootId(int rootId, bool flag = false) override;
    QVector<File> GetGeneratedFilesByKind(int kind) override;
    bool UpdateFile(const File& file) override;
    bool AddFile(File& file) override;
    void RemoveFile(int fileId) override;
    void RemoveGeneratedFileById(int fileId) override;
    void RemoveGeneratedFile(int fileId) override;

    // IAuthenticationConfigManager, and the account operations of the real manager.
    void RemoveAuthentication(int authenticationId) override;
    void AddAccount(Account& account);
    bool UpdateAccount(const Account& account);
    Account GetAccount(int authenticationId);
    QVector<Account> GetAccounts();

    // IServerConfigManager
    Account GetServerConfiguration(int authenticationId) override;
    Account GetServerConfigurationByFolderId(int rootFolderId) override;

    // IScheduleEntryManager
    sync::config::ScheduleEntry GetScheduleEntry() override;
    void UpdateScheduleEntry(sync::config::ScheduleEntry& entry) override;

    // ISyncConfiguration, and the setters of the real settings.
    int GetSyncInterval() override;
    int GetTooManyRequestsHoldSeconds() override;
    void SetSyncInterval(int seconds);
    void SetTooManyRequestsHoldSeconds(int seconds);

    void FailOn(const QString& operation, int nth = 0) { _faults.Add(operation, 1, nth); }
    void ClearFaults() { _faults.Clear(); }
    // Calls of an operation so far.
    int Calls(const QString& operation) const { return _faults.Calls(operation); }

    // The store must be owned by a shared pointer; the backend keeps it alive.
    std::shared_ptr<sync::database::ITransactionBackend> TransactionBackend();

private:
    class Backend;

    struct State {
        QMap<int, Folder> folders;
        QMap<int, File> files;
        QMap<int, Account> accounts;
        std::optional<sync::config::ScheduleEntry> schedule;
        QMap<QString, int> settings;
        // AUTOINCREMENT counters: part of the state, so a rolled-back insert frees its id.
        int lastFolderId = 0;
        int lastFileId = 0;
        int lastAccountId = 0;
    };

    // Every operation starts here: throws a lost batch once, counts the call, and answers true
    // when the call must fail.
    bool _Fails(const QString& operation);
    // Counts the call and throws when it must fail.
    void _ThrowIfFails(const QString& operation);
    bool _IsRoot(int folderId) const;
    int _Setting(const QString& key, int defaultValue);

    State _state;
    std::vector<State> _savepoints;  // the state when each open level began
    std::optional<QString> _lostBatch;
    FaultPlan _faults;
};

}  // namespace test
}  // namespace sync
