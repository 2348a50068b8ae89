#pragma once

// GoogleMock doubles of a synchronizer's companions, and in-memory stores the database doubles
// delegate to, so that tests assert the final records rather than the calls.

#include <gmock/gmock.h>
#include <QDir>
#include <QMap>
#include <QString>
#include <QStringList>
#include <QVector>
#include <functional>
#include <memory>

#include "ConfigManagerMocks.h"
#include "FileConfiguration.h"
#include "FolderConfiguration.h"
#include "IActionLog.h"
#include "IAuthenticationConfigManager.h"
#include "ICheckForExit.h"
#include "IConnectedToNetwork.h"
#include "ICoreFactory.h"
#include "IEntryInfoTreeRetriever.h"
#include "IFileConfigManager.h"
#include "IFolderConfigManager.h"
#include "IFolderFilter.h"
#include "IRemoteFolderManager.h"
#include "IRemoteFolderManagerFactory.h"
#include "IServerConfigManager.h"
#include "ISyncHostApplication.h"
#include "ISyncTaskEngine.h"
#include "ISynchronizeRunner.h"
#include "ServerConfiguration.h"
#include "SyncDetails.h"
#include "SyncResults.h"
#include "SyncTaskDepot.h"

namespace sync {
namespace test {

using sync::config::FileConfiguration;
using sync::config::FolderConfiguration;
using sync::core::SyncResults;
using Depot = std::shared_ptr<sync::syncService::SyncTaskDepot>;
namespace interf = sync::interf;

class MockAuthenticationConfigManager : public interf::IAuthenticationConfigManager {
public:
    MOCK_METHOD(void, RemoveAuthentication, (int), (override));
};

class MockServerConfigManager : public interf::IServerConfigManager {
public:
    MOCK_METHOD(sync::config::ServerConfiguration, GetServerConfiguration, (int), (override));
    MOCK_METHOD(sync::config::ServerConfiguration, GetServerConfigurationByFolderId, (int),
                (override));
};

class MockSyncHostApplication : public interf::ISyncHostApplication {
public:
    MOCK_METHOD(QString, GetRootFolderText, (), (override));
    MOCK_METHOD(bool, IsSyncAllowed, (), (override));
    MOCK_METHOD(void, SyncStarted, (), (override));
    MOCK_METHOD(bool, PreProcessFiles, (const FolderConfiguration&, Depot), (override));
    MOCK_METHOD(void, PostProcessFiles, (const FolderConfiguration&, Depot, SyncResults&),
                (override));
    MOCK_METHOD(void, SyncFinished, (), (override));
};

class MockRemoteFolderManager : public interf::IRemoteFolderManager {
public:
    MOCK_METHOD(SyncResults, CreateFolder, (FolderConfiguration&, const QString&, bool),
                (override));
    MOCK_METHOD(SyncResults, DeleteFolder, (FolderConfiguration&), (override));
    MOCK_METHOD(bool, GetFolderInfo, (const FolderConfiguration&, FolderConfiguration&),
                (override));
    MOCK_METHOD(int, GetFolderTree,
                (FolderConfiguration&, std::shared_ptr<QVector<FolderConfiguration>>,
                 std::shared_ptr<QVector<FileConfiguration>>),
                (override));
};

class MockRemoteFolderManagerFactory : public interf::factory::IRemoteFolderManagerFactory {
public:
    MOCK_METHOD(std::shared_ptr<interf::IRemoteFolderManager>, CreateRemoteFolderManager, (int),
                (override));
};

class MockSyncTaskEngine : public interf::ISyncTaskEngine {
public:
    MOCK_METHOD(SyncResults, Process,
                (const FolderConfiguration&, std::shared_ptr<interf::ISyncTaskDepot>), (override));
    MOCK_METHOD(void, SetFilteredLocalFolderCount, (int), (override));
    MOCK_METHOD(void, SetFilteredLocalFileCount, (int), (override));
    MOCK_METHOD(void, SetFilteredServerFolderCount, (int), (override));
    MOCK_METHOD(void, SetFilteredServerFileCount, (int), (override));
    MOCK_METHOD(void, InitFilteredCount, (), (override));
    MOCK_METHOD(void, TransferLocalOrServerFolderCreated,
                (const QString&, sync::config::FolderSynchronizationStatus), (override));
    MOCK_METHOD(void, HandleSubFolderFilteredOut, (QString), (override));
    MOCK_METHOD(void, HandleFileFilteredOut, (QString), (override));
};

class MockCheckForExit : public interf::ICheckForExit {
public:
    MOCK_METHOD(bool, ShouldExit, (), (override));
    MOCK_METHOD(bool, ShouldExitThread, (), (override));
};

class MockConnectedToNetwork : public interf::IConnectedToNetwork {
public:
    MOCK_METHOD(bool, IsConnected, (), (override));
};

class MockCoreFactory : public interf::factory::ICoreFactory {
public:
    MOCK_METHOD(std::shared_ptr<interf::IQFileWrapper>, CreateRecycler, (), (override));
    MOCK_METHOD(std::shared_ptr<interf::IQDirWrapper>, CreateQDirWrapper, (std::shared_ptr<QDir>),
                (override));
    MOCK_METHOD(std::shared_ptr<interf::IQFileWrapper>, CreateFileWrapper, (), (override));
    MOCK_METHOD(std::shared_ptr<interf::ICryptographicHash>, CreateCryptographicHash, (),
                (override));
    MOCK_METHOD(std::shared_ptr<interf::IConnectedToNetwork>, CreateConnectedToNetwork, (),
                (override));
    MOCK_METHOD(std::shared_ptr<interf::ICheckForExit>, CreateCheckForExit, (), (override));
    MOCK_METHOD(std::shared_ptr<interf::IQDirIteratorWrapper>, CreateQDirIterator,
                (const QString&, QDir::Filters, QDirIterator::IteratorFlags), (override));
    MOCK_METHOD(std::shared_ptr<interf::IActionLog>, CreateActionLog, (), (override));
};

class MockEntryInfoTreeRetriever : public interf::IEntryInfoTreeRetriever {
public:
    MOCK_METHOD(std::shared_ptr<sync::syncService::EntryInfoTree>, GetEntryInfoTree,
                (FolderConfiguration&), (override));
};

class MockSynchronizeRunner : public interf::ISynchronizeRunner {
public:
    MOCK_METHOD(Depot, Process, (FolderConfiguration&), (override));
};

class MockFolderFilter : public interf::IFolderFilter {
public:
    MOCK_METHOD(bool, IsRootFolderIncluded, (const FolderConfiguration&), (override));
};

class MockActionLog : public interf::IActionLog {
public:
    using Details = sync::core::SyncDetails;
    MOCK_METHOD(void, Initialize, (int), (override));
    MOCK_METHOD(void, AddEntry, (int, const Details&), (override));
    MOCK_METHOD(void, AddFolderEntry, (int, const QString&, const QString&), (override));
    MOCK_METHOD(void, AddFolderEntryWithDetails,
                (int, const QString&, const QString&, const Details&), (override));
    MOCK_METHOD(void, AddHttpErrorEntry, (int, int, const QString&, const QString&, const QString&),
                (override));
    MOCK_METHOD(Details, CreateDetails, (int), (override));
    MOCK_METHOD(Details, CreateDetailsWithArguments, (int, const QVector<QString>&), (override));
    MOCK_METHOD(void, Flush, (), (override));

