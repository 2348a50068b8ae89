#pragma once

#include <QString>
#include <stdexcept>

namespace sync {
namespace database {

// The one exception type of the configuration database: a file that cannot be opened, read or
// written, a lock that another process held too long, a batch of writes that could not be
// committed. The text names the database file and says what went wrong; the engine needs no
// more than std::exception to report the root folder as failed.
class DatabaseException : public std::runtime_error {
public:
    DatabaseException(const QString& path, const QString& reason)
        : std::runtime_error(
              QStringLiteral("Configuration database \"%1\": %2").arg(path, reason).toStdString()),
          _path(path),
          _reason(reason) {}

    const QString& path() const { return _path; }
    // The text without the file name.
    const QString& reason() const { return _reason; }

private:
    QString _path;
    QString _reason;
};

}  // namespace database
}  // namespace sync
