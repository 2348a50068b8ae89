#include "DryRunRemote.h"

#include "SyncCodes.h"

namespace sync {
namespace host {

using sync::config::FileConfiguration;
using sync::config::FolderConfiguration;
using sync::core::SyncResults;

namespace {

QString Key(int authenticationId, const QString& serverPath) {
    return QString::number(authenticationId) + QLatin1Char(':') + serverPath.toLower();
}

}  // namespace

class DryRunRemote::Folders : public sync::interf::IRemoteFolderManager,
                              public sync::interf::IRemoteFileManager {
public:
    Folders(std::shared_ptr<sync::interf::IRemoteFolderManager> folders,
            std::shared_ptr<sync::interf::IRemoteFileManager> files,
            std::shared_ptr<QSet<QString>> pretended)
        : _folders(std::move(folders)),
          _files(std::move(files)),
          _pretended(std::move(pretended)) {}

    SyncResults CreateFolder(FolderConfiguration& folder, const QString&, bool) override {
        _pretended->insert(Key(folder.authenticationId, folder.serverPath));
        SyncResults r;
        r.CountDone(SyncResults::FolderServerCreation, folder.serverPath);
        return r;
    }
    SyncResults DeleteFolder(FolderConfiguration& folder) override {
        SyncResults r;
        r.CountFailure(SyncResults::FolderServerDeletion, folder.serverPath);
        return r;
    }
    bool GetFolderInfo(const FolderConfiguration& folder, FolderConfiguration& info) override {
        return _folders->GetFolderInfo(folder, info);
    }
    int GetFolderTree(FolderConfiguration& root,
                      std::shared_ptr<QVector<FolderConfiguration>> folders,
                      std::shared_ptr<QVector<FileConfiguration>> files) override {
        const int status = _folders->GetFolderTree(root, folders, files);
        return _Pretended(root, status) ? 0 : status;
    }
    int GetRootFiles(FolderConfiguration& root,
                     std::shared_ptr<QVector<FileConfiguration>> files) override {
        const int status = _files->GetRootFiles(root, files);
        return _Pretended(root, status) ? 0 : status;
    }

private:
    bool _Pretended(const FolderConfiguration& root, int status) const {
        return status == sync::http::NotFound &&
               _pretended->contains(Key(root.authenticationId, root.serverPath));
    }

    std::shared_ptr<sync::interf::IRemoteFolderManager> _folders;
    std::shared_ptr<sync::interf::IRemoteFileManager> _files;
    std::shared_ptr<QSet<QString>> _pretended;
};

DryRunRemote::DryRunRemote(std::shared_ptr<sync::remote::RemoteService> real)
    : _real(std::move(real)) {}

std::shared_ptr<sync::interf::IRemoteFolderManager> DryRunRemote::CreateRemoteFolderManager(
    int authenticationId) {
    return std::make_shared<Folders>(_real->CreateRemoteFolderManager(authenticationId),
                                     _real->CreateRemoteFileManager(authenticationId), _pretended);
}

std::shared_ptr<sync::interf::IRemoteFileManager> DryRunRemote::CreateRemoteFileManager(
    int authenticationId) {
    return std::make_shared<Folders>(_real->CreateRemoteFolderManager(authenticationId),
                                     _real->CreateRemoteFileManager(authenticationId), _pretended);
}

SyncResults DryRunRemote::UploadFiles(const sync::config::ServerConfiguration&,
                                      const FolderConfiguration&, QList<FileConfiguration>& files) {
    SyncResults r;
    for (const auto& file : files) r.CountFailure(SyncResults::FileServerCreation, file.localPath);
    return r;
}

SyncResults DryRunRemote::DownloadFiles(const sync::config::ServerConfiguration&,
                                        const FolderConfiguration&,
                                        QList<sync::thread::SynchronizedFileConfiguration>& files) {
    SyncResults r;
    for (const auto& pair : files)
        r.CountFailure(SyncResults::FileLocalCreation, pair.databaseRecord.localPath);
    return r;
}

SyncResults DryRunRemote::DeleteFiles(const FolderConfiguration&, QList<FileConfiguration>& files) {
    SyncResults r;
    for (const auto& file : files) r.CountFailure(SyncResults::FileServerDeletion, file.localPath);
    return r;
}

QString DryRunRemote::BuildUrl(const sync::config::ServerConfiguration& server,
                               const QString& serverPath) {
    return _real->BuildUrl(server, serverPath);
}

}  // namespace host
}  // namespace sync
