// TransactionalScope on the configuration database, including a process that dies mid-batch.

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>
#include <stdexcept>

#include "DatabaseActionLog.h"
#include "DatabaseBackends.h"
#include "TransactionalScope.h"

using namespace sync::config;
using sync::database::ConfigDatabase;
using sync::database::FolderConfigManager;
using sync::database::TransactionalScope;

namespace {

class TransactionTest : public sync::test::DatabaseTest {
protected:
    void AddRoot(const QString& name) {
        FolderConfiguration f;
        f.name = name;
        f.localPath = "/data/" + name;
        EXPECT_TRUE(folders->AddFolder(f));
    }
    std::string RootNames() {
        QStringList names;
        for (const auto& f : folders->GetRootFolders()) names << f.name;
        return names.join(", ").toStdString();
    }
};

// Action log entries made inside a scope are written after it, whatever becomes of it.
TEST_F(TransactionTest, ScopeKeepsItsWritesUnlessAnExceptionLeavesItUncommitted) {
    sync::database::DatabaseActionLog log(db);
    const struct {
        const char* name;
        bool commit;
        bool raise;
        bool kept;
    } rows[] = {
        {"committed", true, false, true},
        {"ran out", false, false, true},
        {"left by an exception", false, true, false},
        {"committed, then an exception", true, true, true},
    };
    QStringList kept;
    for (const auto& row : rows) {
        try {
            TransactionalScope scope;
            AddRoot(row.name);
            log.AddFolderEntry(2, QString("/data/") + row.name, row.name);
            EXPECT_TRUE(db->InTransaction()) << row.name;
            EXPECT_NE(RootNames().find(row.name), std::string::npos) << row.name << ": unseen";
            if (row.commit) scope.commit();
            EXPECT_EQ(db->InTransaction(), !row.commit) << row.name;
            if (row.raise) throw std::runtime_error(row.name);
        } catch (const std::runtime_error&) {
        }
        EXPECT_FALSE(db->InTransaction()) << row.name;
        if (row.kept) kept << row.name;
        EXPECT_EQ(RootNames(), kept.join(", ").toStdString()) << row.name;
    }
    log.Flush();
    EXPECT_EQ(log.PendingCount(), 0);
    EXPECT_EQ(log.Entries().size(), 4);
    Reopen();
    EXPECT_EQ(RootNames(), kept.join(", ").toStdString());
}

TEST_F(TransactionTest, NestedScopesAreSavepointsOfTheOuterTransaction) {
    {
        TransactionalScope outer;
        AddRoot("outer");
        try {
            TransactionalScope inner;
            AddRoot("inner-failed");
            throw std::runtime_error("inner");
        } catch (const std::runtime_error&) {
        }
        {
            TransactionalScope inner;
            AddRoot("inner-kept");
            inner.commit();
        }
        EXPECT_EQ(TransactionalScope::Depth(), 1);
    }
    EXPECT_EQ(RootNames(), "outer, inner-kept");

    // A committed inner scope is still undone with its outer transaction.
    EXPECT_THROW(
        {
            TransactionalScope outer;
            {
                TransactionalScope inner;
                AddRoot("undone");
                inner.commit();
            }
            throw std::runtime_error("outer");
        },
        std::runtime_error);
    EXPECT_EQ(RootNames(), "outer, inner-kept");

    // A scope made after its outer one committed opens a transaction of its own.
    TransactionalScope outer;
    outer.commit();
    {
        TransactionalScope inner;
        AddRoot("after-commit");
    }
    EXPECT_FALSE(db->InTransaction());
    EXPECT_EQ(RootNames(), "outer, inner-kept, after-commit");
}

// A process that dies inside a transaction loses that transaction and nothing else.
TEST_F(TransactionTest, CrashInsideATransactionLosesOnlyThatTransaction) {
    Close();
    const pid_t child = fork();
    ASSERT_NE(child, -1);
    if (child == 0) {
        // Only async-safe exits from here: _exit skips every destructor and atexit handler.
        try {
            auto childDb = ConfigDatabase::Open(Path());
            ConfigDatabase::Install(childDb);
            FolderConfigManager childFolders(childDb);
            FolderConfiguration kept, lost;
            kept.name = "committed-before-crash";
            {
                TransactionalScope scope;
                childFolders.AddFolder(kept);
                scope.commit();
            }
            TransactionalScope open;
            for (int i = 0; i < 50; ++i) childFolders.AddFolder(lost);
            kept.syncStatus = FolderSynchronizationStatus::OutOfSync;
            childFolders.UpdateFolder(kept);
            _exit(0);
        } catch (...) {
            _exit(3);
        }
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "child status " << status;

    Reopen();
    ASSERT_EQ(RootNames(), "committed-before-crash");
    EXPECT_EQ(folders->GetRootFolders()[0].syncStatus, FolderSynchronizationStatus::Synchronizing);
    AddRoot("after");  // the file stays writable after the crash
    EXPECT_EQ(RootNames(), "committed-before-crash, after");
}

}  // namespace
