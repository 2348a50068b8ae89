#pragma once

#include <QSet>
#include <memory>

#include "RemoteService.h"

namespace sync {
namespace host {

// The server as a dry run sees it: everything is read from the real server, nothing is ever
// written to it. A root folder that does not exist there yet is "created" only in name and
// then lists as empty, so that the plan shows what a real run would upload into it.
class DryRunRemote : public sync::interf::factory::IRemoteFolderManagerFactory,
                     public sync::interf::factory::IRemoteFileManagerFactory,
                     public sync::interf::IFileUploadClient,
                     public sync::interf::IFileDownloadClient,
                     public sync::interf::IFileDeleteClient,
                     public sync::interf::IUrlBuilder {
public:
    explicit DryRunRemote(std::shared_ptr<sync::remote::RemoteService> real);

    std::shared_ptr<sync::interf::IRemoteFolderManager> CreateRemoteFolderManager(
        int authenticationId) override;
    std::shared_ptr<sync::interf::IRemoteFileManager> CreateRemoteFileManager(
        int authenticationId) override;
    // A dry run cancels every root folder before its plan runs; should a transfer be asked for
    // anyway, it fails without touching anything.
    sync::core::SyncResults UploadFiles(const sync::config::ServerConfiguration& server,
                                        const sync::config::FolderConfiguration& root,
                                        QList<sync::config::FileConfiguration>& files) override;
    sync::core::SyncResults DownloadFiles(
        const sync::config::ServerConfiguration& server,
        const sync::config::FolderConfiguration& root,
        QList<sync::thread::SynchronizedFileConfiguration>& files) override;
    sync::core::SyncResults DeleteFiles(const sync::config::FolderConfiguration& root,
                                        QList<sync::config::FileConfiguration>& files) override;
    QString BuildUrl(const sync::config::ServerConfiguration& server,
                     const QString& serverPath) override;

private:
    class Folders;
    std::shared_ptr<sync::remote::RemoteService> _real;
    // Server paths of folders "created" by this run, by account.
    std::shared_ptr<QSet<QString>> _pretended = std::make_shared<QSet<QString>>();
};

}  // namespace host
}  // namespace sync
