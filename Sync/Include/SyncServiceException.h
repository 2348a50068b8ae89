#pragma once

#include "SyncException.h"

namespace sync {
namespace syncService {

// A broken invariant of the engine itself.
class SyncServiceException : public sync::core::SyncException {
public:
    SyncServiceException() = default;
    explicit SyncServiceException(const QString& message)
        : sync::core::SyncException(message), serviceMessage(message) {}

    QString serviceMessage;
};

}  // namespace syncService
}  // namespace sync
