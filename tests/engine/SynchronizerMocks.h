#pragma once

// GoogleMock doubles of the companions a synchronizer talks to, plus in-memory stores that the
// database doubles can delegate to, so that a test asserts the final records rather than the
// calls that produced them.

#include <gmock/gmock.h>
#include <QDir>
#include <QFileInfo>
#include <QMap>
#include <QString>
#include <QVector>
#include <memory>

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
#include "IQDirWrapper.h"
#include "IRemoteFolderManager.h"
#include "IRemoteFolderManagerFactory.h"
#include "IServerConfigManager.h"
#include "ISyncHostApplication.h"
#include "ISyncTaskEngine.h"
#include "ISynchronizeRunner.h"
#include "IValidateLoginCredentials.h"
#include "ServerConfiguration.h"
#include "SyncDetails.h"
#include "SyncResults.h"
#include "SyncTaskDepot.h"

namespace sync {
namespace test {

using sync::config::FileConfiguration;
using sync::config::FolderConfiguration;

class MockAuthenticationConfigManager : public sync::interf::IAuthenticationConfigManager {
public:
    MOCK_METHOD(void, RemoveAuthentication, (int), (override));
};

class MockServerConfigManager : public sync::interf::IServerConfigManager {
public:
    MOCK_METHOD(sync::config::ServerConfiguration, GetServerConfiguration, (int), (override));
    MOCK_METHOD(sync::config::ServerConfiguration, GetServerConfigurationByFolderId, (int),
                (override));
};

class MockSyncHostApplication : public sync::interf::ISyncHostApplication {
public:
    MOCK_METHOD(QString, GetRootFolderText, (), (override));
    MOCK_METHOD(bool, IsSyncAllowed, (), (override));
    MOCK_METHOD(void, SyncStarted, (), (override));
    MOCK_METHOD(bool, PreProcessFiles,
                (const FolderConfiguration&, std::shared_ptr<sync::syncService::SyncTaskDepot>),
                (override));
    MOCK_METHOD(void, PostProcessFiles,
                (const FolderConfiguration&, std::shared_ptr<sync::syncService::SyncTaskDepot>,
                 sync::core::SyncResults&),
                (override));
    MOCK_METHOD(void, SyncFinished, (), (override));
};

class MockFileConfigManager : public sync::interf::IFileConfigManager {
public:
    MOCK_METHOD(FileConfiguration, GetFileById, (int), (override));
    MOCK_METHOD(FileConfiguration, GetGeneratedFileById, (int), (override));
    MOCK_METHOD(QVector<FileConfiguration>, GetFilesOfMissingRootFolders, (), (override));
    MOCK_METHOD(FileConfiguration, GetFileByPath, (const QString&, int), (override));
    MOCK_METHOD(QVector<FileConfiguration>, GetFilesByRootId, (int, bool), (override));
    MOCK_METHOD(QVector<FileConfiguration>, GetGeneratedFilesByRootId, (int, bool), (override));
    MOCK_METHOD(QVector<FileConfiguration>, GetGeneratedFilesByKind, (int), (override));
    MOCK_METHOD(bool, UpdateFile, (const FileConfiguration&), (override));
    MOCK_METHOD(bool, AddFile, (FileConfiguration&), (override));
    MOCK_METHOD(void, RemoveFile, (int), (override));
    MOCK_METHOD(void, RemoveGeneratedFileById, (int), (override));
    MOCK_METHOD(void, RemoveGeneratedFile, (int), (override));
};

class MockFolderConfigManager : public sync::interf::IFolderConfigManager {
public:
    MOCK_METHOD(FolderConfiguration, GetFolderById, (int), (override));
    MOCK_METHOD(FolderConfiguration, GetFolderByPath, (const QString&, int), (override));
    MOCK_METHOD(QVector<FolderConfiguration>, GetFoldersByRootId, (int), (override));
    MOCK_METHOD(QVector<FolderConfiguration>, GetFoldersOfMissingRootFolders, (), (override));
    MOCK_METHOD(bool, UpdateFolder, (const FolderConfiguration&), (override));
    MOCK_METHOD(bool, AddFolder, (FolderConfiguration&), (override));
    MOCK_METHOD(void, RemoveFolder, (int), (override));
    MOCK_METHOD(bool, DeleteFolderById, (int), (override));
    MOCK_METHOD(QVector<FolderConfiguration>, GetRootFolders, (), (override));
    MOCK_METHOD(bool, IsAuthenticationInUse, (int), (override));
    MOCK_METHOD(void, ReleaseMemory, (), (override));
    MOCK_METHOD(bool, RemoveRootFolder, (int), (override));
};

class MockRemoteFolderManager : public sync::interf::IRemoteFolderManager {
public:
    MOCK_METHOD(sync::core::SyncResults, CreateFolder, (FolderConfiguration&, const QString&, bool),
                (override));
    MOCK_METHOD(sync::core::SyncResults, DeleteFolder, (FolderConfiguration&), (override));
    MOCK_METHOD(bool, GetFolderInfo, (const FolderConfiguration&, FolderConfiguration&),
                (override));
    MOCK_METHOD(int, GetFolderTree,
                (FolderConfiguration&, std::shared_ptr<QVector<FolderConfiguration>>,
                 std::shared_ptr<QVector<FileConfiguration>>),
                (override));
};

class MockRemoteFolderManagerFactory : public sync::interf::factory::IRemoteFolderManagerFactory {
public:
    MOCK_METHOD(std::shared_ptr<sync::interf::IRemoteFolderManager>, CreateRemoteFolderManager,
                (int), (override));
};

class MockQDirWrapper : public sync::interf::IQDirWrapper {
public:
    MOCK_METHOD(void, SetPath, (const QString&), (override));
    MOCK_METHOD(QString, Path, (), (override));
    MOCK_METHOD(bool, MakePath, (const QString&), (override));
    MOCK_METHOD(bool, DirectoryExists, (), (override));
    MOCK_METHOD(bool, RemoveDirectory, (const QString&), (override));
    MOCK_METHOD(bool, Exists, (), (override));

