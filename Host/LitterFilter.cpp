#include "LitterFilter.h"

namespace sync {
namespace host {

namespace {

QString NameOf(const QString& path) {
    const int slash = path.lastIndexOf(QLatin1Char('/'));
    return slash < 0 ? path : path.mid(slash + 1);
}

}  // namespace

LitterFilter::LitterFilter() {
    for (const QString& pattern : DefaultPatterns())
        _files.append(QRegularExpression(QRegularExpression::anchoredPattern(
            QRegularExpression::wildcardToRegularExpression(pattern))));
}

QStringList LitterFilter::DefaultPatterns() {
    return {
        QStringLiteral("*~"),           // editor backups
        QStringLiteral(".*.sw[a-p]"),   // vim swap files
        QStringLiteral(".#*"),          // emacs locks
        QStringLiteral("#*#"),          // emacs auto-saves
        QStringLiteral("~$*"),          // office owner files
        QStringLiteral(".~lock.*#"),    // LibreOffice locks
        QStringLiteral(".DS_Store"),    // macOS folder settings
        QStringLiteral("Thumbs.db"),    // Windows thumbnails
        QStringLiteral("desktop.ini"),  // Windows folder settings
    };
}

int LitterFilter::FilterFile(const QString& path, qint64, bool) {
    const QString name = NameOf(path);
    for (const auto& rule : _files)
        if (rule.match(name).hasMatch()) return 1;
    return 0;
}

int LitterFilter::FilterFolder(const QString&, bool) {
    return 0;
}

bool LitterFilter::IsRootFolderIncluded(const sync::config::FolderConfiguration&) {
    return true;
}

}  // namespace host
}  // namespace sync
