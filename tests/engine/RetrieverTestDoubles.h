#pragma once

// Test doubles of the tree retriever and tree differ tests.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <QStringList>
#include <QVector>
#include <memory>

#include "CoreFactory.h"
#include "ICryptographicHash.h"
#include "ISyncFilter.h"

namespace sync {
namespace test {

// Excludes the paths it is given (compared exactly) and records what it was asked.
class ListSyncFilter : public sync::interf::ISyncFilter {
public:
    int FilterFile(const QString& path, qint64 size, bool serverSide) override {
        sizes.append(size);
        sides.append(serverSide);
        return excluded.contains(path) ? 1 : 0;
    }
    int FilterFolder(const QString& path, bool serverSide) override {
        sides.append(serverSide);
        return excluded.contains(path) ? 1 : 0;
    }
    QStringList excluded;
    QVector<qint64> sizes;
    QVector<bool> sides;
};

class MockCryptographicHash : public sync::interf::ICryptographicHash {
public:
    MOCK_METHOD(QString, GetFileHash, (const QString& filePath), (override));
};

// Installs, for each test, a core factory whose hash service is a strict mock: a hash that
// a test does not expect fails it. Nothing else may be asked of it (it would forward to itself).
class MockHashTest : public ::testing::Test {
protected:
    struct HashFactory : sync::factory::CoreFactory {
        std::shared_ptr<sync::interf::ICryptographicHash> CreateCryptographicHash() override {
            return hash;
        }
        std::shared_ptr<::testing::StrictMock<MockCryptographicHash>> hash =
            std::make_shared<::testing::StrictMock<MockCryptographicHash>>();
    };
    void SetUp() override { sync::factory::CoreFactory::SetDelegate(factory); }
    void TearDown() override { sync::factory::CoreFactory::SetDelegate(nullptr); }

    std::shared_ptr<HashFactory> factory = std::make_shared<HashFactory>();
    MockCryptographicHash& hash = *factory->hash;
};

}  // namespace test
}  // namespace sync
