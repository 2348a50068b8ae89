#pragma once

#include <QWeakPointer>
#include <memory>

#include "ISyncConfiguration.h"
#include "ISyncSignalsAndSlots.h"
#include "ISynchronizer.h"

namespace sync {
namespace interf {
namespace factory {

// Wires a fresh synchronizer, with its runner, retrievers, differs, engine and workers.
class ISynchronizationServiceFactory {
public:
    virtual ~ISynchronizationServiceFactory() = default;
    virtual std::shared_ptr<ISynchronizer> CreateSynchronizer(
        QWeakPointer<ISyncSignalsAndSlots> signalsAndSlots,
        std::shared_ptr<ISyncConfiguration> configuration) = 0;
};

}  // namespace factory
}  // namespace interf
}  // namespace sync
