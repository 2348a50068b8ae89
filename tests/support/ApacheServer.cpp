#include "ApacheServer.h"

#include <arpa/inet.h>
#include <grp.h>
#include <netinet/in.h>
#include <pwd.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <time.h>

#include <unistd.h>

#include <QCryptographicHash>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QStandardPaths>
#include <QThread>
#include <cerrno>

namespace sync {
namespace test {

namespace {

const QString kApache = QStringLiteral("/usr/sbin/apache2");
const QString kModules = QStringLiteral("/usr/lib/apache2/modules");

bool IsRoot() {
    return ::geteuid() == 0;
}

// A port nobody listens on right now; the server binds it a moment later.
int FreePort() {
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0) return 0;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    int port = 0;
    if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0 &&
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0)
        port = ntohs(address.sin_port);
    ::close(fd);
    return port;
}

bool Answers(int port) {
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0) return false;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(quint16(port));
    const bool ok = ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
    ::close(fd);
    return ok;
}

// Gone, or a zombie that nobody reaps (pid 1 of a container may not).
bool Alive(long pid) {
    if (::kill(pid_t(pid), 0) != 0 && errno == ESRCH) return false;
    QFile stat(QStringLiteral("/proc/%1/stat").arg(pid));
    if (!stat.open(QIODevice::ReadOnly)) return true;
    const QByteArray text = stat.readAll();
    const int close = text.lastIndexOf(')');
    return close < 0 || text.mid(close + 2, 1) != "Z";
}

void GiveToNobody(const QString& path) {
    const struct passwd* user = ::getpwnam("nobody");
    const struct group* group = ::getgrnam("nogroup");
    if (!user || !group) return;
    if (::lchown(QFile::encodeName(path).constData(), user->pw_uid, group->gr_gid) != 0) return;
}

void GiveTreeToNobody(const QString& path) {
    GiveToNobody(path);
    if (!QFileInfo(path).isDir() || QFileInfo(path).isSymLink()) return;
    for (const QString& name : QDir(path).entryList(QDir::AllEntries | QDir::Hidden | QDir::System |
                                                    QDir::NoDotAndDotDot))
        GiveTreeToNobody(path + QLatin1Char('/') + name);
}

}  // namespace

QString ApacheServer::Unavailable() {
    if (!QFileInfo(kApache).isExecutable())
        return QStringLiteral("%1 is not installed (Debian package apache2)").arg(kApache);
    for (const char* module :
         {"mod_mpm_event.so", "mod_dav.so", "mod_dav_fs.so", "mod_authz_core.so"})
        if (!QFileInfo::exists(kModules + QLatin1Char('/') + QLatin1String(module)))
            return QStringLiteral("the Apache module %1 is missing").arg(QLatin1String(module));
    if (IsRoot() && QStandardPaths::findExecutable(QStringLiteral("setpriv")).isEmpty())
        return QStringLiteral("setpriv is missing: Apache cannot be started as nobody");
    return QString();
}

QString ApacheServer::TlsUnavailable() {
    const QString why = Unavailable();
    if (!why.isEmpty()) return why;
    if (!QFileInfo::exists(kModules + QStringLiteral("/mod_ssl.so")))
        return QStringLiteral("the Apache module mod_ssl.so is missing");
    if (QStandardPaths::findExecutable(QStringLiteral("openssl")).isEmpty())
        return QStringLiteral("openssl is not installed: no certificate can be made");
    return QString();
}

ApacheServer::ApacheServer(Options options)
    : _options(std::move(options)),
      _dir((_options.parent.isEmpty() ? QDir::tempPath() : _options.parent) +
           QStringLiteral("/apache-XXXXXX")) {}

ApacheServer::~ApacheServer() {
    Stop();
}

QString ApacheServer::Url() const {
    return QStringLiteral("%1://127.0.0.1:%2")
        .arg(_options.tls ? QStringLiteral("https") : QStringLiteral("http"))
        .arg(_port);
}

