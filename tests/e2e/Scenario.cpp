#include "Scenario.h"

#include <sqlite3.h>

#include <QCoreApplication>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QHash>
#include <QRegularExpression>
#include <QSharedPointer>
#include <stdexcept>

#include "ConfigEntryInfoTreeRetriever.h"
#include "ConflictResolverFactory.h"
#include "ISyncFilter.h"
#include "ISyncSignalsAndSlots.h"
#include "LocalConfigTreeDiffer.h"
#include "LocalEntryInfoTreeRetriever.h"
#include "PlanRecorder.h"
#include "ServerConfigTreeDiffer.h"
#include "ServerEntryInfoTreeRetriever.h"
#include "ServerPaths.h"
#include "SyncConsts.h"
#include "SynchronizationPreProcessor.h"
#include "SynchronizationServiceFactory.h"
#include "SynchronizeRunner.h"
#include "Synchronizer.h"
#include "TransactionalScope.h"

namespace sync {
namespace test {

using sync::config::FileConfiguration;
using sync::config::FileSynchronizationStatus;
using sync::config::FolderConfiguration;
using sync::config::FolderSynchronizationStatus;

namespace {

const QString kRootName = QStringLiteral("Docs");
const QString kRootServerPath = QStringLiteral("/Docs");
// Seeded files carry this time, so that any later write shows as a new time.
const QDateTime kSeedTime = QDateTime::fromSecsSinceEpoch(1685620800, Qt::UTC);

QString StatusName(int status) {
    switch (status) {
        case 0:
            return QStringLiteral("Synchronized");
        case 1:
            return QStringLiteral("Synchronizing");
        case 2:
            return QStringLiteral("OutOfSync");
        case 3:
            return QStringLiteral("NotSynchronized");
    }
    return QString::number(status);
}

QString WithoutTrailingSlash(QString path) {
    while (path.endsWith(QLatin1Char('/'))) path.chop(1);
    return path;
}

bool WriteFile(const QString& path, const QByteArray& content, const QDateTime& modified) {
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate)) return false;
    // Flushed first: the write of buffered data would set the time again.
    if (file.write(content) != content.size() || !file.flush()) return false;
    return !modified.isValid() || file.setFileTime(modified, QFileDevice::FileModificationTime);
}

QByteArray ReadFile(const QString& path) {
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

// Lines of `want` not in `have`, each as often as it is missing.
QStringList Minus(const QStringList& want, QStringList have) {
    QStringList out;
    for (const QString& line : want)
        if (!have.removeOne(line)) out << line;
    return out;
}

}  // namespace

QString Cycle::ErrorCodes() const {
    QStringList words;
    for (auto it = total.errorCodes.constBegin(); it != total.errorCodes.constEnd(); ++it)
        words << QStringLiteral("%1:%2").arg(it.key()).arg(it.value());
    return words.join(QLatin1Char(' '));
}

// Leaves out the entries a test excluded; the two sides name an entry differently.
class Scenario::Filter : public sync::interf::ISyncFilter {
public:
    int FilterFile(const QString& path, qint64, bool serverSide) override {
        return _Excluded(path, serverSide);
    }
    int FilterFolder(const QString& path, bool serverSide) override {
        return _Excluded(path, serverSide);
    }
    QStringList excluded;  // paths below the root, starting with "/"

private:
    int _Excluded(const QString& path, bool serverSide) const {
        const QString below = serverSide ? path.mid(kRootServerPath.size()) : path;
        return excluded.contains(below) ? 1 : 0;
    }
};

// The host's receiver of the cycle's reports.
class Scenario::Recorder : public sync::interf::ISyncSignalsAndSlots {
public:
    explicit Recorder(const Scenario& scenario) : _scenario(scenario) {}
    void HandleConnectionError(int code) override {
        lines << QStringLiteral("ConnectionError %1").arg(code);
    }
    void HandleSyncingFolders() override { lines << QStringLiteral("SyncingFolders"); }
    void HandleFolderSyncError(QString path, long, int code) override {
        lines << QStringLiteral("FolderSyncError %1 %2").arg(_scenario._Shown(path)).arg(code);
    }
    void HandleFolderAuthenticationError(long id) override {
        lines << QStringLiteral("FolderAuthenticationError %1").arg(id);
    }
    void HandleFinishedSyncingFolders(bool wasError) override {
        lines << QStringLiteral("FinishedSyncingFolders") +
                     (wasError ? QStringLiteral(" with errors") : QString());
    }
    void HandleBeginSyncingRootFolder(long id, sync::core::SyncResults, bool first) override {
        lines << QStringLiteral("BeginSyncingRootFolder %1").arg(id) +
                     (first ? QStringLiteral(" first") : QString());
    }
    void HandleFinishedSyncingRootFolder(long id, sync::core::SyncResults results,
                                         bool first) override {
        lines << QStringLiteral("FinishedSyncingRootFolder %1").arg(id) +
                     (first ? QStringLiteral(" first") : QString()) +
                     (results.anyErrors() ? QStringLiteral(" with errors") : QString());
    }
    void HandleSubFolderNameNotAllowed(QString path) override {
        lines << QStringLiteral("SubFolderNameNotAllowed %1").arg(_scenario._Shown(path));
    }

