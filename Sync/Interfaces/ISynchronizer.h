#pragma once

#include <QObject>

#include "SyncResults.h"

namespace sync {
namespace interf {

// One synchronisation cycle over all root folders.
class ISynchronizer : public QObject {
    Q_OBJECT
public:
    ~ISynchronizer() override = default;
    virtual sync::core::SyncResults Synchronize() = 0;
};

}  // namespace interf
}  // namespace sync