bool ApacheServer::_Run(const QString& program, const QStringList& arguments,
                        QString* error) const {
    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.setWorkingDirectory(_dir.path());
    process.start(program, arguments);
    if (!process.waitForFinished(30000) || process.exitStatus() != QProcess::NormalExit ||
        process.exitCode() != 0) {
        if (error)
            *error = QStringLiteral("%1 failed: %2")
                         .arg(program, QString::fromLocal8Bit(process.readAll()).trimmed());
        return false;
    }
    return true;
}

bool ApacheServer::_WriteConfiguration(QString* error) {
    const QString dir = _dir.path();
    QStringList lines{
        QStringLiteral("ServerRoot %1").arg(dir),
        QStringLiteral("Listen 127.0.0.1:%1").arg(_port),
        QStringLiteral("ServerName 127.0.0.1"),
        QStringLiteral("PidFile %1/run/httpd.pid").arg(dir),
        QStringLiteral("DefaultRuntimeDir %1/run").arg(dir),
        QStringLiteral("ErrorLog %1").arg(ErrorLog()),
        QStringLiteral("LogLevel warn"),
        QStringLiteral("StartServers 1"),
        QStringLiteral("ServerLimit 2"),
        QStringLiteral("ThreadsPerChild 16"),
        QStringLiteral("MaxRequestWorkers 32"),
        QStringLiteral("MinSpareThreads 4"),
        QStringLiteral("MaxSpareThreads 16"),
        // One client keeps one connection for a whole run.
        QStringLiteral("KeepAlive On"),
        QStringLiteral("MaxKeepAliveRequests 0"),
        QStringLiteral("KeepAliveTimeout 30"),
        QStringLiteral("LimitRequestBody 0"),
    };
    QStringList modules{"mpm_event", "authz_core", "dav", "dav_fs"};
    if (!_options.user.isEmpty())
        modules << "auth_basic"
                << "authn_file"
                << "authn_core"
                << "authz_user";
    if (_options.tls) modules << "ssl";
    for (const QString& module : modules)
        lines << QStringLiteral("LoadModule %1_module %2/mod_%1.so").arg(module, kModules);
    lines << QStringLiteral("DavLockDB %1/run/davlock").arg(dir)
          << QStringLiteral("DavDepthInfinity On") << QStringLiteral("FileETag MTime Size")
          << QStringLiteral("DocumentRoot %1").arg(DocumentRoot());
    if (_options.tls) {
        if (!_Run(QStringLiteral("openssl"),
                  {"req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1",
                   "-nodes", "-keyout", dir + "/key.pem", "-out", CaFile(), "-days", "2", "-subj",
                   "/CN=127.0.0.1", "-addext", "subjectAltName=IP:127.0.0.1"},
                  error))
            return false;
        lines << QStringLiteral("SSLEngine on")
              << QStringLiteral("SSLCertificateFile %1").arg(CaFile())
              << QStringLiteral("SSLCertificateKeyFile %1/key.pem").arg(dir);
    }
    lines << QStringLiteral("<Directory %1>").arg(DocumentRoot()) << QStringLiteral("  Dav On");
    if (_options.user.isEmpty()) {
        lines << QStringLiteral("  Require all granted");
    } else {
        // Apache's own SHA-1 form: no htpasswd or openssl program needed for a test password.
        QFile users(dir + QStringLiteral("/htpasswd"));
        if (!users.open(QIODevice::WriteOnly)) {
            if (error) *error = QStringLiteral("cannot write %1").arg(users.fileName());
            return false;
        }
        users.write(_options.user.toUtf8() + ":{SHA}" +
                    QCryptographicHash::hash(_options.password.toUtf8(), QCryptographicHash::Sha1)
                        .toBase64() +
                    '\n');
        lines << QStringLiteral("  AuthType Basic") << QStringLiteral("  AuthName \"sync test\"")
              << QStringLiteral("  AuthBasicProvider file")
              << QStringLiteral("  AuthUserFile %1/htpasswd").arg(dir)
              << QStringLiteral("  Require valid-user");
    }
    lines << QStringLiteral("</Directory>");
    QFile configuration(dir + QStringLiteral("/httpd.conf"));
    if (!configuration.open(QIODevice::WriteOnly)) {
        if (error) *error = QStringLiteral("cannot write %1").arg(configuration.fileName());
        return false;
    }
    configuration.write(lines.join(QLatin1Char('\n')).toUtf8() + '\n');
    return true;
}

