// TransactionalScope on the configuration database: what a batch keeps, and what becomes of it
// when the disk fills, a commit is refused, another process holds the lock or a statement fails.

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/resource.h>
#include <chrono>
#include <functional>
#include <optional>
#include <stdexcept>
#include <thread>

#include "ConfigDatabaseImpl.h"
#include "DatabaseActionLog.h"
#include "DatabaseBackends.h"
#include "DatabaseException.h"
#include "TransactionalScope.h"

using namespace sync::config;
using sync::database::DatabaseException;
using sync::database::TransactionalScope;
using sync::test::ExecOnFile;
using sync::test::QueryOnFile;

namespace {

class TransactionTest : public sync::test::DatabaseTest {
protected:
    bool AddRoot(const QString& name, int pathLength = 0) {
        FolderConfiguration f;
        f.name = name;
        f.localPath = "/data/" + name + QString(pathLength, QLatin1Char('x'));
        return folders->AddFolder(f);
    }
    std::string RootNames() {
        QStringList names;
        for (const auto& f : folders->GetRootFolders()) names << f.name;
        return names.join(", ").toStdString();
    }
    // What fn throws as DatabaseException, if anything.
    static std::optional<DatabaseException> Thrown(const std::function<void()>& fn) {
        try {
            fn();
        } catch (const DatabaseException& e) {
            return e;
        }
        return std::nullopt;
    }
    // The failure must name the file, so that a user knows which one to look at.
    void ExpectReported(const std::optional<DatabaseException>& e, const char* reason) {
        ASSERT_TRUE(e.has_value()) << reason << " was not reported";
        EXPECT_TRUE(QString::fromUtf8(e->what()).contains(Path())) << e->what();
        EXPECT_TRUE(e->reason().contains(QLatin1String(reason))) << e->what();
    }
};

// Writes fail with EFBIG while one lives, as on a full disk; SIGXFSZ is ignored meanwhile so
// that the process lives to see the error.
struct FullDisk {
    FullDisk() {
        getrlimit(RLIMIT_FSIZE, &saved);
        previous = signal(SIGXFSZ, SIG_IGN);
        rlimit none = saved;
        none.rlim_cur = 0;
        setrlimit(RLIMIT_FSIZE, &none);
    }
    ~FullDisk() {
        setrlimit(RLIMIT_FSIZE, &saved);
        signal(SIGXFSZ, previous);
    }
    rlimit saved{};
    sighandler_t previous;
};

// A scope made inside another is a savepoint of the outer transaction: committed, it is still
// undone with it; made after the outer one committed, it opens a transaction of its own. An
// inner scope unwound by an exception is in config_store_contract_test. Action log entries
// made inside a scope are written after it, whatever becomes of it.
TEST_F(TransactionTest, ScopeKeepsItsWritesUnlessAnExceptionLeavesItUncommitted) {
    sync::database::DatabaseActionLog log(db);
    const struct {
        const char* name;
        bool commit;
        bool inner;  // after the commit, if any: a scope that writes and commits
        bool raise;
        bool kept;
    } rows[] = {
        {"committed", true, false, false, true},
        {"ran out", false, false, false, true},
        {"left by an exception", false, false, true, false},
        {"committed, then an exception", true, false, true, true},
        {"inner committed, ran out", false, true, false, true},
        {"inner committed, left by an exception", false, true, true, false},
        {"committed, then a scope", true, true, false, true},
    };
    QStringList kept;
    for (const auto& row : rows) {
        const QString name = QLatin1String(row.name), innerName = name + QLatin1String(" inner");
        try {
            TransactionalScope scope;
            AddRoot(name);
            log.AddFolderEntry(2, "/data/" + name, name);
            if (row.commit) scope.commit();
            if (row.inner) {
                {
                    TransactionalScope inner;
                    AddRoot(innerName);
                    inner.commit();
                }
                EXPECT_EQ(TransactionalScope::Depth(), 1) << row.name;
            }
            if (row.raise) throw std::runtime_error(row.name);
        } catch (const std::runtime_error&) {
        }
        EXPECT_FALSE(db->InTransaction()) << row.name;
        if (row.kept) kept << name;
        if (row.kept && row.inner) kept << innerName;
        EXPECT_EQ(RootNames(), kept.join(", ").toStdString()) << row.name;
    }
    log.Flush();
    EXPECT_EQ(log.PendingCount(), 0);
    EXPECT_EQ(log.Entries().size(), 7);
}

// An operation of several statements that fails half-way undoes the statements before it,
// inside a scope and outside one; the scope's earlier writes stay. Removing a root deletes its
// files first, then its folders; adding a root inserts the record, then makes it its own root.
TEST_F(TransactionTest, OperationThatFailsHalfWayLeavesNoneOfItsWrites) {
    ASSERT_TRUE(AddRoot("r"));
    const FolderConfiguration root = folders->GetRootFolders().value(0);
    FolderConfiguration sub;
    sub.name = "s";
    sub.parentId = root.id;
    ASSERT_TRUE(folders->AddFolder(sub));
    FileConfiguration file;
    file.rootId = root.id;
    ASSERT_TRUE(files->AddFile(file));
    ExecOnFile(Path(),
               "CREATE TRIGGER refuse_delete BEFORE DELETE ON folders WHEN old.name = 's' "
               "BEGIN SELECT RAISE(ABORT, 'refused'); END;"
               "CREATE TRIGGER refuse_root BEFORE UPDATE OF root_id ON folders "
               "WHEN new.name = 'refused' BEGIN SELECT RAISE(ABORT, 'refused'); END;");
    for (const bool inScope : {false, true}) {
        SCOPED_TRACE(inScope ? "inside a scope" : "outside a scope");
        std::optional<TransactionalScope> scope;
        if (inScope) scope.emplace();
        ASSERT_TRUE(AddRoot(inScope ? "kept in scope" : "kept"));

        EXPECT_FALSE(folders->RemoveRootFolder(root.id));
        FolderConfiguration refused;
        refused.name = "refused";
        EXPECT_FALSE(folders->AddFolder(refused));
        EXPECT_EQ(refused.id, -1);

        if (scope) scope->commit();
        EXPECT_FALSE(db->InTransaction());
        EXPECT_TRUE(files->GetFileById(file.id) == file);
    }
    Reopen();
    EXPECT_EQ(RootNames(), "r, kept, kept in scope");
    EXPECT_EQ(QueryOnFile(Path(), "SELECT count(*) FROM folders"), 4);
}

// A batch whose COMMIT fails is rolled back and reported: by commit() itself, or, when the
// scope just ran out, by the next database call, once. Either way the connection leaves the
// transaction, so the next scope is a transaction of its own and its writes reach the disk.
TEST_F(TransactionTest, FailedCommitIsRolledBackReportedAndLaterBatchesReachTheDisk) {
    enum class Cause { DiskFull, Refused };
    enum class Ending { Commit, RanOut };
    enum class Next { ManagerCall, Scope };
    // SQLite rolls back by itself when the disk is full, but leaves the transaction open when
    // a deferred constraint refuses the COMMIT.
    ExecOnFile(Path(),
               "CREATE TABLE allowed (name TEXT PRIMARY KEY);"
               "CREATE TABLE seen (name TEXT REFERENCES allowed(name) DEFERRABLE INITIALLY "
               "DEFERRED);"
               "CREATE TRIGGER refuse AFTER INSERT ON folders WHEN new.name LIKE 'refused%' "
               "BEGIN INSERT INTO seen VALUES (new.name); END;");
    db->impl().Exec("PRAGMA foreign_keys = ON");
    const struct {
        const char* name;
        Cause cause;
        Ending ending;
        Next next;
    } rows[] = {
        {"full, commit()", Cause::DiskFull, Ending::Commit, Next::ManagerCall},
        {"full, ran out, next call", Cause::DiskFull, Ending::RanOut, Next::ManagerCall},
        {"full, ran out, next scope", Cause::DiskFull, Ending::RanOut, Next::Scope},
        {"refused, commit()", Cause::Refused, Ending::Commit, Next::ManagerCall},
        {"refused, ran out, next call", Cause::Refused, Ending::RanOut, Next::ManagerCall},
    };
    QStringList kept;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const QString lost = QLatin1String(row.cause == Cause::Refused ? "refused " : "lost ") +
                             QLatin1String(row.name);
        // Empty, so that the commit's first frame already passes the limit.
        if (row.cause == Cause::DiskFull) ExecOnFile(Path(), "PRAGMA wal_checkpoint(TRUNCATE)");
        std::optional<FullDisk> full;
        auto reported = Thrown([&] {
            TransactionalScope scope;
            EXPECT_TRUE(AddRoot(lost));
            if (row.cause == Cause::DiskFull) full.emplace();
            if (row.ending == Ending::Commit) scope.commit();
        });
        full.reset();
        EXPECT_FALSE(db->InTransaction());
        if (row.ending == Ending::RanOut) {
            EXPECT_FALSE(reported.has_value()) << "a destructor threw";
            auto next = [&] {
                if (row.next == Next::Scope)
                    TransactionalScope scope;
                else
                    folders->GetRootFolders();
            };
            reported = Thrown(next);
            EXPECT_NO_THROW(next()) << "reported more than once";
        }
        ExpectReported(reported, "commit");

        const QString after = QStringLiteral("after ") + QLatin1String(row.name);
        {
            TransactionalScope scope;
            EXPECT_TRUE(AddRoot(after));
        }
        kept << after;
    }
    Reopen();
    EXPECT_EQ(RootNames(), kept.join(", ").toStdString());
}

