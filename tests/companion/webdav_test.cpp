// What only the WebDAV backend has to get right: certificates, credentials, names in URLs,
// answers cut short or refused, the conflict copy, weak tags, and transfers that must not land
// half-done. Most cases run against a private Apache; the fault cases against a small scripted
// HTTP server.
#include <gtest/gtest.h>
#include <log4cplus/loglevel.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QLocale>
#include <QProcess>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QUrl>
#include <iostream>
#include <limits>

#include "ApacheServer.h"
#include "FakeConfigStore.h"
#include "HttpException.h"
#include "ICheckForExit.h"
#include "LogCapture.h"
#include "ScriptedHttpServer.h"
#include "WebDavConnection.h"
#include "WebDavMultistatus.h"
#include "WebDavServer.h"

namespace {

using sync::config::FileConfiguration;
using sync::config::FileSynchronizationStatus;
using sync::config::FolderConfiguration;
using sync::remote::WebDavServer;
using Pairs = QList<sync::thread::SynchronizedFileConfiguration>;

class ExitHook : public sync::interf::ICheckForExit {
public:
    explicit ExitHook(std::function<bool()> hook) : _hook(std::move(hook)) {}
    bool ShouldExit() override { return _hook(); }
    bool ShouldExitThread() override { return false; }

private:
    std::function<bool()> _hook;
};

QByteArray ReadFile(const QString& path) {
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

void WriteFile(const QString& path, const QByteArray& content) {
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
    ASSERT_EQ(file.write(content), content.size());
}

using ScriptedServer = sync::test::ScriptedHttpServer;

QByteArray Answer(const QByteArray& status, const QByteArray& body,
                  const QByteArray& extraHeaders = QByteArray(), qint64 announced = -1) {
    return ScriptedServer::Answer(status, body, extraHeaders, announced);
}

QByteArray Multistatus(const QList<QByteArray>& responses) {
    return "<?xml version=\"1.0\"?><D:multistatus xmlns:D=\"DAV:\">" + responses.join("") +
           "</D:multistatus>";
}

QByteArray Entry(const QByteArray& href, bool folder, const QByteArray& etag = "\"e1\"") {
    return "<D:response><D:href>" + href + "</D:href><D:propstat><D:prop><D:resourcetype>" +
           (folder ? "<D:collection/>" : "") +
           "</D:resourcetype><D:getcontentlength>4</D:getcontentlength>"
           "<D:getlastmodified>Mon, 23 Nov 2026 10:00:00 GMT</D:getlastmodified><D:getetag>" +
           etag +
           "</D:getetag></D:prop><D:status>HTTP/1.1 200 OK</D:status></D:propstat>"
           "</D:response>";
}

FolderConfiguration RootAt(const QString& localPath) {
    FolderConfiguration root;
    root.id = root.rootId = 1;
    root.serverPath = QStringLiteral("/Docs");
    root.localPath = localPath;
    return root;
}

std::shared_ptr<WebDavServer> ServerFor(const QString& baseUrl, const QString& user = QString(),
                                        const QString& password = QString(),
                                        const QString& caFile = QString()) {
    sync::config::ServerConfiguration account;
    account.baseUrl = baseUrl;
    account.userName = user;
    if (!caFile.isEmpty()) account.settings.insert(QStringLiteral("caFile"), caFile);
    return std::make_shared<WebDavServer>(account, password);
}

int ListingStatus(WebDavServer& server, FolderConfiguration& root, int* entries = nullptr) {
    auto folders = std::make_shared<QVector<FolderConfiguration>>();
    auto files = std::make_shared<QVector<FileConfiguration>>();
    const int status = server.GetFolderTree(root, folders, files);
    if (entries) *entries = folders->size() + files->size();
    return status;
}

TEST(WebDavFaults, CutRefusedAndUnreachableAnswersAreErrorsNeverShorterResults) {
    const QByteArray listing =
        Multistatus({Entry("/base/Docs/", true), Entry("/base/Docs/a", false)});
    enum Operation { List, Download };
    const struct {
        const char* name;
        Operation operation;
        QByteArray answer;
        int status;
        int retryAfter;
    } rows[] = {
        {"listing with its XML cut", List,
         Answer("207 Multi-Status", listing.left(listing.size() - 40)), 502, -1},
        {"listing connection cut", List, Answer("207 Multi-Status", listing.left(100), {}, 5000),
         502, -1},
        {"listing of an unreadable folder", List,
         Answer("207 Multi-Status",
                Multistatus({Entry("/base/Docs/", true),
                             "<D:response><D:href>/base/Docs/locked/</D:href><D:status>HTTP/1.1 "
                             "403 Forbidden</D:status></D:response>"})),
         403, -1},
        {"listing refused for load", List,
         Answer("503 Service Unavailable", "", "Retry-After: 7\r\n"), 503, 7},
        {"download cut short", Download, Answer("200 OK", "0123456789", {}, 100), 502, -1},
        {"download refused for load", Download,
         Answer("429 Too Many Requests", "", "Retry-After: 30\r\n"), 429, 30},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        ScriptedServer script([&](const ScriptedServer::Request&) { return row.answer; });
        auto server = ServerFor(script.Url() + "/base");
        QTemporaryDir local;
        FolderConfiguration root = RootAt(local.path());
        if (row.operation == List) {
            int entries = -1;
            EXPECT_EQ(ListingStatus(*server, root, &entries), row.status);
            EXPECT_EQ(entries, 0);
            EXPECT_FALSE(root.getLastServerSyncRequestTime().isValid());
        } else {
            FileConfiguration serverFile;
            serverFile.serverPath = QStringLiteral("/Docs/a.bin");
            serverFile.localPath = local.path() + QStringLiteral("/a.bin");
            FileConfiguration record = serverFile;
            record.checksum = QStringLiteral("before");
            Pairs batch{{serverFile, record}};
            const auto r = server->DownloadFiles({}, root, batch);
            EXPECT_EQ(r.FileLocalCreationErrors, 1);
            EXPECT_EQ(r.errorCodes.value(row.status), 1);
            EXPECT_FALSE(QFileInfo::exists(serverFile.localPath));
            EXPECT_TRUE(QDir(local.path() + "/.{SyncTemp}").isEmpty());
            EXPECT_EQ(batch.first().databaseRecord.checksum, QStringLiteral("before"));
            EXPECT_EQ(batch.first().databaseRecord.syncStatus,
                      FileSynchronizationStatus::OutOfSync);
        }
        EXPECT_EQ(server->RetryAfterSeconds(), row.retryAfter);
    }

    // Nobody listening: the status of an unreachable server, and a message naming the host.
    int closedPort = 0;
    {
        ScriptedServer gone([](const ScriptedServer::Request&) { return QByteArray(); });
        closedPort = gone.Port();
    }
    auto server = ServerFor(QStringLiteral("http://127.0.0.1:%1/base").arg(closedPort));
    FolderConfiguration root = RootAt(QStringLiteral("/tmp/none"));
    EXPECT_EQ(ListingStatus(*server, root), 503);
    EXPECT_TRUE(server->LastError().contains(QStringLiteral("cannot reach 127.0.0.1")))
        << server->LastError().toStdString();
}

TEST(WebDavFaults, AServerRefusingDepthInfinityIsWalkedFolderByFolder) {
    ScriptedServer script([](const ScriptedServer::Request& request) {
        if (request.head.contains("Depth: infinity"))
            return Answer("403 Forbidden",
                          "<D:error xmlns:D=\"DAV:\"><D:propfind-finite-depth/></D:error>");
        if (request.path == "/base/Docs/")
            return Answer("207 Multi-Status",
                          Multistatus({Entry("/base/Docs/", true), Entry("/base/Docs/sub/", true),
                                       Entry("/base/Docs/top.txt", false)}));
        if (request.path == "/base/Docs/sub/")
            return Answer(
                "207 Multi-Status",
                Multistatus({Entry("http://127.0.0.1/base/Docs/sub/", true),
                             Entry("http://127.0.0.1/base/Docs/sub/in%20it.txt", false)}));
        return Answer("404 Not Found", "");
    });
    auto server = ServerFor(script.Url() + "/base");
    FolderConfiguration root = RootAt(QStringLiteral("/home/u/Docs"));
    auto folders = std::make_shared<QVector<FolderConfiguration>>();
    auto files = std::make_shared<QVector<FileConfiguration>>();
    ASSERT_EQ(server->GetFolderTree(root, folders, files), 0);
    QStringList paths;
    for (const auto& f : *folders) paths << f.serverPath + "/";
    for (const auto& f : *files) paths << f.localPath;
    paths.sort();
    EXPECT_EQ(paths,
              QStringList({"/Docs/sub/", "/home/u/Docs/sub/in it.txt", "/home/u/Docs/top.txt"}));
}

// A weak tag never matches in If-Match, so sending one would fail every change made within a
// second of the last one; the server's current tag is compared first instead.
TEST(WebDavFaults, AWeakTagIsNeverSentAsAPrecondition) {
    ScriptedServer script([](const ScriptedServer::Request& request) {
        if (request.method == "PROPFIND")
            return Answer("207 Multi-Status",
                          Multistatus({Entry("/base/Docs/w.txt", false, "W/\"t1\"")}));
        return Answer("204 No Content", "");
    });
    auto server = ServerFor(script.Url() + "/base");
    QTemporaryDir local;
    FolderConfiguration root = RootAt(local.path());
    FileConfiguration f;
    f.serverPath = QStringLiteral("/Docs/w.txt");
    f.localPath = local.path() + QStringLiteral("/w.txt");
    f.serverFileId = f.serverPath;
    f.properties.insert(QStringLiteral("versionId"), QStringLiteral("W/\"t1\""));
    WriteFile(f.localPath, "changed content");
    QList<FileConfiguration> uploads{f};
    EXPECT_EQ(server->UploadFiles({}, root, uploads).FileServerCreations, 1);
    QList<FileConfiguration> deletions{f};
    EXPECT_EQ(server->DeleteFiles(root, deletions).FileServerDeletions, 1);
    QStringList sent;
    for (const auto& request : script.Requests())
        if (request.method == "PUT" || request.method == "DELETE") sent << request.method;
    EXPECT_EQ(sent, QStringList({"PUT", "DELETE"}));
    for (const auto& request : script.Requests())
        EXPECT_FALSE(request.head.contains("If-Match: W/")) << request.head.toStdString();
}

// --- Replies read without a server ----------------------------------------------------------

struct ListingRow {
    const char* what;
    QByteArray document;
};

QByteArray Utf16(const QString& text, bool bigEndian) {
    QByteArray bytes(bigEndian ? "\xFE\xFF" : "\xFF\xFE");
    for (const QChar c : text) {
        const char high = char(c.unicode() >> 8), low = char(c.unicode() & 0xFF);
        bytes.append(bigEndian ? high : low).append(bigEndian ? low : high);
    }
    return bytes;
}

// The paths of the entries, one a line.
std::string ParsedPaths(const QByteArray& document, int piece, bool* finished) {
    QStringList paths;
    sync::remote::MultistatusParser parser([&](sync::remote::DavEntry& e) {
        paths << e.path;
        return true;
    });
    bool fed = true;
    for (int at = 0; fed && at < document.size(); at += piece)
        fed = parser.Feed(document.constData() + at,
                          std::size_t(std::min(piece, int(document.size()) - at)));
    *finished = fed && parser.Finish();
    return paths.join(QLatin1Char('\n')).toStdString();
}

// The network cuts an answer anywhere: the listing must not depend on where.
TEST(WebDavReplies, AListingReadsTheSameHoweverTheAnswerArrivesInPieces) {
    const QString body =
        QStringLiteral("<D:multistatus xmlns:D=\"DAV:\">") +
        QString::fromUtf8(Entry("/base/Docs/", true) + Entry("/base/Docs/n%C3%A4me.txt", false)) +
        QStringLiteral("</D:multistatus>");
    const QString declared = QStringLiteral("<?xml version=\"1.0\" encoding=\"UTF-16\"?>");
    const ListingRow rows[] = {
        {"UTF-8", "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n" + body.toUtf8()},
        {"UTF-8 without a declaration", body.toUtf8()},
        {"UTF-16 little-endian, declared", Utf16(declared + body, false)},
        {"UTF-16 big-endian, declared", Utf16(declared + body, true)},
    };
    for (const ListingRow& row : rows) {
        SCOPED_TRACE(row.what);
        bool wholeFinished = false;
        const std::string whole =
            ParsedPaths(row.document, int(row.document.size()), &wholeFinished);
        EXPECT_TRUE(wholeFinished);
        EXPECT_EQ(
            whole,
            QStringLiteral("/base/Docs\n/base/Docs/n%1me.txt").arg(QChar(0xE4)).toStdString());
        for (const int piece : {1, 3, 5}) {
            bool finished = false;
            EXPECT_EQ(ParsedPaths(row.document, piece, &finished), whole) << "pieces of " << piece;
            EXPECT_TRUE(finished) << "pieces of " << piece;
        }
    }
}

struct OversizeRow {
    const char* what;
    QByteArray document;
    int piece;
};

// A server can send an endless value or comment: the listing is refused while memory lasts,
// before the answer ends, and an answer that is no XML is refused at its start.
TEST(WebDavReplies, OversizedOrEndlessAnswersAreRefusedEarly) {
    const QByteArray start = "<?xml version=\"1.0\"?><D:multistatus xmlns:D=\"DAV:\"><D:response>";
    const OversizeRow rows[] = {
        {"an href of 2 MiB",
         start + "<D:href>/" + QByteArray(2 << 20, 'a') + "</D:href>" + QByteArray(1 << 20, ' '),
         65536},
        {"an endless comment", start + "<!--" + QByteArray(4 << 20, 'c'), 65536},
        {"no markup at all", QByteArray(1 << 20, 'x'), 1024},
    };
    for (const OversizeRow& row : rows) {
        SCOPED_TRACE(row.what);
        sync::remote::MultistatusParser parser([](sync::remote::DavEntry&) { return true; });
        int fed = 0;
        while (fed < row.document.size() &&
               parser.Feed(row.document.constData() + fed,
                           std::size_t(std::min(row.piece, int(row.document.size()) - fed))))
            fed += row.piece;
        EXPECT_LT(fed, row.document.size());
        EXPECT_FALSE(parser.Error().isEmpty());
    }
}

struct HeaderRow {
    const char* what;
    QByteArray line;
    // The accepted Retry-After: a wait relative to a date is only known within a range.
    qint64 minRetry;
    qint64 maxRetry;
};

TEST(WebDavReplies, RetryAfterIsAWaitInSecondsOrNone) {
    const qint64 most = std::numeric_limits<int>::max();
    const QByteArray inAnHour =
        QLocale::c()
            .toString(QDateTime::currentDateTimeUtc().addSecs(3600), "ddd, dd MMM yyyy hh:mm:ss")
            .toLatin1() +
        " GMT";
    const HeaderRow rows[] = {
        {"seconds", "Retry-After: 120\r\n", 120, 120},
        {"a negative number", "Retry-After: -5\r\n", 0, 0},
        {"more seconds than an int holds", "Retry-After: 99999999999\r\n", most, most},
        {"a date an hour ahead", "retry-after: " + inAnHour + "\r\n", 3500, 3600},
        {"a date long past", "Retry-After: Sun, 06 Nov 1994 08:49:37 GMT\r\n", 0, 0},
        {"a date further ahead than an int holds", "Retry-After: Fri, 31 Dec 9999 23:59:59 GMT\r\n",
         most, most},
        {"neither", "Retry-After: soon\r\n", -1, -1},
    };
    for (const HeaderRow& row : rows) {
        SCOPED_TRACE(row.what);
        sync::remote::DavResponse response;
        for (const QByteArray& line : {QByteArray("HTTP/1.1 503 Unavailable\r\n"), row.line})
            sync::remote::WebDavConnection::ReadHeaderLine(line.constData(),
                                                           std::size_t(line.size()), response);
        EXPECT_EQ(response.status, 503);
        EXPECT_GE(response.retryAfter, row.minRetry);
        EXPECT_LE(response.retryAfter, row.maxRetry);
    }
}

// --- Against Apache -------------------------------------------------------------------------

class WebDavApache : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        if (!sync::test::ApacheServer::Unavailable().isEmpty()) return;
        apache = new sync::test::ApacheServer;
        QString error;
        if (!apache->Start(&error)) {
            std::cerr << "Apache did not start: " << error.toStdString() << "\n";
            delete apache;
            apache = nullptr;
        }
    }
    static void TearDownTestSuite() {
        delete apache;
        apache = nullptr;
    }
    void SetUp() override {
        if (!apache)
            GTEST_SKIP() << "no WebDAV server: "
                         << sync::test::ApacheServer::Unavailable().toStdString();
        static int folders = 0;
        const QString name = QStringLiteral("/case%1").arg(++folders);
        top = apache->DocumentRoot() + name;
        QDir().mkpath(top + "/Docs");
        apache->HandOver(top + "/Docs");
        server = ServerFor(apache->Url() + name);
        server->SetDatabase(database);
        root = RootAt(local.path());
    }
    void PutOnServer(const QString& serverPath, const QByteArray& content, bool backdated = true) {
        ASSERT_TRUE(apache->Put(top + serverPath, content, backdated));
    }
    FileConfiguration Listed(const QString& serverPath) {
        auto files = std::make_shared<QVector<FileConfiguration>>();
        EXPECT_EQ(
            server->GetFolderTree(root, std::make_shared<QVector<FolderConfiguration>>(), files),
            0);
        for (const auto& f : *files)
            if (f.serverPath == serverPath) return f;
        return {};
    }
    FileConfiguration NewRecord(const QString& serverPath) {
        FileConfiguration f;
        f.serverPath = serverPath;
        f.name = serverPath.section(QLatin1Char('/'), -1);
        f.localPath = local.path() + serverPath.mid(5);
        return f;
    }