    QStringList lines;

private:
    const Scenario& _scenario;
};

Scenario::Scenario() : Scenario(ServerSide::MakeFake()) {}

Scenario::Scenario(std::unique_ptr<ServerSide> server)
    : _core(std::make_shared<FakeCore>()),
      _installedCore(std::make_unique<InstalledCore>(_core)),
      _server(std::move(server)),
      _filter(std::make_shared<Filter>()) {
    if (!_dir.isValid()) throw std::runtime_error("no temporary folder for the scenario");
    _localBase = _dir.filePath(QStringLiteral("local"));
    _core->SetTrashFolder(_dir.filePath(QStringLiteral("trash")));

    _db = sync::database::ConfigDatabase::Open(_dir.filePath(QStringLiteral("sync.db")));
    sync::database::ConfigDatabase::Install(_db);
    _folders = std::make_shared<sync::database::FolderConfigManager>(_db);
    _files = std::make_shared<sync::database::FileConfigManager>(_db);
    _accounts = std::make_shared<sync::database::AuthenticationConfigManager>(_db);
    _serverConfigs = std::make_shared<sync::database::ServerConfigManager>(_db);
    _server->SetDatabase(_files);

    sync::config::ServerConfiguration account;
    account.name = QStringLiteral("fake");
    account.kind = QStringLiteral("fake");
    account.baseUrl = _server->BaseUrl();
    account.userName = QStringLiteral("tester");
    _accounts->AddAccount(account);

    // Both ends of the root exist and the root has been synchronised before.
    QDir().mkpath(LocalPath(QString()));
    _server->PutFolder(kRootServerPath);
    FolderConfiguration root;
    root.authenticationId = account.id;
    root.name = kRootName;
    root.localPath = LocalPath(QString());
    root.serverPath = root.path = kRootServerPath;
    root.serverRootPath = QStringLiteral("/");
    root.syncScope = 0;
    root.setServerFolderId(_server->FolderRecord(kRootServerPath, root).getServerFolderId());
    root.setSyncStatus(FolderSynchronizationStatus::Synchronized);
    if (!_folders->AddFolder(root)) throw std::runtime_error("cannot add the root folder record");
    _rootId = root.id;
}

Scenario::~Scenario() {
    _folders.reset();
    _files.reset();
    _accounts.reset();
    _serverConfigs.reset();
    sync::database::ConfigDatabase::Uninstall();
}

QString Scenario::LocalPath(const QString& below) const {
    return sync::core::JoinServerPath(_localBase + QLatin1Char('/') + kRootName,
                                      WithoutTrailingSlash(below));
}

QString Scenario::ServerPath(const QString& below) const {
    return sync::core::JoinServerPath(kRootServerPath, WithoutTrailingSlash(below));
}

FolderConfiguration Scenario::RootRecord() {
    return _folders->GetFolderById(_rootId);
}

void Scenario::UpdateRoot(const std::function<void(FolderConfiguration&)>& change) {
    FolderConfiguration root = RootRecord();
    change(root);
    if (!_folders->UpdateFolder(root)) throw std::runtime_error("cannot update the root record");
}

void Scenario::ExecSql(const char* sql) {
    sqlite3* raw = nullptr;
    const QByteArray path = QFile::encodeName(_dir.filePath(QStringLiteral("sync.db")));
    if (sqlite3_open(path.constData(), &raw) != SQLITE_OK) {
        sqlite3_close(raw);
        throw std::runtime_error("cannot open the scenario's database");
    }
    char* error = nullptr;
    const int rc = sqlite3_exec(raw, sql, nullptr, nullptr, &error);
    const std::string message = error ? error : "";
    sqlite3_free(error);
    sqlite3_close(raw);
    if (rc != SQLITE_OK) throw std::runtime_error("SQL failed: " + message);
}

FakeServer& Scenario::Server() {
    if (FakeServer* fake = _server->Fake()) return *fake;
    throw std::logic_error("only the fake server takes faults and switches; skip this case");
}

QString Scenario::_Shown(const QString& text) const {
    return QString(text).replace(_localBase, QString());
}

// --- Seeding --------------------------------------------------------------------------------

void Scenario::SeedSynchronized(const QList<Entry>& entries) {
    const FolderConfiguration root = RootRecord();
    const auto hash = _core->CreateCryptographicHash();
    QHash<QString, int> folderIds;
    sync::database::TransactionalScope scope;
    for (const Entry& entry : entries) {
        const QString below = WithoutTrailingSlash(entry.path);
        if (entry.path.endsWith(QLatin1Char('/'))) {
            _SeedFolder(root, below, folderIds);
            continue;
        }
        const int folderId = _SeedFolder(root, below.section(QLatin1Char('/'), 0, -2), folderIds);
        const QString local = LocalPath(below);
        if (!WriteFile(local, entry.content, kSeedTime))
            throw std::runtime_error("cannot write " + local.toStdString());
        _server->PutFile(ServerPath(below), entry.content);

        // What the server listed, completed with what the disk showed after the transfer.
        FileConfiguration file = _server->FileRecord(ServerPath(below), root);
        file.folderId = folderId;
        file.rootId = root.id;
        file.inheritedId = root.inheritedId;
        file.checksum = hash->GetFileHash(local);
        QDateTime modified = QFileInfo(local).lastModified().toUTC();
        file.lastModified = modified.addMSecs(-modified.time().msec());
        file.size = QFileInfo(local).size();
        file.syncStatus = FileSynchronizationStatus::Synchronized;
        _files->AddFile(file);
    }
    scope.commit();
}

int Scenario::_SeedFolder(const FolderConfiguration& root, const QString& below,
                          QHash<QString, int>& folderIds) {
    if (below.isEmpty()) return root.id;
    if (folderIds.contains(below)) return folderIds.value(below);
    const int parentId = _SeedFolder(root, below.section(QLatin1Char('/'), 0, -2), folderIds);
    const QString local = LocalPath(below);
    FolderConfiguration folder = _folders->GetFolderByPath(local, root.authenticationId);
    if (folder.id < 0) {
        QDir().mkpath(local);
        _server->PutFolder(ServerPath(below));
        folder = _server->FolderRecord(ServerPath(below), root);
        folder.authenticationId = root.authenticationId;
        folder.rootId = root.id;
        folder.inheritedId = root.inheritedId;
        folder.parentId = parentId;
        folder.serverRootPath = root.serverRootPath;
        folder.inheritedValue = root.inheritedValue;
        folder.lastModified = QFileInfo(local).lastModified();
        folder.setSyncStatus(FolderSynchronizationStatus::Synchronized);
        if (!_folders->AddFolder(folder))
            throw std::runtime_error("cannot add folder record " + local.toStdString());
    }
    folderIds.insert(below, folder.id);
    return folder.id;
}

// --- Changes --------------------------------------------------------------------------------

void Scenario::WriteLocal(const QString& below, const QByteArray& content) {
    if (!WriteFile(LocalPath(below), content, QDateTime()))
        throw std::runtime_error("cannot write " + LocalPath(below).toStdString());
}

void Scenario::MakeLocalFolder(const QString& below) {
    QDir().mkpath(LocalPath(below));
}

void Scenario::RemoveLocal(const QString& below) {
    const QString path = LocalPath(below);
    if (QFileInfo(path).isDir())
        QDir(path).removeRecursively();
    else
        QFile::remove(path);
}

void Scenario::WriteServer(const QString& below, const QByteArray& content) {
    _server->PutFile(ServerPath(below), content);
}

void Scenario::RemoveServer(const QString& below) {
    _server->Remove(ServerPath(below));
}

void Scenario::Exclude(const QString& below) {
    _filter->excluded << QLatin1Char('/') + WithoutTrailingSlash(below);
}

// --- The cycle ------------------------------------------------------------------------------

namespace {

// Hands the real engine to the plan recorder, or nothing when the scenario only plans.
class ScenarioFactory : public sync::syncService::SynchronizationServiceFactory {
public:
    ScenarioFactory(Companions companions, bool executes)
        : SynchronizationServiceFactory(std::move(companions)), _executes(executes) {}
    std::shared_ptr<PlanRecorder> recorder;

protected:
    std::shared_ptr<sync::interf::ISyncTaskEngine> _CreateTaskEngine(
        std::shared_ptr<sync::interf::ITaskWorkerManager> workers) override {
        recorder = std::make_shared<PlanRecorder>(
            _executes ? SynchronizationServiceFactory::_CreateTaskEngine(std::move(workers))
                      : nullptr);
        return recorder;
    }

private:
    bool _executes;
};

class NoCustomUpdate : public sync::interf::ICustomFileConfigUpdater {
public:
    void UpdateFileConfig(FileConfiguration&) override {}
};

}  // namespace

Cycle Scenario::RunCycle() {
    using namespace sync::syncService;
    SynchronizationServiceFactory::Companions companions;
    companions.coreFactory = _core;
    companions.folderConfigManager = _folders;
    companions.fileConfigManager = _files;
    companions.authenticationConfigManager = _accounts;
    companions.serverConfigManager = _serverConfigs;
    _server->Wire(companions);
    companions.customFileConfigUpdater = std::make_shared<NoCustomUpdate>();
    companions.fileFilter = _filter;
    companions.folderFilter = _filter;
    ScenarioFactory factory(companions, _executes);
    QSharedPointer<Recorder> recorder(new Recorder(*this));
    const int actionLogStart = _core->ActionLogLines().size();
    _filesBeforeLastCycle = _FilesOnEitherSide();

    Cycle cycle;
    cycle.total = factory.CreateSynchronizer(recorder, nullptr)->Synchronize();
    // The reports travel to the host by queued connections.
    QCoreApplication::sendPostedEvents();

    _lastPlan = cycle.plan = factory.recorder ? factory.recorder->plan : QStringList();
    cycle.reports = recorder->lines;
    for (const QString& line : _core->ActionLogLines().mid(actionLogStart))
        cycle.actionLog << _Shown(line);
    return cycle;
}

QSet<QString> Scenario::_FilesOnEitherSide() const {
    QSet<QString> files;
    const QString local = LocalPath(QString());
    QDirIterator it(local, QDir::Files | QDir::Hidden | QDir::System, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString path = it.next();
        if (!path.contains(QLatin1String("/.{"))) files.insert(path.mid(local.size()));
    }
    for (const QString& line : _server->Listing()) {
        // `server /Docs/a.txt v1 "hello"`: files carry a version, folders end in "/".
        const QString path = line.section(QLatin1Char(' '), 1, 1);
        if (!path.endsWith(QLatin1Char('/')))
            files.insert(path.mid(QString(kRootServerPath).size()));
    }
    return files;
}

QStringList Scenario::LostFiles() const {
    QStringList deleted;  // server paths of the planned deletions
    for (const QString& line : _lastPlan)
        if (line.contains(QLatin1String("Deletion ")))
            deleted << line.section(QLatin1Char(' '), 2).mid(QString(kRootServerPath).size());
    const QSet<QString> now = _FilesOnEitherSide();
    QStringList lost;
    for (const QString& file : _filesBeforeLastCycle) {
        if (now.contains(file)) continue;
        bool planned = false;
        for (const QString& d : deleted)
            planned = planned || file.compare(d, Qt::CaseInsensitive) == 0 ||
                      file.startsWith(d + QLatin1Char('/'), Qt::CaseInsensitive);
        if (!planned) lost << file;
    }
    lost.sort();
    return lost;
}

// --- Listings -------------------------------------------------------------------------------

QStringList Scenario::_LocalLines() const {
    QStringList lines;
    auto list = [&](const QString& prefix, const QString& folder, auto shown) {
        QDirIterator it(folder,
                        QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                        QDirIterator::Subdirectories);
        while (it.hasNext()) {
            const QString path = it.next();
            // The engine keeps its working folder for transfers; listed only while it holds
            // something.
            if (it.fileInfo().isDir() && it.fileName() == sync::core::consts::TEMP_FOLDER_NAME &&
                QDir(path).isEmpty(QDir::AllEntries | QDir::Hidden | QDir::System |
                                   QDir::NoDotAndDotDot))
                continue;
            if (it.fileInfo().isDir())
                lines << QStringLiteral("%1 %2/").arg(prefix, shown(path));
            else
                lines << QStringLiteral("%1 %2 %3")
                             .arg(prefix, shown(path), FakeServer::ContentText(ReadFile(path)));
        }
    };
    const QString root = LocalPath(QString());
    if (QFileInfo(root).isDir()) lines << QStringLiteral("local %1/").arg(_Shown(root));
    list(QStringLiteral("local"), root, [this](const QString& p) { return _Shown(p); });
    const QString trash = _dir.filePath(QStringLiteral("trash"));
    list(QStringLiteral("trash"), trash,
         [&trash](const QString& p) { return p.mid(trash.size() + 1); });
    return lines;
}

QStringList Scenario::_DatabaseLines() {
    QStringList lines;
    auto fileLine = [this](const QString& kind, const FileConfiguration& f) {
        const QString version = _server->VersionLabel(f);
        return QStringLiteral("db %1 %2%3 %4")
            .arg(kind, f.serverPath, version.isEmpty() ? QString() : QLatin1Char(' ') + version,
                 StatusName(static_cast<int>(f.syncStatus)));
    };
    for (const FolderConfiguration& root : _folders->GetRootFolders()) {
        for (const FolderConfiguration& f : _folders->GetFoldersByRootId(root.id))
            lines << QStringLiteral("db %1 %2 %3")
                         .arg(f.id == root.id ? QStringLiteral("root") : QStringLiteral("folder"),
                              f.serverPath, StatusName(static_cast<int>(f.getSyncStatus())));
        for (const FileConfiguration& f : _files->GetFilesByRootId(root.id, true))
            lines << fileLine(f.isGenerated ? QStringLiteral("generated") : QStringLiteral("file"),
                              f);
    }
    for (const FolderConfiguration& f : _folders->GetFoldersOfMissingRootFolders())
        lines << QStringLiteral("db orphan folder %1").arg(f.serverPath);
    for (const FileConfiguration& f : _files->GetFilesOfMissingRootFolders())
        lines << fileLine(QStringLiteral("orphan file"), f);
    return lines;
}

QStringList Scenario::Listing() {
    // The server first: a version the engine made gets its label there, and a record naming it
    // shows the same one.
    QStringList lines = _server->Listing();
    lines += _DatabaseLines();
    lines += _LocalLines();
    lines += _lastPlan;
    static const QRegularExpression conflictTime(
        QStringLiteral(R"(\(conflict \d{4}-\d\d-\d\d \d{6})"));
    lines.replaceInStrings(conflictTime, QStringLiteral("(conflict \u2026"));
    lines.sort();
    return lines;
}

::testing::AssertionResult Scenario::Matches(const QString& expected) {
    QStringList want;
    for (const QString& line : expected.split(QLatin1Char('\n'))) {
        const QString trimmed = line.trimmed();
        if (!trimmed.isEmpty()) want << trimmed;
    }
    want.sort();
    const QStringList have = Listing();
    if (have == want) return ::testing::AssertionSuccess();

    auto indented = [](const QStringList& lines, const char* mark) {
        QString text;
        for (const QString& line : lines) text += QStringLiteral("  %1 %2\n").arg(mark, line);
        return text.toStdString();
    };
    return ::testing::AssertionFailure() << "the listing differs\nmissing:\n"
                                         << indented(Minus(want, have), "-") << "unexpected:\n"
                                         << indented(Minus(have, want), "+") << "whole listing:\n"
                                         << indented(have, " ");
}

}  // namespace test
}  // namespace sync
