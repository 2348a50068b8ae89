#pragma once

#include <QString>
#include <QTemporaryDir>
#include <memory>

namespace sync {
namespace test {

// A private Apache httpd with mod_dav on 127.0.0.1 and a free port, configured in a temporary
// folder, for tests and benchmarks that need a real WebDAV server. Run as root it serves as
// nobody:nogroup (Apache refuses to serve as root) and the folder is handed to that user.
class ApacheServer {
public:
    struct Options {
        // Basic authentication with this user and password when the user is not empty.
        QString user;
        QString password;
        // https with a certificate made for 127.0.0.1, its own CA (CaFile()).
        bool tls = false;
        // Where the temporary folder goes; empty: the system's temporary folder.
        QString parent;
    };

    // Empty when Apache and its WebDAV modules are installed; else why not.
    static QString Unavailable();
    // Likewise for a server with tls, which needs mod_ssl and the openssl program as well.
    static QString TlsUnavailable();

    explicit ApacheServer(Options options);
    ApacheServer() : ApacheServer(Options()) {}
    ~ApacheServer();
    ApacheServer(const ApacheServer&) = delete;
    ApacheServer& operator=(const ApacheServer&) = delete;

    // Starts the server and waits until it answers; false with error set when it did not.
    bool Start(QString* error);
    // SIGTERM to the pid in its pid file, then waits for it to go.
    void Stop();

    int Port() const { return _port; }
    // "http(s)://127.0.0.1:PORT"; the document root is served at "/".
    QString Url() const;
    QString DocumentRoot() const { return _dir.path() + QStringLiteral("/htdocs"); }
    QString CaFile() const { return _dir.path() + QStringLiteral("/cert.pem"); }
    // A certificate of another authority, which the server's certificate does not chain to.
    QString OtherCaFile();
    QString ErrorLog() const { return _dir.path() + QStringLiteral("/error.log"); }

    // Writes a file at path (inside the document root, folders made as needed) as someone else
    // would have put it there. Backdated by two seconds, sub-second part kept: Apache marks the
    // tag of a file changed within the current second weak, and a seed is older than that.
    bool Put(const QString& path, const QByteArray& content, bool backdated = true) const;

    // Makes path, and every folder from the document root down to it, the server's to read and
    // write (when running as root). Seeds written straight to the disk need it.
    void HandOver(const QString& path) const;

private:
    bool _WriteConfiguration(QString* error);
    bool _Run(const QString& program, const QStringList& arguments, QString* error) const;
    long _Pid() const;

    Options _options;
    QTemporaryDir _dir;
    int _port = 0;
    bool _running = false;
};

}  // namespace test
}  // namespace sync