    static sync::test::ApacheServer* apache;
    QString top;
    QTemporaryDir local;
    FolderConfiguration root;
    std::shared_ptr<WebDavServer> server;
    std::shared_ptr<sync::test::FakeConfigStore> database =
        std::make_shared<sync::test::FakeConfigStore>();
};
sync::test::ApacheServer* WebDavApache::apache = nullptr;

TEST_F(WebDavApache, NamesThatNeedEscapingSurviveUploadListingAndDownloadByteIdentical) {
    const QStringList names{"a b.txt",     "hash#1.txt",  "100%.txt",           "what?.txt",
                            "Ünïcödé.txt", "emoji 😀.txt", "sub dir/x#y? %z.bin"};
    QList<FileConfiguration> batch;
    for (const QString& name : names) {
        FileConfiguration f = NewRecord(QStringLiteral("/Docs/") + name);
        WriteFile(f.localPath, QByteArray("\0content of ", 12) + name.toUtf8());
        batch << f;
    }
    PutOnServer(QStringLiteral("/Docs/sub dir/.keep"), "");
    ASSERT_EQ(server->UploadFiles({}, root, batch).FileServerCreations, names.size());

    const bool haveCurl = !QStandardPaths::findExecutable(QStringLiteral("curl")).isEmpty();
    Pairs downloads;
    QTemporaryDir elsewhere;
    FolderConfiguration other = RootAt(elsewhere.path());
    for (const QString& name : names) {
        SCOPED_TRACE(name.toStdString());
        const QByteArray expected = QByteArray("\0content of ", 12) + name.toUtf8();
        EXPECT_EQ(ReadFile(top + QStringLiteral("/Docs/") + name), expected);
        const FileConfiguration listed = Listed(QStringLiteral("/Docs/") + name);
        EXPECT_EQ(listed.name, name.section(QLatin1Char('/'), -1));
        if (haveCurl) {
            // Another client's reading of the same URL, escaped independently of the backend.
            QString url = apache->Url() + top.mid(apache->DocumentRoot().size()) + "/Docs";
            for (const QString& part : name.split(QLatin1Char('/')))
                url += QLatin1Char('/') + QString::fromLatin1(QUrl::toPercentEncoding(part));
            QProcess curl;
            curl.start(QStringLiteral("curl"), {"-s", "-f", "-g", url});
            ASSERT_TRUE(curl.waitForFinished(10000));
            EXPECT_EQ(curl.readAllStandardOutput(), expected);
        }
        FileConfiguration target = listed;
        target.localPath = elsewhere.path() + QStringLiteral("/") + name;
        QDir().mkpath(QFileInfo(target.localPath).absolutePath());
        downloads << sync::thread::SynchronizedFileConfiguration(target, FileConfiguration());
    }
    ASSERT_EQ(server->DownloadFiles({}, other, downloads).FileLocalCreations, names.size());
    for (const QString& name : names)
        EXPECT_EQ(ReadFile(elsewhere.path() + QStringLiteral("/") + name),
                  QByteArray("\0content of ", 12) + name.toUtf8())
            << name.toStdString();
}

