#include "SyncIgnoreFilter.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include "SyncLog.h"

namespace sync {
namespace host {

namespace {

QStringView NameOf(const QString& path) {
    const auto slash = path.lastIndexOf(QLatin1Char('/'));
    return QStringView(path).mid(slash + 1);
}

}  // namespace

const QString SyncIgnoreFilter::FileName = QStringLiteral(".syncignore");

SyncIgnoreFilter::SyncIgnoreFilter()
    : _litter(IgnoreRules::Parse(LitterPatterns().join(QLatin1Char('\n')).toUtf8())) {}

QStringList SyncIgnoreFilter::LitterPatterns() {
    return {
        QStringLiteral("*~"),           // editor backups
        QStringLiteral(".*.sw[a-p]"),   // vim swap files
        QStringLiteral(".#*"),          // emacs locks
        QStringLiteral("\\#*#"),        // emacs auto-saves
        QStringLiteral("~$*"),          // office owner files
        QStringLiteral(".~lock.*#"),    // LibreOffice locks
        QStringLiteral(".DS_Store"),    // macOS folder settings
        QStringLiteral("Thumbs.db"),    // Windows thumbnails
        QStringLiteral("desktop.ini"),  // Windows folder settings
    };
}

int SyncIgnoreFilter::FilterFile(const QString& path, qint64, bool serverSide) {
    if (_litter.IsExcluded(NameOf(path), /*isFolder=*/false)) return 1;
    return _Excluded(path, /*isFolder=*/false, serverSide) ? 1 : 0;
}

int SyncIgnoreFilter::FilterFolder(const QString& path, bool serverSide) {
    return _Excluded(path, /*isFolder=*/true, serverSide) ? 1 : 0;
}

bool SyncIgnoreFilter::IsRootFolderIncluded(const sync::config::FolderConfiguration& root) {
    _rootKnown = true;
    _rootServerPath = root.serverPath;
    while (_rootServerPath.endsWith(QLatin1Char('/'))) _rootServerPath.chop(1);
    _ReadRules(root.localPath);
    return true;
}

bool SyncIgnoreFilter::_Excluded(const QString& path, bool isFolder, bool serverSide) const {
    if (!_rootKnown || _rules.RuleCount() == 0) return false;
    if (!serverSide) return _rules.IsExcluded(path, isFolder);
    // The engine keys entries by their lower-case server path, so the root's own spelling may
    // differ in case from the server's.
    const int rootLength = _rootServerPath.size();
    if (!path.startsWith(_rootServerPath, Qt::CaseInsensitive) ||
        (path.size() > rootLength && path.at(rootLength) != QLatin1Char('/'))) {
        SYNC_LOG_DEBUG("Server path %1 is not below root %2; its ignore rules do not apply.", path,
                       _rootServerPath);
        return false;
    }
    return _rules.IsExcluded(QStringView(path).mid(rootLength), isFolder);
}

void SyncIgnoreFilter::_ReadRules(const QString& rootLocalPath) {
    _rules = IgnoreRules();
    const QString path = QDir(rootLocalPath).filePath(FileName);
    const QFileInfo info(path);
    if (!info.exists()) return;
    // Not a FIFO or a device: reading one could block the cycle.
    if (!info.isFile()) {
        SYNC_LOG_WARN("Ignoring %1: it is not a regular file.", path);
        return;
    }
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        SYNC_LOG_WARN("Cannot read %1 (%2); no entry of this folder is left out by it.", path,
                      file.errorString());
        return;
    }
    _rules = IgnoreRules::Parse(file.read(IgnoreRules::MaxFileSize + 1));
    if (_rules.Truncated())
        SYNC_LOG_WARN("%1 is larger than %2 bytes; only the lines within them apply.", path,
                      QString::number(IgnoreRules::MaxFileSize));
    if (_rules.SkippedLongLines() > 0)
        SYNC_LOG_WARN("%1: skipped %2 line(s) longer than %3 bytes.", path,
                      QString::number(_rules.SkippedLongLines()),
                      QString::number(IgnoreRules::MaxPatternLength));
    SYNC_LOG_DEBUG("Read %1 ignore rule(s) from %2", QString::number(_rules.RuleCount()), path);
}

}  // namespace host
}  // namespace sync