    // Records each entry as "type name[ details kind:arguments][ http code url] localPath".
    QStringList entries;
    void Record() {
        ON_CALL(*this, CreateDetails).WillByDefault([](int kind) { return Details(kind); });
        ON_CALL(*this, CreateDetailsWithArguments).WillByDefault([](int kind, auto& arguments) {
            return Details(kind, arguments);
        });
        ON_CALL(*this, AddFolderEntry).WillByDefault([this](int type, auto& path, auto& name) {
            entries << QString("%1 %2 %3").arg(type).arg(name, path);
        });
        ON_CALL(*this, AddFolderEntryWithDetails)
            .WillByDefault([this](int type, auto& path, auto& name, const Details& d) {
                const QStringList arguments(d.arguments.begin(), d.arguments.end());
                entries << QString("%1 %2 %3:%4 %5")
                               .arg(type)
                               .arg(name)
                               .arg(d.kind)
                               .arg(arguments.join(','), path);
            });
        ON_CALL(*this, AddHttpErrorEntry)
            .WillByDefault([this](int type, int code, auto& path, auto& name, auto& url) {
                entries
                    << QString("%1 %2 http %3 %4 %5").arg(type).arg(name).arg(code).arg(url, path);
            });
    }
};

// Records by id, as a configuration database keeps them.
template <class R>
struct Store : QMap<int, R> {
    void Put(const R& r) { this->insert(r.id, r); }
    bool Update(const R& r) { return this->contains(r.id) && (Put(r), true); }
    QVector<R> Where(const std::function<bool(const R&)>& p) const {
        QVector<R> out;
        for (const R& r : *this)
            if (p(r)) out.append(r);
        return out;
    }
};

// The folder database double answers from and writes to the store.
struct FolderStore : Store<FolderConfiguration> {
    int nextId = 100;
    void Attach(MockFolderConfigManager& mock) {
        using F = const FolderConfiguration&;
        ON_CALL(mock, GetRootFolders).WillByDefault([this] {
            return Where([](F f) { return f.rootId == f.id; });
        });
        ON_CALL(mock, GetFolderById).WillByDefault([this](int id) { return value(id); });
        ON_CALL(mock, GetFoldersByRootId).WillByDefault([this](int id) {
            return Where([=](F f) { return f.rootId == id; });
        });
        ON_CALL(mock, UpdateFolder).WillByDefault([this](F f) { return Update(f); });
        ON_CALL(mock, AddFolder).WillByDefault([this](FolderConfiguration& f) {
            f.id = f.rootId = f.inheritedId = nextId++;
            return Put(f), true;
        });
        ON_CALL(mock, RemoveRootFolder).WillByDefault([this](int id) {
            const QVector<FolderConfiguration> gone = Where([=](F f) { return f.rootId == id; });
            for (F f : gone) remove(f.id);
            return !gone.isEmpty();
        });
        ON_CALL(mock, IsAuthenticationInUse).WillByDefault([this](int auth) {
            return !Where([=](F f) {
                        return f.rootId == f.id && f.authenticationId == auth;
                    }).isEmpty();
        });
    }
};

// The file database double answers from and writes to the store.
struct FileStore : Store<FileConfiguration> {
    void Attach(MockFileConfigManager& mock) {
        using F = const FileConfiguration&;
        ON_CALL(mock, GetFileById).WillByDefault([this](int id) { return value(id); });
        ON_CALL(mock, GetFilesByRootId).WillByDefault([this](int id, bool) {
            return Where([=](F f) { return f.rootId == id; });
        });
        ON_CALL(mock, UpdateFile).WillByDefault([this](F f) { return Update(f); });
    }
};

}  // namespace test
}  // namespace sync