TEST_F(WebDavApache, UploadsSendOnlyWhatTheServerLacksAndKeepVersionsTheyNeverSaw) {
    const QString same = QStringLiteral("/Docs/same.txt");
    PutOnServer(same, "identical");
    const QString before = Listed(same).properties.value("versionId");
    FileConfiguration sameRecord = NewRecord(same);
    WriteFile(sameRecord.localPath, "identical");

    // Synchronised at v1; then both sides changed it, and the plan names the server's
    // current version, which this client never synchronised.
    const QString moved = QStringLiteral("/Docs/report.txt");
    PutOnServer(moved, "v1");
    FileConfiguration synchronised = Listed(moved);
    synchronised.localPath = NewRecord(moved).localPath;
    database->AddFile(synchronised);
    PutOnServer(moved, "theirs, unseen");
    FileConfiguration movedRecord = Listed(moved);
    movedRecord.id = synchronised.id;
    movedRecord.localPath = synchronised.localPath;
    WriteFile(movedRecord.localPath, "mine");

    QList<FileConfiguration> batch{sameRecord, movedRecord};
    const auto r = server->UploadFiles({}, root, batch);
    EXPECT_EQ(r.FileServerCreations, 2);
    EXPECT_EQ(Listed(same).properties.value("versionId"), before) << "identical content was sent";
    EXPECT_EQ(ReadFile(top + moved), "mine");
    const QStringList copies = QDir(top + "/Docs").entryList({"report (conflict *).txt"});
    ASSERT_EQ(copies.size(), 1);
    EXPECT_TRUE(QRegularExpression("^report \\(conflict \\d{4}-\\d\\d-\\d\\d \\d{6}\\)\\.txt$")
                    .match(copies.first())
                    .hasMatch())
        << copies.first().toStdString();
    EXPECT_EQ(ReadFile(top + "/Docs/" + copies.first()), "theirs, unseen");

    // Apache marks a tag weak for the second after a write and strong later on, as the next
    // listing will show it; a record keeping the weak form would read as a server change.
    const QString fresh = QStringLiteral("/Docs/fresh.txt");
    PutOnServer(fresh, "written on the server just now", false);
    Pairs downloads{{Listed(fresh), NewRecord(fresh)}};
    ASSERT_EQ(server->DownloadFiles({}, root, downloads).FileLocalCreations, 1);
    const struct {
        const char* what;
        FileConfiguration record;
        QString path;
    } rows[] = {{"uploaded", batch.at(1), moved},
                {"downloaded", downloads.first().databaseRecord, fresh}};
    for (const auto& row : rows) {
        const QString tag = row.record.properties.value("versionId");
        EXPECT_FALSE(tag.startsWith("W/")) << row.what;
        EXPECT_EQ(tag, Listed(row.path).properties.value("versionId")) << row.what;
        EXPECT_EQ(database->GetFileById(row.record.id).properties.value("versionId"), tag)
            << row.what;
    }
}

