#include "ConsoleReporter.h"

namespace sync {
namespace host {

using sync::core::SyncResults;

namespace {

struct Wording {
    SyncResults::Category category;
    const char* done;
    const char* planned;
};

const Wording kWording[] = {
    {SyncResults::FileLocalCreation, "downloaded", "to download"},
    {SyncResults::FileServerCreation, "uploaded", "to upload"},
    {SyncResults::FileLocalDeletion, "deleted locally", "to delete locally"},
    {SyncResults::FileServerDeletion, "deleted on the server", "to delete on the server"},
    {SyncResults::FolderLocalCreation, "local folders created", "local folders to create"},
    {SyncResults::FolderServerCreation, "server folders created", "server folders to create"},
    {SyncResults::FolderLocalDeletion, "local folders deleted", "local folders to delete"},
    {SyncResults::FolderServerDeletion, "server folders deleted", "server folders to delete"},
};

// What an HTTP-like status means to a user.
QString StatusText(int code) {
    switch (code) {
        case 0:
            return QStringLiteral("failed");
        case 401:
            return QStringLiteral("the server refused the credentials (401)");
        case 403:
            return QStringLiteral("not allowed (403)");
        case 404:
            return QStringLiteral("not found (404)");
        case 409:
            return QStringLiteral("changed while it was being synced; tried again next time (409)");
        case 412:
            return QStringLiteral("changed on the server meanwhile; tried again next time (412)");
        case 429:
            return QStringLiteral("the server asked to slow down (429)");
        case 507:
            return QStringLiteral("the server is full (507)");
        default:
            return QStringLiteral("error %1").arg(code);
    }
}

}  // namespace

ConsoleReporter::ConsoleReporter(QHash<long, QString> rootPaths, QTextStream& out, QTextStream& err)
    : _rootPaths(std::move(rootPaths)), _out(out), _err(err) {}

QString ConsoleReporter::_RootPath(long folderId) const {
    return _rootPaths.value(folderId, QStringLiteral("folder %1").arg(folderId));
}

QString ConsoleReporter::WorkText(const SyncResults& results, bool planned) {
    QStringList parts;
    for (const Wording& w : kWording)
        if (results.done(w.category) > 0)
            parts << QStringLiteral("%1 %2")
                         .arg(results.done(w.category))
                         .arg(QLatin1String(planned ? w.planned : w.done));
    return parts.join(QStringLiteral(", "));
}

void ConsoleReporter::HandleConnectionError(int errorCode) {
    if (_beforeOutput) _beforeOutput();
    _anyError = true;
    _err << "error: no connection to the server (" << errorCode << ")\n";
    _err.flush();
}

void ConsoleReporter::HandleSyncingFolders() {}

void ConsoleReporter::HandleFolderSyncError(QString folderAbsolutePath, long, int httpErrorCode) {
    if (_beforeOutput) _beforeOutput();
    _anyError = true;
    _err << "error: " << folderAbsolutePath << ": " << StatusText(httpErrorCode) << "\n";
    _err.flush();
}

void ConsoleReporter::HandleFolderAuthenticationError(long folderId) {
    if (_beforeOutput) _beforeOutput();
    _anyError = true;
    _err << "error: " << _RootPath(folderId)
         << ": the server refused the credentials; check the account's password\n";
    _err.flush();
}

void ConsoleReporter::HandleFinishedSyncingFolders(bool wasError) {
    _anyError = _anyError || wasError;
    _finished = true;
}

void ConsoleReporter::HandleBeginSyncingRootFolder(long folderId, SyncResults results,
                                                   bool isFirstSync) {
    // A first sync plans the root folder itself as created on both sides; it exists already.
    const QString root = _rootPaths.value(folderId);
    for (auto c : {SyncResults::FolderLocalCreation, SyncResults::FolderServerCreation})
        results.done(c) -= results.donePaths(c).removeAll(root);
    const QString work = WorkText(results, true);
    if (work.isEmpty()) return;
    if (_beforeOutput) _beforeOutput();
    _out << _RootPath(folderId) << (isFirstSync ? " (first sync): " : ": ") << work << "\n";
    _out.flush();
}

void ConsoleReporter::HandleFinishedSyncingRootFolder(long folderId, SyncResults results, bool) {
    _total += results;
    if (_planOnly) return;
    if (_beforeOutput) _beforeOutput();
    const QString work = WorkText(results, false);
    if (!work.isEmpty()) _out << _RootPath(folderId) << ": " << work << "\n";
    for (const Wording& w : kWording)
        for (const QString& path : results.errorPaths(w.category))
            _err << "failed: " << path << "\n";
    if (results.anyErrors()) {
        QStringList codes;
        for (auto it = results.errorCodes.cbegin(); it != results.errorCodes.cend(); ++it)
            codes << QStringLiteral("%1 × %2").arg(it.value()).arg(StatusText(it.key()));
        _err << _RootPath(folderId) << ": " << codes.join(QStringLiteral("; ")) << "\n";
    }
    _out.flush();
    _err.flush();
}

void ConsoleReporter::HandleSubFolderNameNotAllowed(QString path) {
    if (_beforeOutput) _beforeOutput();
    _err << "skipped: " << path << ": the name is not allowed on the server\n";
    _err.flush();
}

}  // namespace host
}  // namespace sync
