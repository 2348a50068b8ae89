#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QTextStream>

#include "SyncLog.h"

// Command-line host: keeps a local folder in step with a server folder.
int main(int argc, char* argv[]) {
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("foldersync"));
    QTextStream err(stderr);
    const QStringList args = QCoreApplication::arguments().mid(1);
    if (args.isEmpty() || args.first() == QLatin1String("--help")) {
        err << "usage: foldersync LOCAL_FOLDER [SERVER_FOLDER]\n"
            << "Keeps LOCAL_FOLDER in step with SERVER_FOLDER, a folder acting as the server.\n";
        return args.isEmpty() ? 2 : 0;
    }
    sync::core::ConfigureLogging(QStringLiteral("INFO"));
    const QString local = QFileInfo(args.first()).absoluteFilePath();
    err << "foldersync: the engine is built, but syncing " << QDir::toNativeSeparators(local)
        << " is not available yet: the planning and transfer stages are still being written.\n";
    return 3;
}