TEST_F(WebDavApache, TransfersStoppedOrReadWhileChangingLandNowhere) {
    const QByteArray big(16 * 1024 * 1024, 'x');
    enum Kind { UploadChanging, UploadStopped, DownloadStopped };
    for (const Kind kind : {UploadChanging, UploadStopped, DownloadStopped}) {
        SCOPED_TRACE(int(kind));
        const QString path = QStringLiteral("/Docs/big%1.bin").arg(int(kind));
        PutOnServer(path, "old");
        FileConfiguration record = Listed(path);
        record.localPath = NewRecord(path).localPath;
        if (kind != DownloadStopped) WriteFile(record.localPath, big);
        int calls = 0;
        server->SetExitChecker(std::make_shared<ExitHook>([&] {
            if (++calls != 3) return false;
            if (kind != UploadChanging) return true;
            QFile file(record.localPath);
            file.open(QIODevice::Append);
            file.write("more");
            return false;
        }));
        if (kind == DownloadStopped) {
            PutOnServer(path, big);
            Pairs batch{{Listed(path), FileConfiguration()}};
            batch.first().databaseRecord.localPath = record.localPath;
            EXPECT_EQ(server->DownloadFiles({}, root, batch).FileLocalCreationErrors, 1);
            EXPECT_FALSE(QFileInfo::exists(record.localPath));
            EXPECT_TRUE(QDir(local.path() + "/.{SyncTemp}").isEmpty());
        } else {
            QList<FileConfiguration> batch{record};
            const auto r = server->UploadFiles({}, root, batch);
            EXPECT_EQ(r.FileServerCreationErrors, 1);
            if (kind == UploadChanging) {
                EXPECT_EQ(r.errorCodes.value(409), 1);
            }
            EXPECT_EQ(ReadFile(top + path), "old");
            EXPECT_EQ(batch.first().syncStatus, FileSynchronizationStatus::OutOfSync);
        }
        EXPECT_GE(calls, 3) << "the transfer ended before it could be stopped";
        server->SetExitChecker(nullptr);
    }
}

