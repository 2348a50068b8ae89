#pragma once

// Two machines that sync one folder of one WebDAV server (a private Apache), each with its own
// home, database, trash and local folder, driven through the real program; and what a test
// needs to look at the three copies of the folder afterwards.

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QMap>
#include <QProcess>
#include <QProcessEnvironment>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>
#include <memory>
#include <mutex>

#include "ApacheServer.h"
#include "ProgramStatus.h"
#include "VersionLedger.h"

namespace sync {
namespace test {

// The one Apache of the test program; every sequence gets a folder of its own on it.
class DavSite {
public:
    // Empty when the server runs; else why not.
    static QString Error() { return Instance()._error; }
    static ApacheServer& Server() { return *Instance()._server; }

private:
    DavSite() : _server(std::make_unique<ApacheServer>()) {
        _error = ApacheServer::Unavailable();
        if (_error.isEmpty()) _server->Start(&_error);
    }
    // Stopped when the program ends, with the static's destruction.
    static DavSite& Instance() {
        static DavSite site;
        return site;
    }
    std::unique_ptr<ApacheServer> _server;
    QString _error;
};

struct ProgramRun {
    int status = -1;  // the exit status; -1 when the program crashed or hung
    QString out;
    QString err;
    bool NothingToDo() const {
        return status == 0 && out.contains(QLatin1String("in step, nothing to do"));
    }
};

// One machine: its own HOME and XDG folders (so its own trash and log), its database and the
// local folder that it syncs.
class Client {
public:
    Client(const QString& name, const QString& home) : _name(name), _home(home) {
        QDir().mkpath(Local());
    }
    const QString& Name() const { return _name; }
    QString Local() const { return _home + QStringLiteral("/local/Docs"); }
    QString Trash() const { return _home + QStringLiteral("/data/Trash/files"); }
    QString Log() const { return _home + QStringLiteral("/state/foldersync/foldersync.log"); }
    QString Database() const { return _home + QStringLiteral("/sync.db"); }

    // One cycle, as a user runs it: the first registers the pair. A plan that deletes many
    // files is what the random operations asked for, so the guard is told to let it through.
    ProgramRun Sync(const QString& remote) {
        QStringList args{QStringLiteral("--db"), Database(), QStringLiteral("sync")};
        if (!_registered) args << Local() << remote;
        args << QStringLiteral("--allow-mass-delete");
        QProcess process;
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("HOME"), _home);
        env.insert(QStringLiteral("XDG_DATA_HOME"), _home + QStringLiteral("/data"));
        env.insert(QStringLiteral("XDG_STATE_HOME"), _home + QStringLiteral("/state"));
        env.insert(QStringLiteral("XDG_CONFIG_HOME"), _home + QStringLiteral("/config"));
        env.remove(QStringLiteral("FOLDERSYNC_DB"));
        env.remove(QStringLiteral("FOLDERSYNC_PASSWORD"));
        process.setProcessEnvironment(env);
        // SYNC_RELIABILITY_WRAPPER runs the program under a tool ("valgrind -q
        // --error-exitcode=99"): what the tool reports shows as an unexpected status.
        QStringList wrapper = qEnvironmentVariable("SYNC_RELIABILITY_WRAPPER")
                                  .split(QLatin1Char(' '), Qt::SkipEmptyParts);
        wrapper << QStringLiteral(FOLDERSYNC_PROGRAM);
        const QString program = wrapper.takeFirst();
        process.start(program, wrapper + args);
        ProgramRun run;
        if (!process.waitForStarted(30000)) return run;
        if (!process.waitForFinished(180000)) {
            process.kill();
            process.waitForFinished(5000);
            run.err = QStringLiteral("(hung: killed after 180 s)");
            return run;
        }
        run.out = QString::fromUtf8(process.readAllStandardOutput());
        run.err += QString::fromUtf8(process.readAllStandardError());
        run.status = sync::test::ProgramStatus(process, run.err);
        if (run.status == 0 || run.status == 1) _registered = true;
        return run;
    }

private:
    QString _name;
    QString _home;
    bool _registered = false;
};

// What a folder holds as a user would judge it: each file's version (or "torn" when its content
// is no version at all), each folder as "/". Hidden entries, which are not synced, are left out:
// the engine's temporary and backup folders and an upload's temporary file among them.
class FolderSnapshot {
public:
    static QMap<QString, QString> Take(const QString& top, const VersionLedger& ledger) {
        QMap<QString, QString> entries;
        Walk(top, QString(), ledger, entries);
        return entries;
    }

    // Versions of every file below a folder, hidden or not, but for the engine's own
    // temporary and backup files, which hold copies that a user does not see ("{" after the
    // dot marks them).
    static QVector<int> VersionsBelow(const QString& top, const VersionLedger& ledger,
                                      int* torn = nullptr) {
        QVector<int> found;
        QDirIterator it(top, QDir::Files | QDir::Hidden | QDir::System,
                        QDirIterator::Subdirectories);
        while (it.hasNext()) {
            const QString path = it.next();
            if (path.mid(top.size()).contains(QLatin1String("/.{")) ||
                path.contains(QLatin1String(".{SyncUpload}")))
                continue;
            const int id = ledger.Identify(Read(path));
            if (id > 0)
                found << id;
            else if (torn)
                ++*torn;
        }
        return found;
    }

    static QByteArray Read(const QString& path) {
        QFile file(path);
        if (!file.open(QIODevice::ReadOnly)) return QByteArray();
        return file.readAll();
    }

    // "path: A=v3 server=v5 B=-" for every path where the snapshots differ.
    static QStringList Differences(const QStringList& names,
                                   const QList<QMap<QString, QString>>& snapshots) {
        QStringList keys;
        for (const auto& s : snapshots) keys += s.keys();
        keys.removeDuplicates();
        keys.sort();
        QStringList lines;
        for (const QString& key : keys) {
            QStringList parts;
            bool differ = false;
            for (int i = 0; i < snapshots.size(); ++i) {
                const QString value = snapshots[i].value(key, QStringLiteral("-"));
                parts << names[i] + QLatin1Char('=') + value;
                differ = differ || value != snapshots[0].value(key, QStringLiteral("-"));
            }
            if (differ) lines << key + QStringLiteral(": ") + parts.join(QLatin1Char(' '));
        }
        return lines;
    }

private:
    static void Walk(const QString& top, const QString& below, const VersionLedger& ledger,
                     QMap<QString, QString>& entries) {
        const QDir dir(below.isEmpty() ? top : top + QLatin1Char('/') + below);
        for (const QFileInfo& info : dir.entryInfoList(
                 QDir::AllEntries | QDir::NoDotAndDotDot | QDir::System, QDir::Name)) {
            if (info.fileName().startsWith(QLatin1Char('.'))) continue;
            const QString path =
                below.isEmpty() ? info.fileName() : below + QLatin1Char('/') + info.fileName();
            if (info.isDir() && !info.isSymLink()) {
                entries.insert(path, QStringLiteral("/"));
                Walk(top, path, ledger, entries);
            } else {
                const int id = ledger.Identify(Read(info.filePath()));
                entries.insert(path, id > 0 ? QStringLiteral("v%1").arg(id)
                                            : QStringLiteral("torn(%1)").arg(info.size()));
            }
        }
    }
};

}  // namespace test
}  // namespace sync
