#include "FakeServer.h"

#include "EntryInfoTree.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <cstdio>

#include "HttpException.h"
#include "QFileWrapper.h"
#include "ServerPaths.h"
#include "SyncCodes.h"

namespace sync {
namespace test {

using sync::config::FileSynchronizationStatus;
using sync::config::PrivilegeDelete;
using sync::config::PrivilegeDownload;
using sync::config::PrivilegeUpload;
using sync::http::HttpException;
using Folder = FakeServer::Folder;
using File = FakeServer::File;
using Results = FakeServer::Results;

namespace {

// The server's clock starts here and ticks one second per write, so that listings are the same
// on every run.
constexpr qint64 kEpochSeconds = 1700000000;
constexpr int kShownContentBytes = 32;

// "" is the server's top folder; no path ends with "/".
QString Normalized(QString path) {
    while (path.endsWith(QLatin1Char('/'))) path.chop(1);
    return path;
}

QString Hash(const QByteArray& content) {
    return QString::fromLatin1(
        QCryptographicHash::hash(content, QCryptographicHash::Sha256).toHex());
}

template <typename Record>
QString ShownPath(const Record& r) {
    return r.localPath.isEmpty() ? r.serverPath : r.localPath;
}

QString PrivilegeInfo(int privileges) {
    return QStringLiteral("privileges %1").arg(privileges);
}

bool WriteFile(const QString& path, const QByteArray& content, const QDateTime& modified) {
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate)) return false;
    // Flushed first: the write of buffered data would set the time again.
    const bool written = file.write(content) == content.size() && file.flush();
    if (modified.isValid()) file.setFileTime(modified, QFileDevice::FileModificationTime);
    return written;
}

}  // namespace

// --- Managers -------------------------------------------------------------------------------

std::shared_ptr<sync::interf::IRemoteFolderManager> FakeServer::CreateRemoteFolderManager(
    int authenticationId) {
    _CheckAccount(QStringLiteral("CreateRemoteFolderManager"), authenticationId);
    return shared_from_this();
}

std::shared_ptr<sync::interf::IRemoteFileManager> FakeServer::CreateRemoteFileManager(
    int authenticationId) {
    _CheckAccount(QStringLiteral("CreateRemoteFileManager"), authenticationId);
    return shared_from_this();
}

void FakeServer::_CheckAccount(const QString& operation, int authenticationId) {
    int status = _faults.Check(operation);
    if (status == 0 && !accounts.isEmpty() && !accounts.contains(authenticationId))
        status = sync::http::Unauthorized;
    if (status != 0)
        throw HttpException(status, QStringLiteral("Unknown account %1").arg(authenticationId));
}

int FakeServer::_Fault(const QString& operation, const QString& path) {
    const int byOperation = _faults.Check(operation);
    const int byPath = _faults.Check(path);
    return byOperation != 0 ? byOperation : byPath;
}

Results FakeServer::CreateFolder(Folder& folder, const QString&, bool createParents) {
    Results r;
    const QString path = Normalized(folder.serverPath);
    int status = _Fault(QStringLiteral("CreateFolder"), path);
    if (status == 0) {
        const Entry* existing = Find(path);
        QString ancestor = _Parent(path);
        while (!ancestor.isEmpty() && !Find(ancestor)) ancestor = _Parent(ancestor);
        const Entry* above = Find(ancestor);
        if (existing && !existing->isFolder)
            status = sync::http::Conflict;
        else if (!existing && ancestor != _Parent(path) && !createParents)
            status = sync::http::Conflict;
        else if (!existing && above && !(above->privileges & PrivilegeUpload))
            status = sync::http::Forbidden;
    }
    if (status != 0) {
        r.CountFailure(Results::FolderServerCreation, ShownPath(folder), status);
        return r;
    }
    const Entry& entry = _Put(path, true, sync::config::PrivilegeAll);
    folder.setServerFolderId(entry.id);
    folder.privileges = entry.privileges;
    folder.privilegeInfo = PrivilegeInfo(entry.privileges);
    r.CountDone(Results::FolderServerCreation, ShownPath(folder));
    return r;
}

