#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>
#include <QTemporaryDir>
#include <stdexcept>

#include "ConfigDatabase.h"
#include "DatabaseActionLog.h"
#include "FileConfigManager.h"
#include "FolderConfigManager.h"
#include "TransactionalScope.h"

using namespace sync::config;
using sync::database::ConfigDatabase;
using sync::database::FolderConfigManager;
using sync::database::TransactionalScope;

namespace {

class TransactionTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(_dir.isValid());
        Open();
    }
    void TearDown() override { ConfigDatabase::Uninstall(); }

    void Open() {
        folders.reset();
        ConfigDatabase::Uninstall();
        db.reset();
        db = ConfigDatabase::Open(Path());
        ConfigDatabase::Install(db);
        folders = std::make_shared<FolderConfigManager>(db);
    }
    QString Path() const { return _dir.filePath(QStringLiteral("sync.db")); }

    int AddRoot(const QString& name) {
        FolderConfiguration f;
        f.name = name;
        f.localPath = QStringLiteral("/data/") + name;
        EXPECT_TRUE(folders->AddFolder(f));
        return f.id;
    }
    QStringList RootNames() {
        QStringList names;
        for (const auto& f : folders->GetRootFolders()) names << f.name;
        return names;
    }

    std::shared_ptr<ConfigDatabase> db;
    std::shared_ptr<FolderConfigManager> folders;

private:
    QTemporaryDir _dir;
};

TEST_F(TransactionTest, ScopeKeepsItsWritesOnCommitAndOnNormalExit) {
    {
        TransactionalScope scope;
        AddRoot(QStringLiteral("committed"));
        scope.commit();
        EXPECT_FALSE(db->InTransaction());
    }
    {
        TransactionalScope scope;
        AddRoot(QStringLiteral("ran-out"));
        // Reads inside the scope see its own writes.
        EXPECT_EQ(RootNames().size(), 2);
        EXPECT_TRUE(db->InTransaction());
    }
    EXPECT_FALSE(db->InTransaction());
    Open();
    EXPECT_EQ(RootNames(), QStringList({"committed", "ran-out"}));
}

TEST_F(TransactionTest, ScopeLeftByAnExceptionRollsBack) {
    AddRoot(QStringLiteral("before"));
    EXPECT_THROW(
        {
            TransactionalScope scope;
            AddRoot(QStringLiteral("lost"));
            throw std::runtime_error("fail half-way");
        },
        std::runtime_error);
    EXPECT_FALSE(db->InTransaction());
    EXPECT_EQ(RootNames(), QStringList({"before"}));
}

TEST_F(TransactionTest, NestedScopesAreSavepointsOfTheOuterTransaction) {
    {
        TransactionalScope outer;
        AddRoot(QStringLiteral("outer"));
        try {
            TransactionalScope inner;
            AddRoot(QStringLiteral("inner-failed"));
            throw std::runtime_error("inner");
        } catch (const std::runtime_error&) {
        }
        {
            TransactionalScope inner;
            AddRoot(QStringLiteral("inner-kept"));
            inner.commit();
        }
        EXPECT_EQ(TransactionalScope::Depth(), 1);
    }
    EXPECT_EQ(RootNames(), QStringList({"outer", "inner-kept"}));

    // A committed inner scope is still undone with its outer transaction.
    EXPECT_THROW(
        {
            TransactionalScope outer;
            {
                TransactionalScope inner;
                AddRoot(QStringLiteral("undone"));
                inner.commit();
            }
            throw std::runtime_error("outer");
        },
        std::runtime_error);
    EXPECT_EQ(RootNames(), QStringList({"outer", "inner-kept"}));
}

TEST_F(TransactionTest, ScopeMadeAfterTheOuterCommittedStillWorks) {
    TransactionalScope outer;
    AddRoot(QStringLiteral("first"));
    outer.commit();
    {
        TransactionalScope inner;
        AddRoot(QStringLiteral("second"));
    }
    EXPECT_FALSE(db->InTransaction());
    EXPECT_EQ(RootNames(), QStringList({"first", "second"}));
}

TEST_F(TransactionTest, ActionLogEntriesSurviveARolledBackBatch) {
    sync::database::DatabaseActionLog log(db);
    EXPECT_THROW(
        {
            TransactionalScope scope;
            AddRoot(QStringLiteral("lost"));
            log.AddFolderEntry(9, QStringLiteral("/data/x"), QStringLiteral("x"));
            EXPECT_EQ(log.PendingCount(), 1);
            throw std::runtime_error("fail");
        },
        std::runtime_error);
    log.Flush();
    EXPECT_EQ(log.PendingCount(), 0);
    ASSERT_EQ(log.Entries().size(), 1);
    EXPECT_EQ(log.Entries()[0].localPath, QStringLiteral("/data/x"));
    EXPECT_TRUE(RootNames().isEmpty());
}

// A process that dies inside a transaction loses that transaction and nothing else.
TEST_F(TransactionTest, CrashInsideATransactionLosesOnlyThatTransaction) {
    ConfigDatabase::Uninstall();
    folders.reset();
    db.reset();
    const QString path = Path();

    const pid_t child = fork();
    ASSERT_NE(child, -1);
    if (child == 0) {
        // Only async-safe exits from here: _exit skips every destructor and atexit handler.
        try {
            auto childDb = ConfigDatabase::Open(path);
            ConfigDatabase::Install(childDb);
            FolderConfigManager childFolders(childDb);
            FolderConfiguration kept;
            kept.name = QStringLiteral("committed-before-crash");
            {
                TransactionalScope scope;
                childFolders.AddFolder(kept);
                scope.commit();
            }
            TransactionalScope open;
            for (int i = 0; i < 50; ++i) {
                FolderConfiguration lost;
                lost.name = QStringLiteral("lost-%1").arg(i);
                childFolders.AddFolder(lost);
            }
            kept.syncStatus = FolderSynchronizationStatus::OutOfSync;
            childFolders.UpdateFolder(kept);
            _exit(0);
        } catch (...) {
            _exit(3);
        }
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    ASSERT_EQ(WEXITSTATUS(status), 0);

    Open();
    const auto roots = folders->GetRootFolders();
    ASSERT_EQ(roots.size(), 1);
    EXPECT_EQ(roots[0].name, QStringLiteral("committed-before-crash"));
    EXPECT_EQ(roots[0].syncStatus, FolderSynchronizationStatus::Synchronizing);
    // The file stays writable after the crash.
    AddRoot(QStringLiteral("after"));
    EXPECT_EQ(folders->GetRootFolders().size(), 2);
}

}  // namespace