    // Answers from the real file system unless a test says otherwise.
    void DelegateToDisk() {
        using ::testing::Invoke;
        ON_CALL(*this, SetPath).WillByDefault(Invoke([this](const QString& p) { _path = p; }));
        ON_CALL(*this, Path).WillByDefault(Invoke([this] { return QDir::cleanPath(_path); }));
        ON_CALL(*this, MakePath).WillByDefault(Invoke([](const QString& p) {
            return QDir().mkpath(p);
        }));
        ON_CALL(*this, DirectoryExists).WillByDefault(Invoke([this] {
            return QFileInfo(_path).isDir();
        }));
        ON_CALL(*this, RemoveDirectory).WillByDefault(Invoke([](const QString& p) {
            return QDir().rmdir(p);
        }));
        ON_CALL(*this, Exists).WillByDefault(Invoke([this] { return QFileInfo::exists(_path); }));
    }

private:
    QString _path;
};

class MockSyncTaskEngine : public sync::interf::ISyncTaskEngine {
public:
    MOCK_METHOD(sync::core::SyncResults, Process,
                (const FolderConfiguration&, std::shared_ptr<sync::interf::ISyncTaskDepot>),
                (override));
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

class MockCheckForExit : public sync::interf::ICheckForExit {
public:
    MOCK_METHOD(bool, ShouldExit, (), (override));
    MOCK_METHOD(bool, ShouldExitThread, (), (override));
};

class MockConnectedToNetwork : public sync::interf::IConnectedToNetwork {
public:
    MOCK_METHOD(bool, IsConnected, (), (override));
};

class MockCoreFactory : public sync::interf::factory::ICoreFactory {
public:
    MOCK_METHOD(std::shared_ptr<sync::interf::IQFileWrapper>, CreateRecycler, (), (override));
    MOCK_METHOD(std::shared_ptr<sync::interf::IQDirWrapper>, CreateQDirWrapper,
                (std::shared_ptr<QDir>), (override));
    MOCK_METHOD(std::shared_ptr<sync::interf::IQFileWrapper>, CreateFileWrapper, (), (override));
    MOCK_METHOD(std::shared_ptr<sync::interf::ICryptographicHash>, CreateCryptographicHash, (),
                (override));
    MOCK_METHOD(std::shared_ptr<sync::interf::IConnectedToNetwork>, CreateConnectedToNetwork, (),
                (override));
    MOCK_METHOD(std::shared_ptr<sync::interf::ICheckForExit>, CreateCheckForExit, (), (override));
    MOCK_METHOD(std::shared_ptr<sync::interf::IQDirIteratorWrapper>, CreateQDirIterator,
                (const QString&, QDir::Filters, QDirIterator::IteratorFlags), (override));
    MOCK_METHOD(std::shared_ptr<sync::interf::IActionLog>, CreateActionLog, (), (override));
};

class MockValidateLoginCredentials : public sync::interf::IValidateLoginCredentials {
public:
    MOCK_METHOD(int, ValidateCredentials, (int), (override));
};

class MockEntryInfoTreeRetriever : public sync::interf::IEntryInfoTreeRetriever {
public:
    MOCK_METHOD(std::shared_ptr<sync::syncService::EntryInfoTree>, GetEntryInfoTree,
                (FolderConfiguration&), (override));
};

class MockSynchronizeRunner : public sync::interf::ISynchronizeRunner {
public:
    MOCK_METHOD(std::shared_ptr<sync::syncService::SyncTaskDepot>, Process, (FolderConfiguration&),
                (override));
};

class MockFolderFilter : public sync::interf::IFolderFilter {
public:
    MOCK_METHOD(bool, IsRootFolderIncluded, (const FolderConfiguration&), (override));
};

class MockActionLog : public sync::interf::IActionLog {
public:
    MOCK_METHOD(void, Initialize, (int), (override));
    MOCK_METHOD(void, AddEntry, (int, const sync::core::SyncDetails&), (override));
    MOCK_METHOD(void, AddFolderEntry, (int, const QString&, const QString&), (override));
    MOCK_METHOD(void, AddFolderEntryWithDetails,
                (int, const QString&, const QString&, const sync::core::SyncDetails&), (override));
    MOCK_METHOD(void, AddHttpErrorEntry, (int, int, const QString&, const QString&, const QString&),
                (override));
    MOCK_METHOD(sync::core::SyncDetails, CreateDetails, (int), (override));
    MOCK_METHOD(sync::core::SyncDetails, CreateDetailsWithArguments, (int, const QVector<QString>&),
                (override));
    MOCK_METHOD(void, Flush, (), (override));