Results FakeServer::DeleteFolder(Folder& folder) {
    Results r;
    const QString path = Normalized(folder.serverPath);
    const int status = _Fault(QStringLiteral("DeleteFolder"), path);
    if (status != 0 && status != sync::http::NotFound)
        throw HttpException(status, QStringLiteral("Failed to delete server folder %1").arg(path));
    const Entry* entry = status == 0 ? Find(path) : nullptr;
    if (entry && entry->isFolder) {
        if (!(entry->privileges & PrivilegeDelete))
            throw HttpException(sync::http::Forbidden,
                                QStringLiteral("No right to delete server folder %1").arg(path));
        Remove(path);
    }
    r.CountDone(Results::FolderServerDeletion, ShownPath(folder));
    return r;
}

bool FakeServer::GetFolderInfo(const Folder& folder, Folder& info) {
    const QString path = Normalized(folder.serverPath);
    const int status = _Fault(QStringLiteral("GetFolderInfo"), path);
    if (status == sync::http::NotFound) return false;
    if (status != 0)
        throw HttpException(status, QStringLiteral("Failed to read server folder %1").arg(path));
    if (path.isEmpty()) return true;
    const Entry* entry = Find(path);
    if (!entry || !entry->isFolder) return false;
    info.setServerFolderId(entry->id);
    info.privileges = entry->privileges;
    info.privilegeInfo = PrivilegeInfo(entry->privileges);
    return true;
}

int FakeServer::GetFolderTree(Folder& root, std::shared_ptr<QVector<Folder>> folders,
                              std::shared_ptr<QVector<File>> files) {
    return _List(QStringLiteral("GetFolderTree"), root, false, folders.get(), files.get());
}

int FakeServer::GetRootFiles(Folder& root, std::shared_ptr<QVector<File>> files) {
    return _List(QStringLiteral("GetRootFiles"), root, true, nullptr, files.get());
}

int FakeServer::_List(const QString& operation, Folder& root, bool directOnly,
                      QVector<Folder>* folders, QVector<File>* files) {
    const QString rootPath = Normalized(root.serverPath);
    if (const int status = _Fault(operation, rootPath)) return status;
    if (!rootPath.isEmpty()) {
        const Entry* entry = Find(rootPath);
        if (!entry || !entry->isFolder) return sync::http::NotFound;
    }
    const QList<const Entry*> below = _Below(rootPath, directOnly);

    if (answersNotModified) {
        QString fingerprint;
        for (const Entry* e : below)
            fingerprint += QStringLiteral("%1 %2 %3 %4\n")
                               .arg(e->path, e->versionId)
                               .arg(e->privileges)
                               .arg(e->isFolder ? 1 : 0);
        const QString key = operation + QLatin1Char(' ') + rootPath;
        const bool unchanged =
            _previousListing.contains(key) && _previousListing.value(key) == fingerprint;
        _previousListing.insert(key, fingerprint);
        if (unchanged) return sync::http::NotModified;
    }

    for (const Entry* e : below) {
        if (e->isFolder) {
            if (folders) folders->append(FolderRecord(*e, root));
        } else if (files) {
            files->append(FileRecord(*e, root));
            // As the real backends do, so that its own copies do not linger.
            sync::syncService::EntryInfoTree::ShareListedTexts(files->last());
        }
    }
    root.setLastServerSyncRequestTime(QDateTime::currentDateTimeUtc());
    return 0;
}

const QString& FakeServer::HashOf(const Entry& e) {
    // The copy kept pins the data, so the same data means the same content.
    if (e.hashed.isNull() || e.hashed.constData() != e.content.constData() ||
        e.hashed.size() != e.content.size()) {
        e.hash = Hash(e.content);
        e.hashed = e.content;
    }
    return e.hash;
}

