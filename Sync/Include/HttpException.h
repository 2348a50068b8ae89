#pragma once

#include <QUrl>

#include "SyncException.h"

namespace sync {
namespace http {

// A failed server request; code is the HTTP status or the service's own error code.
class HttpException : public sync::core::SyncException {
public:
    HttpException(int code, const QString& message)
        : sync::core::SyncException(message), code(code) {}
    HttpException(int code, const QString& message, const QUrl& url)
        : sync::core::SyncException(message), code(code), url(url) {}

    int code = 0;
    QUrl url;
};

}  // namespace http
}  // namespace sync
