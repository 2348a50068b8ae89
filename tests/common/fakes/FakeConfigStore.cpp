#include "FakeConfigStore.h"

#include "DatabaseException.h"

namespace sync {
namespace test {

using sync::config::ScheduleEntry;
using Folder = FakeConfigStore::Folder;
using File = FakeConfigStore::File;
using Account = FakeConfigStore::Account;

namespace {

// Stands where the database names its file.
const QString kName = QStringLiteral("fake");

sync::database::DatabaseException Injected(const QString& operation) {
    return sync::database::DatabaseException(
        kName, QStringLiteral("injected failure of %1").arg(operation));
}

// The database keeps no invalid time: it stores NULL and reads back a null time.
QDateTime Stored(const QDateTime& t) {
    return t.isValid() ? t : QDateTime();
}

Folder Stored(Folder f) {
    f.lastModified = Stored(f.lastModified);
    f.lastSyncTime = Stored(f.lastSyncTime);
    f.lastServerSyncRequestTime = Stored(f.lastServerSyncRequestTime);
    return f;
}

File Stored(File f) {
    f.created = Stored(f.created);
    f.lastModified = Stored(f.lastModified);
    f.lastTransferAttempt = Stored(f.lastTransferAttempt);
    f.serverModified = Stored(f.serverModified);
    return f;
}

// Local paths are looked up by their lower-case form, as the database's path key.
bool SamePath(const QString& a, const QString& b) {
    return a.toLower() == b.toLower();
}

template <typename Record, typename Predicate>
QVector<Record> Where(const QMap<int, Record>& records, Predicate keep) {
    QVector<Record> out;
    for (const Record& r : records)
        if (keep(r)) out.append(r);
    return out;
}

}  // namespace

class FakeConfigStore::Backend : public sync::database::ITransactionBackend {
public:
    explicit Backend(std::shared_ptr<FakeConfigStore> store) : _store(std::move(store)) {}
    void Begin(int depth) override {
        _store->_ThrowIfFails("Begin");
        _store->_savepoints.resize(depth);
        _store->_savepoints.push_back(_store->_state);
    }
    void Commit(int depth) override {
        if (_store->_faults.Check(QStringLiteral("Commit")) != 0) throw Injected("Commit");
        _store->_savepoints.resize(depth);
    }
    void Rollback(int depth) noexcept override {
        if (depth < static_cast<int>(_store->_savepoints.size()))
            _store->_state = _store->_savepoints[depth];
        _store->_savepoints.resize(depth);
    }
    void ReportLostBatch(const std::exception& reason) noexcept override {
        try {
            const auto* known = dynamic_cast<const sync::database::DatabaseException*>(&reason);
            _store->_lostBatch = known ? known->reason() : QString::fromUtf8(reason.what());
        } catch (...) {
        }
    }

private:
    std::shared_ptr<FakeConfigStore> _store;
};

std::shared_ptr<sync::database::ITransactionBackend> FakeConfigStore::TransactionBackend() {
    return std::make_shared<Backend>(shared_from_this());
}

bool FakeConfigStore::_Fails(const QString& operation) {
    // As on the database, the call after a lost batch reports it, once, whatever it is.
    if (_lostBatch) {
        const QString reason = *_lostBatch;
        _lostBatch.reset();
        throw sync::database::DatabaseException(
            kName, QStringLiteral(
                       "a batch of writes was rolled back because it could not be committed: %1")
                       .arg(reason));
    }
    return _faults.Check(operation) != 0;
}

void FakeConfigStore::_ThrowIfFails(const QString& operation) {
    if (_Fails(operation)) throw Injected(operation);
}

bool FakeConfigStore::_IsRoot(int folderId) const {
    const auto it = _state.folders.constFind(folderId);
    return it != _state.folders.constEnd() && it->rootId == it->id;
}

// --- Folders --------------------------------------------------------------------------------

Folder FakeConfigStore::GetFolderById(int folderId) {
    _ThrowIfFails("GetFolderById");
    return _state.folders.value(folderId);
}

Folder FakeConfigStore::GetFolderByPath(const QString& localPath, int authenticationId) {
    _ThrowIfFails("GetFolderByPath");
    for (const Folder& f : _state.folders)
        if (f.authenticationId == authenticationId && SamePath(f.localPath, localPath)) return f;
    return Folder();
}

QVector<Folder> FakeConfigStore::GetFoldersByRootId(int rootId) {
    _ThrowIfFails("GetFoldersByRootId");
    return Where(_state.folders, [=](const Folder& f) { return f.rootId == rootId; });
}

QVector<Folder> FakeConfigStore::GetFoldersOfMissingRootFolders() {
    _ThrowIfFails("GetFoldersOfMissingRootFolders");
    // Either link to a live root keeps a record, so one damaged link never deletes it.
    return Where(_state.folders,
                 [=](const Folder& f) { return !_IsRoot(f.rootId) && !_IsRoot(f.inheritedId); });
}

bool FakeConfigStore::UpdateFolder(const Folder& folder) {
    if (_Fails("UpdateFolder") || !_state.folders.contains(folder.id)) return false;
    _state.folders.insert(folder.id, Stored(folder));
    return true;
}

bool FakeConfigStore::AddFolder(Folder& folder) {
    if (_Fails("AddFolder")) return false;
    Folder stored = Stored(folder);
    const bool newRoot = folder.isRoot() || (folder.rootId == -1 && folder.parentId == -1);
    if (!newRoot && stored.rootId == -1 && _state.folders.contains(stored.parentId))
        stored.rootId = _state.folders.value(stored.parentId).rootId;
    stored.id = ++_state.lastFolderId;
    if (newRoot) stored.rootId = stored.inheritedId = stored.id;
    _state.folders.insert(stored.id, stored);
    folder = stored;
    return true;
}

void FakeConfigStore::RemoveFolder(int folderId) {
    _ThrowIfFails("RemoveFolder");
    _state.folders.remove(folderId);
}

bool FakeConfigStore::DeleteFolderById(int folderId) {
    if (_Fails("DeleteFolderById")) return false;
    return _state.folders.remove(folderId) > 0;
}

QVector<Folder> FakeConfigStore::GetRootFolders() {
    _ThrowIfFails("GetRootFolders");
    return Where(_state.folders, [](const Folder& f) { return f.rootId == f.id; });
}

bool FakeConfigStore::IsAuthenticationInUse(int authenticationId) {
    _ThrowIfFails("IsAuthenticationInUse");
    for (const Folder& f : _state.folders)
        if (f.rootId == f.id && f.authenticationId == authenticationId) return true;
    return false;
}

bool FakeConfigStore::RemoveRootFolder(int folderId) {
    if (_Fails("RemoveRootFolder") || !_state.folders.contains(folderId)) return false;
    for (auto it = _state.files.begin(); it != _state.files.end();)
        it = it->rootId == folderId ? _state.files.erase(it) : std::next(it);
    for (auto it = _state.folders.begin(); it != _state.folders.end();)
        it =
            it->rootId == folderId || it->id == folderId ? _state.folders.erase(it) : std::next(it);
    return true;
}

// --- Files ----------------------------------------------------------------------------------

File FakeConfigStore::GetFileById(int fileId) {
    _ThrowIfFails("GetFileById");
    return _state.files.value(fileId);
}

File FakeConfigStore::GetGeneratedFileById(int fileId) {
    _ThrowIfFails("GetGeneratedFileById");
    const File f = _state.files.value(fileId);
    return f.isGenerated != 0 ? f : File();
}

QVector<File> FakeConfigStore::GetFilesOfMissingRootFolders() {
    _ThrowIfFails("GetFilesOfMissingRootFolders");
    return Where(_state.files,
                 [=](const File& f) { return !_IsRoot(f.rootId) && !_IsRoot(f.inheritedId); });
}

File FakeConfigStore::GetFileByPath(const QString& localPath, int authenticationId) {
    _ThrowIfFails("GetFileByPath");
    // A file belongs to an account through the folder record its rootId names.
    for (const File& f : _state.files) {
        const auto root = _state.folders.constFind(f.rootId);
        if (root != _state.folders.constEnd() && root->authenticationId == authenticationId &&
            SamePath(f.localPath, localPath))
            return f;
    }
    return File();
}

QVector<File> FakeConfigStore::GetFilesByRootId(int rootId, bool generatedToo) {
    _ThrowIfFails("GetFilesByRootId");
    return Where(_state.files, [=](const File& f) {
        return f.rootId == rootId && (generatedToo || f.isGenerated == 0);
    });
}

QVector<File> FakeConfigStore::GetGeneratedFilesByRootId(int rootId, bool) {
    _ThrowIfFails("GetGeneratedFilesByRootId");
    return Where(_state.files,
                 [=](const File& f) { return f.rootId == rootId && f.isGenerated != 0; });
}

QVector<File> FakeConfigStore::GetGeneratedFilesByKind(int kind) {
    _ThrowIfFails("GetGeneratedFilesByKind");
    return Where(_state.files,
                 [=](const File& f) { return f.generatedKind == kind && f.isGenerated != 0; });
}

bool FakeConfigStore::UpdateFile(const File& file) {
    _ThrowIfFails("UpdateFile");
    if (!_state.files.contains(file.id)) return false;
    _state.files.insert(file.id, Stored(file));
    return true;
}

bool FakeConfigStore::AddFile(File& file) {
    _ThrowIfFails("AddFile");
    File stored = Stored(file);
    stored.id = ++_state.lastFileId;
    _state.files.insert(stored.id, stored);
    file.id = stored.id;
    return true;
}

void FakeConfigStore::RemoveFile(int fileId) {
    _ThrowIfFails("RemoveFile");
    _state.files.remove(fileId);
}

void FakeConfigStore::RemoveGeneratedFileById(int fileId) {
    _ThrowIfFails("RemoveGeneratedFileById");
    if (_state.files.value(fileId).isGenerated != 0) _state.files.remove(fileId);
}

void FakeConfigStore::RemoveGeneratedFile(int fileId) {
    _ThrowIfFails("RemoveGeneratedFile");
    if (_state.files.value(fileId).isGenerated != 0) _state.files.remove(fileId);
}

// --- Accounts -------------------------------------------------------------------------------

void FakeConfigStore::RemoveAuthentication(int authenticationId) {
    _ThrowIfFails("RemoveAuthentication");
    _state.accounts.remove(authenticationId);
}

void FakeConfigStore::AddAccount(Account& account) {
    _ThrowIfFails("AddAccount");
    account.id = ++_state.lastAccountId;
    _state.accounts.insert(account.id, account);
}

bool FakeConfigStore::UpdateAccount(const Account& account) {
    _ThrowIfFails("UpdateAccount");
    if (!_state.accounts.contains(account.id)) return false;
    _state.accounts.insert(account.id, account);
    return true;
}

Account FakeConfigStore::GetAccount(int authenticationId) {
    _ThrowIfFails("GetAccount");
    return _state.accounts.value(authenticationId);
}

QVector<Account> FakeConfigStore::GetAccounts() {
    _ThrowIfFails("GetAccounts");
    return Where(_state.accounts, [](const Account&) { return true; });
}

Account FakeConfigStore::GetServerConfiguration(int authenticationId) {
    _ThrowIfFails("GetServerConfiguration");
    return _state.accounts.value(authenticationId);
}

Account FakeConfigStore::GetServerConfigurationByFolderId(int rootFolderId) {
    _ThrowIfFails("GetServerConfigurationByFolderId");
    const auto folder = _state.folders.constFind(rootFolderId);
    if (folder == _state.folders.constEnd()) return Account();
    return _state.accounts.value(folder->authenticationId);
}

// --- Schedule and settings ------------------------------------------------------------------

ScheduleEntry FakeConfigStore::GetScheduleEntry() {
    _ThrowIfFails("GetScheduleEntry");
    return _state.schedule ? *_state.schedule : ScheduleEntry();
}

void FakeConfigStore::UpdateScheduleEntry(ScheduleEntry& entry) {
    _ThrowIfFails("UpdateScheduleEntry");
    ScheduleEntry stored(entry);
    stored.syncTime = Stored(stored.syncTime);
    stored.lastChanged = Stored(stored.lastChanged);
    _state.schedule = stored;
}

int FakeConfigStore::_Setting(const QString& key, int defaultValue) {
    // Settings never fail a caller: a read error answers the default.
    if (_faults.Check(key) != 0) return defaultValue;
    const int value = _state.settings.value(key, 0);
    return value > 0 ? value : defaultValue;
}

int FakeConfigStore::GetSyncInterval() {
    return _Setting(QStringLiteral("GetSyncInterval"), DefaultSyncIntervalSeconds);
}

int FakeConfigStore::GetTooManyRequestsHoldSeconds() {
    return _Setting(QStringLiteral("GetTooManyRequestsHoldSeconds"),
                    DefaultTooManyRequestsHoldSeconds);
}

void FakeConfigStore::SetSyncInterval(int seconds) {
    _ThrowIfFails("SetSyncInterval");
    _state.settings.insert(QStringLiteral("GetSyncInterval"), seconds);
}

void FakeConfigStore::SetTooManyRequestsHoldSeconds(int seconds) {
    _ThrowIfFails("SetTooManyRequestsHoldSeconds");
    _state.settings.insert(QStringLiteral("GetTooManyRequestsHoldSeconds"), seconds);
}

}  // namespace test
}  // namespace sync