File FakeServer::FileRecord(const Entry& e, const Folder& root) const {
    File f;
    f.name = e.path.section(QLatin1Char('/'), -1);
    f.serverPath = e.path;
    f.localPath =
        sync::core::JoinServerPath(root.localPath, e.path.mid(Normalized(root.serverPath).size()));
    f.size = e.content.size();
    f.serverFileId = e.id;
    if (reportsHashes) f.serverChecksum = HashOf(e);
    f.properties.insert(QStringLiteral("version"), QString::number(e.version));
    f.properties.insert(QStringLiteral("versionId"), e.versionId);
    f.privileges = e.privileges;
    f.privilegeInfo = PrivilegeInfo(e.privileges);
    f.lastModified = e.modified;
    f.serverModified = e.modified;
    return f;
}

Folder FakeServer::FolderRecord(const Entry& e, const Folder& root) const {
    Folder f;
    f.name = e.path.section(QLatin1Char('/'), -1);
    f.serverPath = f.path = e.path;
    f.localPath =
        sync::core::JoinServerPath(root.localPath, e.path.mid(Normalized(root.serverPath).size()));
    f.setServerFolderId(e.id);
    f.privileges = e.privileges;
    f.privilegeInfo = PrivilegeInfo(e.privileges);
    f.lastModified = e.modified;
    return f;
}

// --- Transfers ------------------------------------------------------------------------------

Results FakeServer::UploadFiles(const sync::config::ServerConfiguration&, const Folder&,
                                QList<File>& files) {
    if (const int status = _faults.Check(QStringLiteral("UploadFiles")))
        throw HttpException(status, QStringLiteral("Upload refused"));
    Results r;
    for (File& f : files) {
        const QString path = Normalized(f.serverPath);
        int status = _Fault(QStringLiteral("Upload"), path);
        const Entry* existing = Find(path);
        const Entry* parent = Find(_Parent(path));
        if (status == 0) {
            if ((existing && existing->isFolder) || (!parent && !_Parent(path).isEmpty()))
                status = sync::http::Conflict;
            else if ((existing && !(existing->privileges & PrivilegeUpload)) ||
                     (parent && !(parent->privileges & PrivilegeUpload)))
                status = sync::http::Forbidden;
        }
        QFile local(f.localPath);
        bool read = false;
        QByteArray content;
        if (status == 0 && local.open(QIODevice::ReadOnly)) {
            content = local.readAll();
            read = local.error() == QFileDevice::NoError;
        }
        if (status != 0 || !read) {
            f.syncStatus = FileSynchronizationStatus::OutOfSync;
            _StoreRecord(f);
            r.CountFailure(Results::FileServerCreation, ShownPath(f), status);
            continue;
        }
        // Content the server holds already (both sides made the same change) is only settled.
        const bool same = existing && existing->content == content;
        if (!same) {
            // Only what the engine has seen is replaced: nothing for a new file, else the
            // version the record names.
            const QString versionId = f.properties.value(QStringLiteral("versionId"));
            const bool seen = f.serverFileId.isEmpty()
                                  ? !existing
                                  : existing && existing->id == f.serverFileId &&
                                        (versionId.isEmpty() || versionId == existing->versionId);
            if (!seen) {
                f.syncStatus = FileSynchronizationStatus::OutOfSync;
                _StoreRecord(f);
                r.CountFailure(Results::FileServerCreation, ShownPath(f),
                               sync::http::PreconditionFailed);
                continue;
            }
            // A version this client never synchronised is kept before it is replaced.
            if (existing && _database && f.id > 0) {
                const QString synchronised =
                    _database->GetFileById(f.id).properties.value(QStringLiteral("versionId"));
                if (!synchronised.isEmpty() && synchronised != existing->versionId)
                    _KeepConflictCopy(Entry(*existing));
            }
        }
        Entry& entry = _Put(path, false, sync::config::PrivilegeAll);
        if (!same) _Write(entry, content);
        f.serverFileId = entry.id;
        f.serverChecksum = reportsHashes ? Hash(content) : QString();
        f.properties.insert(QStringLiteral("version"), QString::number(entry.version));
        f.properties.insert(QStringLiteral("versionId"), entry.versionId);
        f.size = content.size();
        f.syncStatus = FileSynchronizationStatus::Synchronized;
        // The record now describes the file on the disk and the server version made of it.
        QDateTime modified = QFileInfo(f.localPath).lastModified().toUTC();
        f.lastModified = modified.addMSecs(-modified.time().msec());
        f.checksum = Hash(content);
        f.privileges = entry.privileges;
        f.privilegeInfo = PrivilegeInfo(entry.privileges);
        f.referencesOnly = 0;
        f.transferPending = false;
        _StoreRecord(f);
        r.CountDone(Results::FileServerCreation, ShownPath(f));
    }
    return r;
}

