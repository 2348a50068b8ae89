#pragma once

#include <QString>
#include <exception>
#include <string>

namespace sync {
namespace core {

// A step of synchronisation that cannot go on (for example a missing local root).
class SyncException : public std::exception {
public:
    SyncException() = default;
    explicit SyncException(const QString& message)
        : message(message), _utf8(message.toUtf8().toStdString()) {}
    const char* what() const noexcept override { return _utf8.c_str(); }

    QString message;

private:
    std::string _utf8;
};

}  // namespace core
}  // namespace sync