// --- Certificates and credentials ----------------------------------------------------------

TEST(WebDavSecurity, OnlyACertificateOfTheGivenAuthorityIsTrusted) {
    if (!sync::test::ApacheServer::TlsUnavailable().isEmpty())
        GTEST_SKIP() << "no WebDAV server with TLS: "
                     << sync::test::ApacheServer::TlsUnavailable().toStdString();
    sync::test::ApacheServer::Options options;
    options.tls = true;
    sync::test::ApacheServer apache(options);
    QString error;
    ASSERT_TRUE(apache.Start(&error)) << error.toStdString();
    QDir().mkpath(apache.DocumentRoot() + "/Docs");
    apache.HandOver(apache.DocumentRoot() + "/Docs");
    const struct {
        const char* name;
        QString caFile;
        int status;
    } rows[] = {
        {"its own authority", apache.CaFile(), 0},
        {"another authority", apache.OtherCaFile(), 495},
        {"the system's store", QString(), 495},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        auto server = ServerFor(apache.Url(), QString(), QString(), row.caFile);
        FolderConfiguration root = RootAt(QStringLiteral("/home/u/Docs"));
        EXPECT_EQ(ListingStatus(*server, root), row.status);
        if (row.status == 0) continue;
        EXPECT_TRUE(
            server->LastError().contains(QStringLiteral("certificate of 127.0.0.1 not trusted")))
            << server->LastError().toStdString();
        try {
            FolderConfiguration info;
            server->GetFolderInfo(root, info);
            ADD_FAILURE() << "no exception";
        } catch (const sync::http::HttpException& e) {
            EXPECT_EQ(e.code, 495);
        }
    }
}