// When the disk fills half-way through a batch, SQLite may roll the whole transaction back at
// once; the rest of the batch must then fail too instead of being written one record at a
// time outside any transaction, and the scope's end must not pass for a success.
TEST_F(TransactionTest, DiskFullHalfWayThroughABatchKeepsNoneOfItAndIsReported) {
    ASSERT_TRUE(AddRoot("before"));
    const std::string limit =
        "PRAGMA max_page_count = " + std::to_string(QueryOnFile(Path(), "PRAGMA page_count") + 6);
    db->impl().Exec(limit.c_str());
    int addedBeforeFull = 0, failed = 0;
    {
        TransactionalScope scope;
        for (int i = 0; i < 30; ++i) {
            if (!AddRoot(QStringLiteral("batch %1 ").arg(i), 3000))
                ++failed;
            else if (failed == 0)
                ++addedBeforeFull;
        }
    }
    ASSERT_GT(addedBeforeFull, 0) << "the limit left no room for the test";
    ASSERT_GT(failed, 1);
    ExpectReported(Thrown([&] { folders->GetRootFolders(); }), "full");

    db->impl().Exec("PRAGMA max_page_count = 1073741823");
    ASSERT_TRUE(AddRoot("after"));
    Reopen();
    EXPECT_EQ(RootNames(), "before, after");
}

