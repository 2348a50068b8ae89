#pragma once

#include <gmock/gmock.h>

#include <QString>
#include <QVector>

#include "FileConfiguration.h"
#include "FolderConfiguration.h"
#include "IFileConfigManager.h"
#include "IFolderConfigManager.h"

namespace sync {
namespace test {

// GoogleMock doubles of the configuration database managers, shared by the engine's tests.
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

class MockFolderConfigManager : public sync::interf::IFolderConfigManager {
public:
    using Folder = sync::config::FolderConfiguration;
    MOCK_METHOD(Folder, GetFolderById, (int), (override));
    MOCK_METHOD(Folder, GetFolderByPath, (const QString&, int), (override));
    MOCK_METHOD(QVector<Folder>, GetFoldersByRootId, (int), (override));
    MOCK_METHOD(QVector<Folder>, GetFoldersOfMissingRootFolders, (), (override));
    MOCK_METHOD(bool, UpdateFolder, (const Folder&), (override));
    MOCK_METHOD(bool, AddFolder, (Folder&), (override));
    MOCK_METHOD(void, RemoveFolder, (int), (override));
    MOCK_METHOD(bool, DeleteFolderById, (int), (override));
    MOCK_METHOD(QVector<Folder>, GetRootFolders, (), (override));
    MOCK_METHOD(bool, IsAuthenticationInUse, (int), (override));
    MOCK_METHOD(void, ReleaseMemory, (), (override));
    MOCK_METHOD(bool, RemoveRootFolder, (int), (override));
};

}  // namespace test
}  // namespace sync