    // Details carry their kind and arguments, so entries can be compared whole.
    void BuildRealDetails() {
        using ::testing::Invoke;
        ON_CALL(*this, CreateDetails).WillByDefault(Invoke([](int kind) {
            return sync::core::SyncDetails(kind);
        }));
        ON_CALL(*this, CreateDetailsWithArguments)
            .WillByDefault(Invoke([](int kind, const QVector<QString>& arguments) {
                return sync::core::SyncDetails(kind, arguments);
            }));
    }
};

// Folder records by id, as a configuration database would keep them.
struct FolderStore {
    QMap<int, FolderConfiguration> folders;
    int nextId = 100;

    void Put(const FolderConfiguration& f) { folders.insert(f.id, f); }

    void Attach(MockFolderConfigManager& mock) {
        using ::testing::_;
        using ::testing::Invoke;
        ON_CALL(mock, GetRootFolders).WillByDefault(Invoke([this] {
            QVector<FolderConfiguration> roots;
            for (const FolderConfiguration& f : folders)
                if (f.rootId == f.id) roots.append(f);
            return roots;
        }));
        ON_CALL(mock, GetFolderById).WillByDefault(Invoke([this](int id) {
            return folders.value(id, FolderConfiguration());
        }));
        ON_CALL(mock, GetFoldersByRootId).WillByDefault(Invoke([this](int rootId) {
            QVector<FolderConfiguration> out;
            for (const FolderConfiguration& f : folders)
                if (f.rootId == rootId) out.append(f);
            return out;
        }));
        ON_CALL(mock, UpdateFolder).WillByDefault(Invoke([this](const FolderConfiguration& f) {
            if (!folders.contains(f.id)) return false;
            folders[f.id] = f;
            return true;
        }));
        ON_CALL(mock, AddFolder).WillByDefault(Invoke([this](FolderConfiguration& f) {
            f.id = nextId++;
            if (f.rootId < 0 && f.parentId < 0) f.rootId = f.inheritedId = f.id;
            folders.insert(f.id, f);
            return true;
        }));
        ON_CALL(mock, RemoveFolder).WillByDefault(Invoke([this](int id) { folders.remove(id); }));
        ON_CALL(mock, RemoveRootFolder).WillByDefault(Invoke([this](int id) {
            if (!folders.contains(id)) return false;
            for (auto it = folders.begin(); it != folders.end();)
                it = it.value().rootId == id ? folders.erase(it) : std::next(it);
            folders.remove(id);
            return true;
        }));
        ON_CALL(mock, IsAuthenticationInUse).WillByDefault(Invoke([this](int authId) {
            for (const FolderConfiguration& f : folders)
                if (f.rootId == f.id && f.authenticationId == authId) return true;
            return false;
        }));
        ON_CALL(mock, GetFoldersOfMissingRootFolders)
            .WillByDefault(::testing::Return(QVector<FolderConfiguration>()));
    }
};

// File records by id.
struct FileStore {
    QMap<int, FileConfiguration> files;

    void Put(const FileConfiguration& f) { files.insert(f.id, f); }

    void Attach(MockFileConfigManager& mock) {
        using ::testing::_;
        using ::testing::Invoke;
        using ::testing::Return;
        ON_CALL(mock, GetFileById).WillByDefault(Invoke([this](int id) {
            return files.value(id, FileConfiguration());
        }));
        ON_CALL(mock, GetFilesByRootId).WillByDefault(Invoke([this](int rootId, bool) {
            QVector<FileConfiguration> out;
            for (const FileConfiguration& f : files)
                if (f.rootId == rootId) out.append(f);
            return out;
        }));
        ON_CALL(mock, UpdateFile).WillByDefault(Invoke([this](const FileConfiguration& f) {
            if (!files.contains(f.id)) return false;
            files[f.id] = f;
            return true;
        }));
        ON_CALL(mock, RemoveFile).WillByDefault(Invoke([this](int id) { files.remove(id); }));
        ON_CALL(mock, GetFilesOfMissingRootFolders)
            .WillByDefault(Return(QVector<FileConfiguration>()));
        ON_CALL(mock, GetGeneratedFilesByKind).WillByDefault(Return(QVector<FileConfiguration>()));
    }
};

}  // namespace test
}  // namespace sync