TEST(WebDavSecurity, WrongCredentialsAnswer401AndThePasswordIsNeverShown) {
    if (!sync::test::ApacheServer::Unavailable().isEmpty())
        GTEST_SKIP() << "no WebDAV server: "
                     << sync::test::ApacheServer::Unavailable().toStdString();
    sync::test::ApacheServer::Options options;
    options.user = QStringLiteral("alice");
    options.password = QStringLiteral("s3cret-pw");
    sync::test::ApacheServer apache(options);
    QString error;
    ASSERT_TRUE(apache.Start(&error)) << error.toStdString();
    QDir().mkpath(apache.DocumentRoot() + "/Docs");
    apache.HandOver(apache.DocumentRoot() + "/Docs");
    const struct {
        QString user, password;
        int status;
    } rows[] = {
        {"alice", "s3cret-pw", 0},
        {"alice", "wrong-pw-123", 401},
        {"", "", 401},
    };
    sync::test::LogCapture log;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.password.toStdString());
        // A user name in the URL is dropped, and never shown either.
        QString url = apache.Url();
        url.replace(QStringLiteral("//"), QStringLiteral("//bob:url-pw@"));
        auto server = ServerFor(url, row.user, row.password);
        FolderConfiguration root = RootAt(QStringLiteral("/home/u/Docs"));
        EXPECT_EQ(ListingStatus(*server, root), row.status);
        QString shown = server->LastError() + server->BuildUrl({}, QStringLiteral("/Docs/a"));
        FolderConfiguration folder = root;
        folder.serverPath = QStringLiteral("/Docs/new");
        const auto r = server->CreateFolder(folder, QString(), false);
        EXPECT_EQ(r.FolderServerCreations, row.status == 0 ? 1 : 0);
        shown += server->LastError();
        for (const auto& line : log.Lines()) shown += line.message;
        for (const char* secret : {"s3cret-pw", "wrong-pw-123", "url-pw"})
            EXPECT_FALSE(shown.contains(QLatin1String(secret))) << shown.toStdString();
    }
}

}  // namespace
