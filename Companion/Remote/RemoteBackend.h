#pragma once

#include <QDateTime>
#include <QString>
#include <QStringView>
#include <functional>
#include <memory>

#include "ICheckForExit.h"
#include "IFileConfigManager.h"
#include "IFileDeleteClient.h"
#include "IFileDownloadClient.h"
#include "IFileUploadClient.h"
#include "IRemoteFileManagerFactory.h"
#include "IRemoteFolderManagerFactory.h"
#include "IUrlBuilder.h"
#include "ServerPause.h"

namespace sync {
namespace remote {

// Everything the engine needs of one account's server, from one object: the managers, the
// transfer clients and the URL builder. A backend serves one account; RemoteService picks the
// backend by the account's URL and forwards to it.
class RemoteBackend : public sync::interf::factory::IRemoteFolderManagerFactory,
                      public sync::interf::factory::IRemoteFileManagerFactory,
                      public sync::interf::IRemoteFolderManager,
                      public sync::interf::IRemoteFileManager,
                      public sync::interf::IFileUploadClient,
                      public sync::interf::IFileDownloadClient,
                      public sync::interf::IFileDeleteClient,
                      public sync::interf::IUrlBuilder {
public:
    ~RemoteBackend() override = default;

    // With a database, the transfer clients store the records of what they transferred: the
    // outcome of every upload and download (new records added), and a deleted file's record
    // removed.
    virtual void SetDatabase(std::shared_ptr<sync::interf::IFileConfigManager> files) = 0;
    // A stop request ends long transfers promptly; without a checker transfers run to the end.
    virtual void SetExitChecker(std::shared_ptr<sync::interf::ICheckForExit> exitChecker) = 0;

    // Hears a transfer's progress: the local path, the bytes done and the bytes in all; once at
    // least per file, the last time with done equal to total. Called on the transferring
    // thread.
    using ProgressListener = std::function<void(const QString& path, qint64 done, qint64 total)>;
    virtual void SetProgressListener(ProgressListener listener) { (void)listener; }
    // The seconds the server asked to be left alone with its last 429 or 503 (Retry-After);
    // -1 when it never did.
    virtual int RetryAfterSeconds() const { return -1; }
    // The pause shared by every backend of the account (see ServerPause); a backend without
    // one keeps its own.
    virtual void SetServerPause(std::shared_ptr<ServerPause> pause) { (void)pause; }

    // The marked part of an upload's temporary file name in a server folder:
    // ".<name>.{SyncUpload}<1 to 8 hex digits>.TMP". Such a file is never content for any
    // backend, since one folder may be served both as a local folder and over WebDAV; the
    // braces keep it apart from any name a user would give a file.
    static QLatin1String UploadTemporaryMark() { return QLatin1String(".{SyncUpload}"); }
    static bool IsUploadTemporaryName(QStringView name) {
        const QLatin1String extension(".TMP");
        if (name.size() < 4 || name.at(0) != QLatin1Char('.') || !name.endsWith(extension))
            return false;
        const QStringView stem = name.left(name.size() - extension.size());
        const int mark = int(stem.lastIndexOf(UploadTemporaryMark()));
        const int digits = int(stem.size()) - mark - int(UploadTemporaryMark().size());
        if (mark <= 0 || digits < 1 || digits > 8) return false;
        for (int i = int(stem.size()) - digits; i < stem.size(); ++i) {
            const char16_t c = stem.at(i).unicode();
            if (!((c >= u'0' && c <= u'9') || (c >= u'a' && c <= u'f') || (c >= u'A' && c <= u'F')))
                return false;
        }
        return true;
    }

    // The name under which a server version that an upload is about to replace unseen is kept:
    // "report (conflict 2026-11-23 221502).txt", with " 2", " 3"... before the extension when
    // that name is taken. A name that would not fit in a file name (255 bytes) loses the end
    // of its stem, then of its extension: a copy that cannot be made would stop the upload
    // for good.
    static QString ConflictCopyName(const QString& name, const QDateTime& when, int attempt = 1) {
        int dot = name.lastIndexOf(QLatin1Char('.'));
        if (dot <= 0) dot = name.size();  // no extension, or a name that begins with a dot
        QString tag = when.toString(QStringLiteral("yyyy-MM-dd HHmmss"));
        if (attempt > 1) tag += QLatin1Char(' ') + QString::number(attempt);
        const QString marker = QStringLiteral(" (conflict ") + tag + QLatin1Char(')');
        QString stem = name.left(dot);
        QString extension = name.mid(dot);
        const int room = kNameBytes - int(marker.toUtf8().size());
        while (int((stem + extension).toUtf8().size()) > room) {
            QString& cut = stem.isEmpty() ? extension : stem;
            if (cut.isEmpty()) break;
            cut.chop(cut.size() >= 2 && cut.at(cut.size() - 1).isLowSurrogate() ? 2 : 1);
        }
        return stem + marker + extension;
    }

private:
    static constexpr int kNameBytes = 255;
};

}  // namespace remote
}  // namespace sync