Results FakeServer::DownloadFiles(const sync::config::ServerConfiguration&, const Folder& root,
                                  QList<sync::thread::SynchronizedFileConfiguration>& files) {
    const int wholeCall = _faults.Check(QStringLiteral("DownloadFiles"));
    Results r;
    for (sync::thread::SynchronizedFileConfiguration& pair : files) {
        File& f = pair.serverRecord;
        const QString target = f.localPath.isEmpty() ? pair.databaseRecord.localPath : f.localPath;
        const QString path =
            Normalized(f.serverPath.isEmpty() ? pair.databaseRecord.serverPath : f.serverPath);
        const int byFile = _Fault(QStringLiteral("Download"), path);
        int status = wholeCall != 0 ? wholeCall : byFile;
        const Entry* entry = Find(path);
        if (status == 0 && (!entry || entry->isFolder)) status = sync::http::NotFound;
        if (status == 0 && !(entry->privileges & PrivilegeDownload)) status = sync::http::Forbidden;
        // The user's edit made since planning is not overwritten; nothing is transferred.
        const bool refused =
            status == 0 && !_MayReplace(target, pair.databaseRecord, entry->content);
        if (refused) status = sync::http::Conflict;

        const QString temporary = sync::core::QFileWrapper(target).GetTemporaryFile(root.localPath);
        auto writeTemporary = [&](const QByteArray& content, const QDateTime& modified) {
            return QDir().mkpath(QFileInfo(temporary).absolutePath()) &&
                   WriteFile(temporary, content, modified);
        };
        bool stored = false;
        if (status != 0) {
            if (entry && !refused)
                writeTemporary(entry->content.left(entry->content.size() / 2), {});
        } else if (QFileInfo(QFileInfo(target).absolutePath()).isDir() &&
                   writeTemporary(entry->content, entry->modified)) {
            stored = std::rename(QFile::encodeName(temporary).constData(),
                                 QFile::encodeName(target).constData()) == 0;
            if (!stored) QFile::remove(temporary);
        }
        const FileSynchronizationStatus outcome =
            stored ? FileSynchronizationStatus::Synchronized : FileSynchronizationStatus::OutOfSync;
        f.syncStatus = pair.databaseRecord.syncStatus = outcome;
        if (!stored) {
            _StoreRecord(pair.databaseRecord);
            r.CountFailure(Results::FileLocalCreation, target, status);
            continue;
        }
        f.size = entry->content.size();
        f.serverFileId = entry->id;
        f.serverChecksum = reportsHashes ? HashOf(*entry) : QString();
        f.properties.insert(QStringLiteral("version"), QString::number(entry->version));
        f.properties.insert(QStringLiteral("versionId"), entry->versionId);
        f.privileges = entry->privileges;
        f.lastModified = entry->modified;
        // The record now describes the file on the disk and the server version it came from.
        File& record = pair.databaseRecord;
        record.size = f.size;
        record.serverFileId = f.serverFileId;
        record.serverChecksum = f.serverChecksum;
        record.properties.insert(QStringLiteral("version"), QString::number(entry->version));
        record.properties.insert(QStringLiteral("versionId"), entry->versionId);
        record.privileges = f.privileges;
        record.privilegeInfo = PrivilegeInfo(entry->privileges);
        record.lastModified = entry->modified;
        record.checksum = Hash(entry->content);
        record.referencesOnly = 0;
        record.transferPending = false;
        _StoreRecord(record);
        r.CountDone(Results::FileLocalCreation, target);
    }
    return r;
}

