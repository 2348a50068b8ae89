#include "FakeCore.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <atomic>
#include <mutex>

#include "CoreFactory.h"
#include "CryptographicHash.h"
#include "ICheckForExit.h"
#include "IConnectedToNetwork.h"
#include "QDirIteratorWrapper.h"
#include "QDirWrapper.h"
#include "QFileWrapper.h"
#include "SyncDetails.h"

namespace sync {
namespace test {

class FakeCore::ExitChecker : public sync::interf::ICheckForExit {
public:
    bool ShouldExit() override {
        const int poll = ++polls;
        const int limit = stopAfter;
        return stopped || (limit >= 0 && poll > limit);
    }
    bool ShouldExitThread() override { return stopped; }
    void RequestStop() {
        if (!stopped.exchange(true)) emit PrepareToQuit();
    }
    std::atomic<int> polls{0};
    std::atomic<int> stopAfter{-1};
    std::atomic<bool> stopped{false};
};

class FakeCore::Network : public sync::interf::IConnectedToNetwork {
public:
    bool IsConnected() override { return connected; }
    std::atomic<bool> connected{true};
};

class FakeCore::TextActionLog : public sync::interf::IActionLog {
public:
    void Initialize(int) override {}
    void AddEntry(int type, const sync::core::SyncDetails& details) override {
        _Add(QStringLiteral("%1 %2").arg(type).arg(_Details(details)));
    }
    void AddFolderEntry(int type, const QString& localPath, const QString& name) override {
        _Add(QStringLiteral("%1 %2 %3").arg(type).arg(name, localPath));
    }
    void AddFolderEntryWithDetails(int type, const QString& localPath, const QString& name,
                                   const sync::core::SyncDetails& details) override {
        _Add(QStringLiteral("%1 %2 %3 %4").arg(type).arg(name, _Details(details), localPath));
    }
    void AddHttpErrorEntry(int type, int httpCode, const QString& localPath, const QString& name,
                           const QString& url) override {
        _Add(QStringLiteral("%1 %2 http %3 %4 %5")
                 .arg(type)
                 .arg(name)
                 .arg(httpCode)
                 .arg(url, localPath));
    }
    sync::core::SyncDetails CreateDetails(int kind) override {
        return sync::core::SyncDetails(kind);
    }
    sync::core::SyncDetails CreateDetailsWithArguments(int kind,
                                                       const QVector<QString>& arguments) override {
        return sync::core::SyncDetails(kind, arguments);
    }
    void Flush() override {}

    QStringList Lines() const {
        std::lock_guard<std::mutex> lock(_mutex);
        return _lines;
    }
    void Clear() {
        std::lock_guard<std::mutex> lock(_mutex);
        _lines.clear();
    }

private:
    static QString _Details(const sync::core::SyncDetails& details) {
        const QStringList arguments(details.arguments.begin(), details.arguments.end());
        return QStringLiteral("%1:%2").arg(details.kind).arg(arguments.join(QLatin1Char(',')));
    }
    void _Add(const QString& line) {
        std::lock_guard<std::mutex> lock(_mutex);
        _lines.append(line);
    }

    mutable std::mutex _mutex;
    QStringList _lines;
};

class FakeCore::Recycler : public sync::core::QFileWrapper {
public:
    explicit Recycler(const QString& trashFolder) : _trashFolder(trashFolder) {}
    bool MoveToTrash(const QString& path) override {
        if (_trashFolder.isEmpty()) return QFileWrapper::MoveToTrash(path);
        if (path.isEmpty() || !QFileInfo::exists(path) || !QDir().mkpath(_trashFolder))
            return false;
        // Like the real trash, a second file of the same name never replaces the first.
        const QString name = QFileInfo(path).fileName();
        QString target = QDir(_trashFolder).filePath(name);
        for (int n = 2; QFileInfo::exists(target); ++n)
            target = QDir(_trashFolder).filePath(QStringLiteral("%1.%2").arg(name).arg(n));
        return QFile::rename(path, target);
    }

private:
    QString _trashFolder;
};

FakeCore::FakeCore()
    : _exit(std::make_shared<ExitChecker>()),
      _network(std::make_shared<Network>()),
      _actionLog(std::make_shared<TextActionLog>()) {}

FakeCore::~FakeCore() = default;

void FakeCore::StopAfterPolls(int n) {
    _exit->polls = 0;
    _exit->stopAfter = n;
}

void FakeCore::RequestStop() {
    _exit->RequestStop();
}

int FakeCore::Polls() const {
    return _exit->polls;
}

void FakeCore::SetConnected(bool connected) {
    _network->connected = connected;
}

QStringList FakeCore::ActionLogLines() const {
    return _actionLog->Lines();
}

void FakeCore::ClearActionLog() {
    _actionLog->Clear();
}

std::shared_ptr<sync::interf::IActionLog> FakeCore::ActionLogService() const {
    return _actionLog;
}

void FakeCore::SetTrashFolder(const QString& folder) {
    _trashFolder = folder;
}

// The real services are made here rather than by a CoreFactory: while this fake is installed
// as the CoreFactory's delegate, a CoreFactory would hand the call straight back.
std::shared_ptr<sync::interf::IQFileWrapper> FakeCore::CreateRecycler() {
    return std::make_shared<Recycler>(_trashFolder);
}

std::shared_ptr<sync::interf::IQDirWrapper> FakeCore::CreateQDirWrapper(std::shared_ptr<QDir> dir) {
    return std::make_shared<sync::core::QDirWrapper>(std::move(dir));
}

std::shared_ptr<sync::interf::IQFileWrapper> FakeCore::CreateFileWrapper() {
    return std::make_shared<sync::core::QFileWrapper>();
}

std::shared_ptr<sync::interf::ICryptographicHash> FakeCore::CreateCryptographicHash() {
    return std::make_shared<sync::core::CryptographicHash>();
}

std::shared_ptr<sync::interf::IConnectedToNetwork> FakeCore::CreateConnectedToNetwork() {
    return _network;
}

std::shared_ptr<sync::interf::ICheckForExit> FakeCore::CreateCheckForExit() {
    return _exit;
}

std::shared_ptr<sync::interf::IQDirIteratorWrapper> FakeCore::CreateQDirIterator(
    const QString& path, QDir::Filters filters, QDirIterator::IteratorFlags flags) {
    return std::make_shared<sync::core::QDirIteratorWrapper>(path, filters, flags);
}

std::shared_ptr<sync::interf::IActionLog> FakeCore::CreateActionLog() {
    return _actionLog;
}

InstalledCore::InstalledCore(std::shared_ptr<FakeCore> core) {
    sync::factory::CoreFactory::SetActionLog(core->ActionLogService());
    sync::factory::CoreFactory::SetDelegate(std::move(core));
}

InstalledCore::~InstalledCore() {
    sync::factory::CoreFactory::SetDelegate(nullptr);
    sync::factory::CoreFactory::SetActionLog(nullptr);
}

}  // namespace test
}  // namespace sync