QString ApacheServer::OtherCaFile() {
    const QString path = _dir.path() + QStringLiteral("/other.pem");
    if (!QFileInfo::exists(path))
        _Run(QStringLiteral("openssl"),
             {"req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes",
              "-keyout", _dir.path() + "/other-key.pem", "-out", path, "-days", "2", "-subj",
              "/CN=127.0.0.1", "-addext", "subjectAltName=IP:127.0.0.1"},
             nullptr);
    return path;
}

bool ApacheServer::Start(QString* error) {
    if (_running) return true;
    const QString why = Unavailable();
    if (!why.isEmpty()) {
        if (error) *error = why;
        return false;
    }
    if (!_dir.isValid() || !QDir().mkpath(DocumentRoot()) ||
        !QDir().mkpath(_dir.path() + QStringLiteral("/run"))) {
        if (error) *error = QStringLiteral("cannot make the server's folder");
        return false;
    }
    // A port found free may be taken before the server binds it: try a few.
    for (int attempt = 0; attempt < 3; ++attempt) {
        _port = FreePort();
        QFile::remove(_dir.path() + QStringLiteral("/run/httpd.pid"));
        if (!_WriteConfiguration(error)) return false;
        QString program = kApache;
        QStringList arguments{"-f", _dir.path() + "/httpd.conf", "-k", "start"};
        if (IsRoot()) {
            // Apache refuses to serve as root.
            GiveTreeToNobody(_dir.path());
            arguments =
                QStringList{"--reuid=nobody", "--regid=nogroup", "--clear-groups", program} +
                arguments;
            program = QStandardPaths::findExecutable(QStringLiteral("setpriv"));
        }
        if (!_Run(program, arguments, error)) continue;
        QElapsedTimer waited;
        waited.start();
        while (waited.elapsed() < 10000) {
            if (_Pid() > 0 && Answers(_port)) {
                _running = true;
                return true;
            }
            QThread::msleep(10);
        }
        Stop();
        if (error) {
            QFile log(ErrorLog());
            log.open(QIODevice::ReadOnly);
            *error = QStringLiteral("Apache did not answer: %1")
                         .arg(QString::fromLocal8Bit(log.readAll()).right(2000));
        }
    }
    return false;
}

long ApacheServer::_Pid() const {
    QFile file(_dir.path() + QStringLiteral("/run/httpd.pid"));
    if (!file.open(QIODevice::ReadOnly)) return 0;
    return file.readAll().trimmed().toLong();
}

void ApacheServer::Stop() {
    const long pid = _Pid();
    _running = false;
    if (pid <= 0) return;
    if (::kill(pid_t(pid), SIGTERM) != 0) return;
    QElapsedTimer waited;
    waited.start();
    while (waited.elapsed() < 10000 && Alive(pid)) QThread::msleep(10);
    QFile::remove(_dir.path() + QStringLiteral("/run/httpd.pid"));
}

bool ApacheServer::Put(const QString& path, const QByteArray& content, bool backdated) const {
    if (!QDir().mkpath(QFileInfo(path).absolutePath())) return false;
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate) ||
        file.write(content) != content.size() || !file.flush())
        return false;
    if (backdated) {
        struct timespec times[2];
        ::clock_gettime(CLOCK_REALTIME, &times[1]);
        times[1].tv_sec -= 2;
        times[0] = times[1];
        if (::futimens(file.handle(), times) != 0) return false;
    }
    file.close();
    HandOver(path);
    return true;
}

void ApacheServer::HandOver(const QString& path) const {
    if (!IsRoot()) return;
    const QString top = QDir::cleanPath(DocumentRoot());
    QString current = QDir::cleanPath(path);
    GiveTreeToNobody(current);
    while (current.size() > top.size() && current.startsWith(top)) {
        current = QFileInfo(current).absolutePath();
        GiveToNobody(current);
    }
}

}  // namespace test
}  // namespace sync
