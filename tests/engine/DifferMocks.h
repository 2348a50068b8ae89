#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Core/CoreFactory.h"
#include "ICoreFactory.h"
#include "ICryptographicHash.h"

namespace sync {
namespace test {

class MockCryptographicHash : public sync::interf::ICryptographicHash {
public:
    MOCK_METHOD(QString, GetFileHash, (const QString& filePath), (override));
};

class MockCoreFactory : public sync::interf::factory::ICoreFactory {
public:
    MOCK_METHOD(std::shared_ptr<sync::interf::IQFileWrapper>, CreateRecycler, (), (override));
    MOCK_METHOD(std::shared_ptr<sync::interf::IQDirWrapper>, CreateQDirWrapper,
                (std::shared_ptr<QDir> dir), (override));
    MOCK_METHOD(std::shared_ptr<sync::interf::IQFileWrapper>, CreateFileWrapper, (), (override));
    MOCK_METHOD(std::shared_ptr<sync::interf::ICryptographicHash>, CreateCryptographicHash, (),
                (override));
    MOCK_METHOD(std::shared_ptr<sync::interf::IConnectedToNetwork>, CreateConnectedToNetwork, (),
                (override));
    MOCK_METHOD(std::shared_ptr<sync::interf::ICheckForExit>, CreateCheckForExit, (), (override));
    MOCK_METHOD(std::shared_ptr<sync::interf::IQDirIteratorWrapper>, CreateQDirIterator,
                (const QString& path, QDir::Filters filters, QDirIterator::IteratorFlags flags),
                (override));
    MOCK_METHOD(std::shared_ptr<sync::interf::IActionLog>, CreateActionLog, (), (override));
};

// Installs, for each test, a core factory whose hash service is a strict mock: a hash that
// a test does not expect fails it.
class MockHashTest : public ::testing::Test {
protected:
    void SetUp() override {
        hash = std::make_shared<::testing::StrictMock<MockCryptographicHash>>();
        factory = std::make_shared<::testing::NiceMock<MockCoreFactory>>();
        ON_CALL(*factory, CreateCryptographicHash()).WillByDefault(::testing::Return(hash));
        sync::factory::CoreFactory::SetDelegate(factory);
    }
    void TearDown() override { sync::factory::CoreFactory::SetDelegate(nullptr); }

    std::shared_ptr<::testing::StrictMock<MockCryptographicHash>> hash;
    std::shared_ptr<::testing::NiceMock<MockCoreFactory>> factory;
};

}  // namespace test
}  // namespace sync
