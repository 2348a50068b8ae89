#pragma once

#include <QString>

#include "HostSetup.h"

namespace sync {
namespace host {

// Registers a pair of a local folder and a server folder as a root folder, with its account.
// Nothing is written unless every check passes: the local folder exists and can be read, the
// server answers, the pair does not overlap a registered root folder on either side, and the
// local folder is not registered with another server folder.
class Registration {
public:
    // A trial registration (for a dry run, into a copy of the database) creates nothing on
    // this machine and accepts a local server folder whose parent does not exist yet.
    explicit Registration(HostSetup& setup, bool trial = false) : _setup(setup), _trial(trial) {}

    // How a WebDAV account signs in: the user (else the URL's), a file whose first line is the
    // password (only its path is stored), and a CA bundle for a private server's certificate.
    struct Credentials {
        QString user;
        QString passwordFile;
        QString caFile;
    };

    // The root folder's id (an existing one when the pair is registered already), or -1 with
    // a one-line reason in Error(). credentials apply to a new account.
    int Register(const QString& local, const QString& remote,
                 const Credentials& credentials = Credentials());
    const QString& Error() const { return _error; }
    // True when the last Register added a new root folder.
    bool Added() const { return _added; }

    // The account URL and the folder below it that a REMOTE argument names: the folder's
    // parent is the account, its name the root's server path. Empty url when remote names no
    // folder this program can serve.
    static void Split(const QString& remote, QString& url, QString& serverPath);
    // Shown in messages and listings: the URL without user or password.
    static QString Shown(const QString& url);

private:
    int _Fail(const QString& error);

    HostSetup& _setup;
    bool _trial;
    QString _error;
    bool _added = false;
};

}  // namespace host
}  // namespace sync
