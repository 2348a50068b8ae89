#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <QStringList>
#include <QVector>
#include <memory>

#include "CoreFactory.h"
#include "ICheckForExit.h"
#include "IFileConfigManager.h"
#include "IRemoteFileManagerFactory.h"
#include "IRemoteFolderManagerFactory.h"
#include "ISyncFilter.h"

namespace sync {
namespace test {

// Answers "stop" from the n-th question on (never when n is negative).
class CountingCheckForExit : public sync::interf::ICheckForExit {
public:
    explicit CountingCheckForExit(int stopAt = -1) : stopAt(stopAt) {}
    bool ShouldExit() override { return stopAt >= 0 && ++asked >= stopAt; }
    bool ShouldExitThread() override { return false; }
    int stopAt;
    int asked = 0;
};

// The machine's own core services, with an exit checker and, optionally, a walker that the
// test controls.
class TestCoreFactory : public sync::factory::CoreFactory {
public:
    explicit TestCoreFactory(std::shared_ptr<sync::interf::ICheckForExit> exit)
        : exit(std::move(exit)) {}
    std::shared_ptr<sync::interf::ICheckForExit> CreateCheckForExit() override { return exit; }
    std::shared_ptr<sync::interf::IQDirIteratorWrapper> CreateQDirIterator(
        const QString& path, QDir::Filters filters, QDirIterator::IteratorFlags flags) override {
        return walker ? walker : CoreFactory::CreateQDirIterator(path, filters, flags);
    }
    std::shared_ptr<sync::interf::ICheckForExit> exit;
    std::shared_ptr<sync::interf::IQDirIteratorWrapper> walker;
};

// Excludes the paths it is given (compared exactly) and records what it was asked.
class ListSyncFilter : public sync::interf::ISyncFilter {
public:
    int FilterFile(const QString& path, qint64 size, bool serverSide) override {
        askedFiles.append(path);
        sizes.append(size);
        sides.append(serverSide);
        return excluded.contains(path) ? 1 : 0;
    }
    int FilterFolder(const QString& path, bool serverSide) override {
        askedFolders.append(path);
        sides.append(serverSide);
        return excluded.contains(path) ? 1 : 0;
    }
    QStringList excluded;
    QStringList askedFiles;
    QStringList askedFolders;
    QVector<qint64> sizes;
    QVector<bool> sides;
};

class MockFileConfigManager : public sync::interf::IFileConfigManager {
public:
    using File = sync::config::FileConfiguration;
    MOCK_METHOD(File, GetFileById, (int), (override));
    MOCK_METHOD(File, GetGeneratedFileById, (int), (override));
    MOCK_METHOD(QVector<File>, GetFilesOfMissingRootFolders, (), (override));
    MOCK_METHOD(File, GetFileByPath, (const QString&, int), (override));
    MOCK_METHOD(QVector<File>, GetFilesByRootId, (int, bool), (override));
    MOCK_METHOD(QVector<File>, GetGeneratedFilesByRootId, (int, bool), (override));
    MOCK_METHOD(QVector<File>, GetGeneratedFilesByKind, (int), (override));
    MOCK_METHOD(bool, UpdateFile, (const File&), (override));
    MOCK_METHOD(bool, AddFile, (File&), (override));
    MOCK_METHOD(void, RemoveFile, (int), (override));
    MOCK_METHOD(void, RemoveGeneratedFileById, (int), (override));
    MOCK_METHOD(void, RemoveGeneratedFile, (int), (override));
};

class MockRemoteFolderManager : public sync::interf::IRemoteFolderManager {
public:
    using Folder = sync::config::FolderConfiguration;
    using File = sync::config::FileConfiguration;
    MOCK_METHOD(sync::core::SyncResults, CreateFolder, (Folder&, const QString&, bool), (override));
    MOCK_METHOD(sync::core::SyncResults, DeleteFolder, (Folder&), (override));
    MOCK_METHOD(bool, GetFolderInfo, (const Folder&, Folder&), (override));
    MOCK_METHOD(int, GetFolderTree,
                (Folder&, std::shared_ptr<QVector<Folder>>, std::shared_ptr<QVector<File>>),
                (override));
};

class MockRemoteFileManager : public sync::interf::IRemoteFileManager {
public:
    MOCK_METHOD(int, GetRootFiles,
                (sync::config::FolderConfiguration&,
                 std::shared_ptr<QVector<sync::config::FileConfiguration>>),
                (override));
};

class MockRemoteFolderManagerFactory : public sync::interf::factory::IRemoteFolderManagerFactory {
public:
    MOCK_METHOD(std::shared_ptr<sync::interf::IRemoteFolderManager>, CreateRemoteFolderManager,
                (int), (override));
};

class MockRemoteFileManagerFactory : public sync::interf::factory::IRemoteFileManagerFactory {
public:
    MOCK_METHOD(std::shared_ptr<sync::interf::IRemoteFileManager>, CreateRemoteFileManager, (int),
                (override));
};

}  // namespace test
}  // namespace sync