// Another program writes: a scope waits for its lock, and gives up only after the busy timeout,
// with an error that names the file. SQLite locks a connection of this process out just as it
// locks out another process.
TEST_F(TransactionTest, ScopeWaitsForAnotherWriterAndNamesTheFileWhenItGivesUp) {
    EXPECT_GE(db->BusyTimeoutMs(), 30000) << "ordinary contention must not fail a batch";
    sqlite3* other = nullptr;
    ASSERT_EQ(sqlite3_open(QFile::encodeName(Path()).constData(), &other), SQLITE_OK);
    const auto otherWrites = [&](const char* sql) {
        EXPECT_EQ(sqlite3_exec(other, sql, nullptr, nullptr, nullptr), SQLITE_OK) << sql;
    };
    const auto batch = [&](const char* name) {
        return Thrown([&] {
            TransactionalScope scope;
            AddRoot(name);
        });
    };

    otherWrites("BEGIN IMMEDIATE; INSERT OR REPLACE INTO settings VALUES ('other', 1)");
    std::thread release([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(400));
        otherWrites("COMMIT");
    });
    const auto waited = batch("waited");
    release.join();
    EXPECT_FALSE(waited.has_value()) << waited->what();

    db->SetBusyTimeoutMs(200);
    otherWrites("BEGIN IMMEDIATE; INSERT OR REPLACE INTO settings VALUES ('other', 2)");
    ExpectReported(batch("gave up"), "locked");
    EXPECT_FALSE(db->InTransaction());
    // Once the other writer is done, writing works again at once.
    otherWrites("COMMIT");
    sqlite3_close(other);
    ASSERT_TRUE(AddRoot("later"));
    Reopen();
    EXPECT_EQ(RootNames(), "waited, later");
}

}  // namespace