Results FakeServer::DeleteFiles(const Folder&, QList<File>& files) {
    const int wholeCall = _faults.Check(QStringLiteral("DeleteFiles"));
    Results r;
    for (File& f : files) {
        const QString path = Normalized(f.serverPath);
        const int byFile = _Fault(QStringLiteral("DeleteFile"), path);
        int status = wholeCall != 0 ? wholeCall : byFile;
        const Entry* entry = Find(path);
        if (status == 0 && entry && entry->isFolder) status = sync::http::Conflict;
        if (status == 0 && entry && !(entry->privileges & PrivilegeDelete))
            status = sync::http::Forbidden;
        // A file changed since it was planned is not deleted: its change comes down next cycle.
        const QString versionId = f.properties.value(QStringLiteral("versionId"));
        if (status == 0 && entry &&
            ((!f.serverFileId.isEmpty() && f.serverFileId != entry->id) ||
             (!versionId.isEmpty() && versionId != entry->versionId)))
            status = sync::http::PreconditionFailed;
        if (status != 0) {
            r.CountFailure(Results::FileServerDeletion, ShownPath(f), status);
            continue;
        }
        // A file already gone counts as deleted.
        if (entry) _entries.remove(path);
        if (_database && f.id > 0) _database->RemoveFile(f.id);
        r.CountDone(Results::FileServerDeletion, ShownPath(f));
    }
    return r;
}

QString FakeServer::BuildUrl(const sync::config::ServerConfiguration& server,
                             const QString& serverPath) {
    return sync::core::JoinServerPath(Normalized(server.baseUrl), serverPath);
}

// --- The test's side ------------------------------------------------------------------------

QString FakeServer::_Parent(const QString& path) {
    const int slash = path.lastIndexOf(QLatin1Char('/'));
    return slash <= 0 ? QString() : path.left(slash);
}

FakeServer::Entry& FakeServer::_Put(const QString& path, bool isFolder, int privileges) {
    const QString parent = _Parent(path);
    if (!parent.isEmpty() && !_entries.contains(parent))
        _Put(parent, true, sync::config::PrivilegeAll);
    auto it = _entries.find(path);
    if (it != _entries.end() && it->isFolder == isFolder) return *it;
    if (it != _entries.end()) Remove(path);
    Entry e;
    e.isFolder = isFolder;
    e.path = path;
    e.id = QStringLiteral("sid-%1").arg(++_lastId);
    e.privileges = privileges;
    e.modified = QDateTime::fromSecsSinceEpoch(kEpochSeconds + ++_clock, Qt::UTC);
    return *_entries.insert(path, e);
}

void FakeServer::_Write(Entry& entry, const QByteArray& content) {
    entry.content = content;
    ++entry.version;
    entry.versionId = QStringLiteral("vid-%1").arg(++_lastVersionId);
    entry.modified = QDateTime::fromSecsSinceEpoch(kEpochSeconds + ++_clock, Qt::UTC);
}

void FakeServer::_KeepConflictCopy(const Entry& entry) {
    const QDateTime now = QDateTime::fromSecsSinceEpoch(kEpochSeconds + _clock, Qt::UTC);
    const QString folder = _Parent(entry.path);
    const QString name = entry.path.section(QLatin1Char('/'), -1);
    QString path;
    for (int attempt = 1; path.isEmpty() || Find(path); ++attempt)
        path = folder + QLatin1Char('/') + ConflictCopyName(name, now, attempt);
    Entry& copy = _Put(path, false, entry.privileges);
    _Write(copy, entry.content);
    copy.modified = entry.modified;
}

