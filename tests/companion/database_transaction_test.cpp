// TransactionalScope on the configuration database: what a batch keeps, and what becomes of it
// when the disk fills, a commit is refused, another process holds the lock or the process dies.

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <optional>
#include <stdexcept>

#include "ConfigDatabaseImpl.h"
#include "DatabaseActionLog.h"
#include "DatabaseBackends.h"
#include "DatabaseException.h"
#include "TransactionalScope.h"

using namespace sync::config;
using sync::database::ConfigDatabase;
using sync::database::DatabaseException;
using sync::database::FolderConfigManager;
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
    // The failure must name the file, so that a user knows which one to look at.
    void ExpectNamesTheFile(const std::optional<DatabaseException>& e, const char* what) {
        ASSERT_TRUE(e.has_value()) << what << " was not reported";
        EXPECT_TRUE(QString::fromUtf8(e->what()).contains(Path())) << e->what();
    }
};

// Writes past the limit fail with EFBIG, as on a full disk; SIGXFSZ is ignored meanwhile so
// that the process lives to see the error.
class FileSizeLimit {
public:
    void Arm(rlim_t bytes) {
        getrlimit(RLIMIT_FSIZE, &_saved);
        _previous = signal(SIGXFSZ, SIG_IGN);
        rlimit limit = _saved;
        limit.rlim_cur = bytes;
        setrlimit(RLIMIT_FSIZE, &limit);
        _armed = true;
    }
    void Release() {
        if (!_armed) return;
        setrlimit(RLIMIT_FSIZE, &_saved);
        signal(SIGXFSZ, _previous);
        _armed = false;
    }
    ~FileSizeLimit() { Release(); }

private:
    rlimit _saved{};
    sighandler_t _previous = SIG_DFL;
    bool _armed = false;
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
        std::optional<DatabaseException> reported;
        FileSizeLimit limit;
        try {
            TransactionalScope scope;
            EXPECT_TRUE(AddRoot(lost));
            if (row.cause == Cause::DiskFull) limit.Arm(0);
            if (row.ending == Ending::Commit) scope.commit();
        } catch (const DatabaseException& e) {
            reported = e;
        }
        limit.Release();
        EXPECT_FALSE(db->InTransaction());
        if (row.ending == Ending::RanOut) {
            EXPECT_FALSE(reported.has_value()) << "a destructor threw";
            auto next = [&] {
                if (row.next == Next::Scope)
                    TransactionalScope scope;
                else
                    folders->GetRootFolders();
            };
            try {
                next();
            } catch (const DatabaseException& e) {
                reported = e;
            }
            EXPECT_NO_THROW(next()) << "reported more than once";
        }
        ExpectNamesTheFile(reported, "the lost batch");

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
    std::optional<DatabaseException> reported;
    try {
        folders->GetRootFolders();
    } catch (const DatabaseException& e) {
        reported = e;
    }
    ExpectNamesTheFile(reported, "the lost batch");
    EXPECT_TRUE(reported && reported->reason().contains(QLatin1String("full")))
        << (reported ? reported->what() : "");

    db->impl().Exec("PRAGMA max_page_count = 1073741823");
    ASSERT_TRUE(AddRoot("after"));
    Reopen();
    EXPECT_EQ(RootNames(), "before, after");
}

// Another process writes: a scope waits for its lock, and gives up only after the busy
// timeout, with an error that names the file.
TEST_F(TransactionTest, ScopeWaitsForAnotherWriterAndNamesTheFileWhenItGivesUp) {
    EXPECT_GE(db->BusyTimeoutMs(), 30000) << "ordinary contention must not fail a batch";
    for (const bool heldPastTimeout : {false, true}) {
        SCOPED_TRACE(heldPastTimeout ? "held past the timeout" : "held briefly");
        int go[2], locked[2], release[2];
        ASSERT_EQ(pipe(go), 0);
        ASSERT_EQ(pipe(locked), 0);
        ASSERT_EQ(pipe(release), 0);
        // SQLite's lock bookkeeping must not be copied into the child: fork with no connection
        // open, and open ours again afterwards.
        Close();
        const pid_t child = fork();
        ASSERT_NE(child, -1);
        if (child == 0) {
            // Only the C library and _exit from here: no destructor of the parent's objects.
            sqlite3* other = nullptr;
            char byte = 0;
            if (sqlite3_open(QFile::encodeName(Path()).constData(), &other) != SQLITE_OK ||
                read(go[0], &byte, 1) != 1 ||
                sqlite3_exec(other,
                             "BEGIN IMMEDIATE; INSERT OR REPLACE INTO settings VALUES "
                             "('other writer', 1)",
                             nullptr, nullptr, nullptr) != SQLITE_OK ||
                write(locked[1], "L", 1) != 1)
                _exit(3);
            if (heldPastTimeout) {
                if (read(release[0], &byte, 1) != 1) _exit(4);
            } else {
                usleep(400 * 1000);
            }
            _exit(sqlite3_exec(other, "COMMIT", nullptr, nullptr, nullptr) == SQLITE_OK ? 0 : 5);
        }
        Reopen();
        if (heldPastTimeout) db->SetBusyTimeoutMs(200);
        char byte = 0;
        ASSERT_EQ(write(go[1], "G", 1), 1);
        ASSERT_EQ(read(locked[0], &byte, 1), 1);

        std::optional<DatabaseException> reported;
        try {
            TransactionalScope scope;
            AddRoot("waited");
        } catch (const DatabaseException& e) {
            reported = e;
        }
        if (heldPastTimeout) {
            ExpectNamesTheFile(reported, "the lock timeout");
            EXPECT_TRUE(reported && reported->reason().contains(QLatin1String("locked")))
                << (reported ? reported->what() : "");
            EXPECT_FALSE(db->InTransaction());
            ASSERT_EQ(write(release[1], "R", 1), 1);
        } else {
            EXPECT_FALSE(reported.has_value()) << reported->what();
        }
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "child status " << status;
        for (int* p : {go, locked, release}) {
            close(p[0]);
            close(p[1]);
        }
    }
    // The other writer's batch and ours both reached the file; once it is done, writing works
    // again at once.
    EXPECT_EQ(QueryOnFile(Path(), "SELECT count(*) FROM settings WHERE key = 'other writer'"), 1);
    ASSERT_TRUE(AddRoot("later"));
    Reopen();
    EXPECT_EQ(RootNames(), "waited, later");
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
