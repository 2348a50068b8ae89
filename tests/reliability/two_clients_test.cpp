// Two machines syncing one server folder while users on both and a third party on the server
// change it: random seeded sequences, run through the real program, must end with both local
// folders equal to the server's, nothing torn, and nothing that a user wrote gone without
// being in a trash or kept as a conflict copy.
//
// SYNC_RELIABILITY_LONG=1 runs many more sequences; SYNC_RELIABILITY_SEED=<seed> replays one
// sequence, printing its operations and every run's output, and keeps its folders (pick the
// server with --gtest_filter). SYNC_RELIABILITY_SEQUENCES, _FIRST_SEED and _JOBS override the
// number of sequences, the first seed and how many run side by side.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <QElapsedTimer>
#include <QThread>
#include <atomic>
#include <cstdio>
#include <functional>
#include <vector>

#include "RandomSequence.h"
#include "SanitizedBuild.h"

namespace {

using sync::test::DavSite;
using sync::test::RandomSequence;
using Kind = RandomSequence::Kind;

// A share of the sequences under AddressSanitizer.
constexpr int kSanitizedShare = sync::test::kSanitizedBuild ? 8 : 1;

int EnvironmentNumber(const char* name, int fallback) {
    bool ok = false;
    const int value = qEnvironmentVariableIntValue(name, &ok);
    return ok ? value : fallback;
}

struct Outcome {
    quint64 seed = 0;
    QStringList failures;
    QStringList log;
    RandomSequence::Figures figures;
};

// Runs play(0) to play(count - 1), jobs of them side by side: a sequence mostly waits, for the
// program and for the server's tags to firm up. Each has its own server folder.
std::vector<Outcome> PlayAll(int count, int jobs, const std::function<Outcome(int)>& play) {
    std::vector<Outcome> outcomes(std::size_t(std::max(count, 0)));
    std::atomic<int> next{0};
    std::vector<QThread*> workers;
    for (int j = 0; j < std::min(jobs, count); ++j) {
        workers.push_back(QThread::create([&] {
            for (int i = next++; i < count; i = next++) outcomes[std::size_t(i)] = play(i);
        }));
        workers.back()->start();
    }
    for (QThread* worker : workers) {
        worker->wait();
        delete worker;
    }
    return outcomes;
}

Outcome Play(Kind kind, quint64 seed, bool verbose) {
    RandomSequence sequence(kind, seed, verbose);
    Outcome outcome;
    outcome.seed = seed;
    outcome.failures = sequence.Play();
    outcome.log = sequence.Log();
    outcome.figures = sequence.Counts();
    if (verbose) std::printf("  (folders kept in %s)\n", qPrintable(sequence.Folder()));
    return outcome;
}

void RandomSequencesConverge(Kind kind, const char* name, int sequences, int longSequences) {
    QElapsedTimer clock;
    clock.start();
    std::vector<Outcome> outcomes;
    bool replay = false;
    const quint64 seed = qEnvironmentVariable("SYNC_RELIABILITY_SEED").toULongLong(&replay);
    if (replay) {
        outcomes.push_back(Play(kind, seed, true));
    } else {
        const bool longRun = qEnvironmentVariableIntValue("SYNC_RELIABILITY_LONG") == 1;
        const int count = EnvironmentNumber("SYNC_RELIABILITY_SEQUENCES",
                                            longRun ? longSequences : sequences / kSanitizedShare);
        const quint64 first = quint64(EnvironmentNumber("SYNC_RELIABILITY_FIRST_SEED", 1));
        outcomes = PlayAll(count, std::max(1, EnvironmentNumber("SYNC_RELIABILITY_JOBS", 48)),
                           [&](int i) { return Play(kind, first + quint64(i), false); });
    }

    int failed = 0, operations = 0, runs = 0, lost = 0, torn = 0, unsettled = 0;
    for (const Outcome& o : outcomes) {
        operations += o.figures.operations;
        runs += o.figures.runs;
        lost += o.figures.lost;
        torn += o.figures.torn;
        unsettled += o.figures.converged ? 0 : 1;
        if (o.failures.isEmpty()) continue;
        // The first few in full (a replay printed its operations already); the seeds of all.
        ++failed;
        std::string text = "sequence " + std::to_string(o.seed) +
                           " (SYNC_RELIABILITY_SEED=" + std::to_string(o.seed) +
                           " replays it):\n  " +
                           o.failures.join(QStringLiteral("\n  ")).toStdString();
        if (!replay && failed <= 5)
            text += "\n operations:\n  " + o.log.join(QStringLiteral("\n  ")).toStdString();
        ADD_FAILURE() << (failed <= 5 ? text : text.substr(0, text.find('\n')));
    }
    struct rusage self {
    }, children{};
    ::getrusage(RUSAGE_SELF, &self);
    ::getrusage(RUSAGE_CHILDREN, &children);
    const auto seconds = [](const struct rusage& u) {
        return double(u.ru_utime.tv_sec + u.ru_stime.tv_sec) +
               double(u.ru_utime.tv_usec + u.ru_stime.tv_usec) / 1e6;
    };
    std::printf(
        "%s: %d sequences, %d operations, %d program runs, %d failed, %d not settled, "
        "%d files lost, %d files torn, %.1f s (processor: %.1f s test, %.1f s program)\n",
        name, int(outcomes.size()), operations, runs, failed, unsettled, lost, torn,
        clock.elapsed() / 1000.0, seconds(self), seconds(children));
    std::fflush(stdout);
}

TEST(TwoClientsOnOneServer, RandomSequencesOnWebDavConvergeWithoutLoss) {
    if (!DavSite::Error().isEmpty()) GTEST_SKIP() << DavSite::Error().toStdString();
    RandomSequencesConverge(Kind::WebDav, "two clients on WebDAV", 500, 5000);
}

// The same on the local-folder server, the program's default: another backend, with other
// ways of telling versions apart.
TEST(TwoClientsOnOneServer, RandomSequencesOnALocalFolderServerConvergeWithoutLoss) {
    RandomSequencesConverge(Kind::LocalFolder, "two clients on a local folder", 60, 2000);
}

// Sequences that once lost a version or never settled, written out: on either server each must
// settle with both folders equal to the server's and every version still somewhere.
TEST(TwoClientsOnOneServer, WrittenSequencesConvergeWithoutLoss) {
    struct Row {
        const char* name;
        QStringList script;
    };
    const QList<Row> rows = {
        {"an edit outlives the file's deletion on the server",
         {"A+ a.txt", "sync A", "sync B", "S- a.txt", "B~ a.txt", "sync B"}},
        {"an edit outlives a deletion of the file's folder on the server",
         {"A+ F/a.txt", "sync A", "sync B", "S- F", "B~ F/a.txt", "sync B"}},
        {"a name added on both machines keeps both files",
         {"A+ a.txt", "sync A", "sync B", "A+ n.txt", "B+ n.txt", "sync B", "sync A"}},
        {"a name added on a machine and on the server keeps both files",
         {"A+ a.txt", "sync A", "S+ G/n.txt", "A+ G/n.txt", "sync A"}},
        {"a folder deleted locally keeps hidden server files in it",
         {"A+ F/a.txt", "sync A", "sync B", "B- F", "S+ F/.notes", "sync B"}},
        {"a folder deleted locally keeps a server file that clashes in letter case",
         {"A+ F/a.txt", "sync A", "sync B", "S+ F/A.txt", "B- F", "sync B"}},
        {"a folder deleted locally keeps hidden server files in a subfolder",
         {"A+ F/a.txt", "A+ F/H/b.txt", "sync A", "sync B", "S+ F/H/.x", "B- F", "sync B"}},
    };
    QList<Kind> kinds{Kind::LocalFolder};
    if (DavSite::Error().isEmpty())
        kinds << Kind::WebDav;
    else
        std::printf("written sequences on the local-folder server only: %s\n",
                    qPrintable(DavSite::Error()));
    const int cases = int(rows.size() * kinds.size());
    const std::vector<Outcome> outcomes = PlayAll(cases, cases, [&](int i) {
        RandomSequence sequence(kinds[i / rows.size()], 900000 + quint64(i), false);
        Outcome outcome;
        outcome.failures = sequence.Play(rows[i % rows.size()].script);
        outcome.log = sequence.Log();
        return outcome;
    });
    for (int i = 0; i < cases; ++i) {
        const Outcome& o = outcomes[std::size_t(i)];
        EXPECT_TRUE(o.failures.isEmpty())
            << rows[i % rows.size()].name
            << (kinds[i / rows.size()] == Kind::WebDav ? " (WebDAV):\n  " : " (local folder):\n  ")
            << o.failures.join(QStringLiteral("\n  ")).toStdString() << "\n operations:\n  "
            << o.log.join(QStringLiteral("\n  ")).toStdString();
    }
}

}  // namespace