bool FakeServer::_MayReplace(const QString& target, File& record, const QByteArray& content) {
    const QFileInfo local(target);
    if (!local.exists()) return true;
    QFile file(target);
    const QByteArray bytes =
        local.isFile() && file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    if (local.isFile() && bytes == content) return true;
    // Time stamps count in whole seconds: an edit of the same size within the second of the
    // last sync only shows in the content.
    const bool stampAsRecorded =
        local.isFile() && record.lastModified.isValid() && local.size() == record.size &&
        local.lastModified().toSecsSinceEpoch() == record.lastModified.toSecsSinceEpoch();
    if (stampAsRecorded && (record.checksum.isEmpty() || Hash(bytes) == record.checksum))
        return true;
    if (stampAsRecorded) record.lastModified = QDateTime();
    return false;
}

QString FakeServer::ConflictCopyName(const QString& name, const QDateTime& when, int attempt) {
    int dot = name.lastIndexOf(QLatin1Char('.'));
    if (dot <= 0) dot = name.size();  // no extension, or a name that begins with a dot
    QString tag = when.toString(QStringLiteral("yyyy-MM-dd HHmmss"));
    if (attempt > 1) tag += QLatin1Char(' ') + QString::number(attempt);
    return name.left(dot) + QStringLiteral(" (conflict ") + tag + QLatin1Char(')') + name.mid(dot);
}

void FakeServer::_StoreRecord(File& record) {
    if (!_database) return;
    if (record.id > 0)
        _database->UpdateFile(record);
    else
        _database->AddFile(record);
}

void FakeServer::PutFolder(const QString& path, int privileges) {
    if (Normalized(path).isEmpty()) return;  // the server's top folder always exists
    _Put(Normalized(path), true, privileges).privileges = privileges;
}

void FakeServer::PutFile(const QString& path, const QByteArray& content, int privileges) {
    if (Normalized(path).isEmpty()) return;
    Entry& entry = _Put(Normalized(path), false, privileges);
    entry.privileges = privileges;
    _Write(entry, content);
}

void FakeServer::Remove(const QString& path) {
    const QString normalized = Normalized(path);
    const QString prefix = normalized + QLatin1Char('/');
    for (auto it = _entries.begin(); it != _entries.end();)
        it = it.key() == normalized || it.key().startsWith(prefix) ? _entries.erase(it)
                                                                   : std::next(it);
}

void FakeServer::SetPrivileges(const QString& path, int privileges) {
    const auto it = _entries.find(Normalized(path));
    if (it != _entries.end()) it->privileges = privileges;
}

const FakeServer::Entry* FakeServer::Find(const QString& path) const {
    const auto it = _entries.constFind(Normalized(path));
    return it == _entries.constEnd() ? nullptr : &*it;
}

QList<const FakeServer::Entry*> FakeServer::_Below(const QString& rootPath, bool directOnly) const {
    QList<const Entry*> below;
    const QString prefix = rootPath + QLatin1Char('/');
    for (const Entry& e : _entries) {
        if (!e.path.startsWith(prefix)) continue;
        if (directOnly && _Parent(e.path) != rootPath) continue;
        below.append(&e);
    }
    return below;
}

QStringList FakeServer::Listing() const {
    QStringList lines;
    for (const Entry& e : _entries) {
        QString line = e.isFolder ? QStringLiteral("server %1/").arg(e.path)
                                  : QStringLiteral("server %1 v%2 %3")
                                        .arg(e.path)
                                        .arg(e.version)
                                        .arg(ContentText(e.content));
        if (e.privileges != sync::config::PrivilegeAll)
            line += QStringLiteral(" privileges %1").arg(e.privileges);
        lines.append(line);
    }
    lines.sort();
    return lines;
}

QString FakeServer::ContentText(const QByteArray& content) {
    QString text = QStringLiteral("\"");
    for (const char c : content.left(kShownContentBytes)) {
        if (c >= 0x20 && c < 0x7f && c != '"' && c != '\\')
            text += QLatin1Char(c);
        else
            text +=
                QStringLiteral("\\x%1").arg(static_cast<unsigned char>(c), 2, 16, QLatin1Char('0'));
    }
    if (content.size() > kShownContentBytes)
        return text + QStringLiteral("...\" (%1 bytes)").arg(content.size());
    return text + QLatin1Char('"');
}

}  // namespace test
}  // namespace sync
