#pragma once

#include <QByteArray>
#include <QDateTime>
#include <QHash>
#include <QMap>
#include <QSet>
#include <QString>
#include <QStringList>
#include <memory>

#include "FaultPlan.h"
#include "IFileConfigManager.h"
#include "IFileDeleteClient.h"
#include "IFileDownloadClient.h"
#include "IFileUploadClient.h"
#include "IRemoteFileManagerFactory.h"
#include "IRemoteFolderManagerFactory.h"
#include "IUrlBuilder.h"

namespace sync {
namespace test {

// One file server in memory, behind every interface of the remote file service. Entries are
// kept by server path (case-sensitive, as a WebDAV server keeps them); each has a stable id,
// and a file has an integer version and a version id that both change whenever its content is
// written. Uploads read the local disk, downloads write it (through a temporary file renamed
// into place), and the server refuses what an entry's privileges refuse (403).
//
// Transfers keep what the real backends keep: content the server already holds is never written
// again (the record is only settled); an upload replaces only the version its record names, and
// a new file only where no file is (412 otherwise); an upload over a version the database record
// does not name (both sides changed the file) first keeps that version beside it under
// ConflictCopyName; a download refuses (409) to replace a local file that is not as its database
// record describes it (size, whole-second time and checksum) unless it holds the same content.
//
// Listings fill every field the tree retrievers and the differs read: localPath (the root's
// localPath followed by the path below the root), serverPath, name, size, serverFileId or
// serverFolderId, serverChecksum (SHA-256 as lower-case hex, unless reportsHashes is off),
// properties "version" and "versionId", privileges and privilegeInfo. A listing answers 0, 404
// when the root folder is missing, and, when answersNotModified is on, 304 when nothing below the
// root changed since the previous listing of that root.
//
// Faults: FailOn(key, status, nth) makes every call, or the n-th call from now on, that checks
// key fail with status. A call checks its operation's name and the server path it works on, so
// a key is either:
//   CreateRemoteFolderManager, CreateRemoteFileManager  throw HttpException(status)
//   GetFolderTree, GetRootFiles                          answer status
//   GetFolderInfo             404 answers false; any other status throws HttpException
//   CreateFolder              counted in the result: FolderServerCreationErrors, errorCodes
//   DeleteFolder              404 counts as deleted (nothing is removed); else HttpException
//   UploadFiles               the whole call throws HttpException (no file can be tried)
//   DownloadFiles, DeleteFiles  every file of the call fails, counted as below
//   Upload, Download, DeleteFile  that file fails, counted in the result (the category's
//                             errors and error paths, errorCodes); a transfer leaves the record
//                             OutOfSync, and a failed download leaves half the content in the
//                             file's temporary file, as a cut transfer does
//   a server path             every call above that works on that path (a root's listing too)
// Result path lists hold each entry's localPath.
class FakeServer : public sync::interf::factory::IRemoteFolderManagerFactory,
                   public sync::interf::factory::IRemoteFileManagerFactory,
                   public sync::interf::IRemoteFolderManager,
                   public sync::interf::IRemoteFileManager,
                   public sync::interf::IFileUploadClient,
                   public sync::interf::IFileDownloadClient,
                   public sync::interf::IFileDeleteClient,
                   public sync::interf::IUrlBuilder,
                   public std::enable_shared_from_this<FakeServer> {
public:
    using Folder = sync::config::FolderConfiguration;
    using File = sync::config::FileConfiguration;
    using Results = sync::core::SyncResults;

    struct Entry {
        bool isFolder = false;
        QString path;
        QString id;
        int version = 0;
        QString versionId;
        QByteArray content;
        int privileges = sync::config::PrivilegeAll;
        QDateTime modified;  // UTC, whole seconds
        // The hash of content as last listed, with the content it was made of: listings of a
        // large tree would otherwise hash every file again each time.
        mutable QByteArray hashed;
        mutable QString hash;
    };

    // Off: listings leave serverChecksum empty, as servers that keep no hashes do.
    bool reportsHashes = true;
    // On: a listing of a root that has not changed since its previous listing (while this was
    // on) answers 304.
    bool answersNotModified = false;
    // With a database, the transfer clients settle the records of what they transferred, as the
    // real clients must: a download stores its file's record (new ones included) with the
    // outcome, a server deletion removes the record of the file it deleted.
    void SetDatabase(std::shared_ptr<sync::interf::IFileConfigManager> files) {
        _database = std::move(files);
    }
    // The accounts the server knows; empty: every account. A manager asked for any other account
    // throws HttpException(401), as a server refuses credentials it does not know.
    QSet<int> accounts;

    // Manager factories: one server serves every account; the managers are the server itself.
    std::shared_ptr<sync::interf::IRemoteFolderManager> CreateRemoteFolderManager(
        int authenticationId) override;
    std::shared_ptr<sync::interf::IRemoteFileManager> CreateRemoteFileManager(
        int authenticationId) override;

    // IRemoteFolderManager, IRemoteFileManager
    Results CreateFolder(Folder& folder, const QString& text, bool createParents) override;
    Results DeleteFolder(Folder& folder) override;
    bool GetFolderInfo(const Folder& folder, Folder& info) override;
    int GetFolderTree(Folder& root, std::shared_ptr<QVector<Folder>> folders,
                      std::shared_ptr<QVector<File>> files) override;
    int GetRootFiles(Folder& root, std::shared_ptr<QVector<File>> files) override;

    // Transfer clients
    Results UploadFiles(const sync::config::ServerConfiguration& server, const Folder& root,
                        QList<File>& files) override;
    Results DownloadFiles(const sync::config::ServerConfiguration& server, const Folder& root,
                          QList<sync::thread::SynchronizedFileConfiguration>& files) override;
    Results DeleteFiles(const Folder& root, QList<File>& files) override;

    // The account's base URL followed by the server path.
    QString BuildUrl(const sync::config::ServerConfiguration& server,
                     const QString& serverPath) override;

    // The test's side. Put creates missing parent folders; putting a file that exists writes
    // new content (a new version). Remove takes everything below a folder with it.
    void PutFolder(const QString& path, int privileges = sync::config::PrivilegeAll);
    void PutFile(const QString& path, const QByteArray& content,
                 int privileges = sync::config::PrivilegeAll);
    void Remove(const QString& path);
    void SetPrivileges(const QString& path, int privileges);
    // Null when there is no entry at path.
    const Entry* Find(const QString& path) const;
    // The records a listing of root gives for an entry below it.
    File FileRecord(const Entry& entry, const Folder& root) const;
    // The hash of the entry's content, made again only when the content changed.
    static const QString& HashOf(const Entry& entry);
    Folder FolderRecord(const Entry& entry, const Folder& root) const;
    // One line per entry, sorted: `server /Docs/a.txt v2 "hello"`, `server /Docs/sub/`, with
    // " privileges N" added where they are not all granted.
    QStringList Listing() const;

    void FailOn(const QString& key, int status, int nth = 0) { _faults.Add(key, status, nth); }
    void ClearFaults() { _faults.Clear(); }
    // Calls that checked key so far.
    int Calls(const QString& key) const { return _faults.Calls(key); }

    // "a (conflict 2023-11-14 221320).txt": the name under which an upload keeps the version it
    // replaces unseen, as the real backends name it; " 2", " 3"... follow the time when taken.
    static QString ConflictCopyName(const QString& name, const QDateTime& when, int attempt = 1);

    // Content as the listings show it: quoted, bytes outside printable ASCII as \xNN, long
    // content cut short with its size.
    static QString ContentText(const QByteArray& content);

private:
    // Throws what a manager factory throws for the call: an injected fault, or 401 for an
    // account the server does not know.
    void _CheckAccount(const QString& operation, int authenticationId);
    // Checks the operation and the path; the status to fail with, or 0.
    int _Fault(const QString& operation, const QString& path);
    Entry& _Put(const QString& path, bool isFolder, int privileges);
    void _Write(Entry& entry, const QByteArray& content);
    // Keeps a copy of the file's current version beside it under a conflict name.
    void _KeepConflictCopy(const Entry& entry);
    // Whether a download may replace the local file at target: missing, as the record describes
    // it, or holding the content already. Clears the record's time when only the content tells
    // the edit, so that the next cycle hashes the file and finds it.
    static bool _MayReplace(const QString& target, File& record, const QByteArray& content);
    static QString _Parent(const QString& path);
    // Entries below the root (direct children only when directOnly), in path order.
    QList<const Entry*> _Below(const QString& rootPath, bool directOnly) const;
    // 0, 404 or the injected status; fills nothing on failure.
    int _List(const QString& operation, Folder& root, bool directOnly, QVector<Folder>* folders,
              QVector<File>* files);

    QMap<QString, Entry> _entries;
    // Text of the previous listing per operation and root, for 304 answers.
    QHash<QString, QString> _previousListing;
    int _lastId = 0;
    int _lastVersionId = 0;
    int _clock = 0;  // seconds after the epoch of the server's time stamps
    // Stores a transferred file's record when there is a database.
    void _StoreRecord(sync::config::FileConfiguration& record);
    std::shared_ptr<sync::interf::IFileConfigManager> _database;
    FaultPlan _faults;
};

}  // namespace test
}  // namespace sync
