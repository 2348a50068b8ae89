#pragma once

#include <QObject>
#include <memory>

#include "EntryInfoTree.h"

namespace sync {
namespace interf {

// Repairs records and temporary files left behind by an interrupted run, before planning.
class ISynchronizationPreProcessor : public QObject {
    Q_OBJECT
public:
    ~ISynchronizationPreProcessor() override = default;
    virtual void PreProcess(std::shared_ptr<sync::syncService::EntryInfoTree> localTree,
                            std::shared_ptr<sync::syncService::EntryInfoTree> configTree,
                            std::shared_ptr<sync::syncService::EntryInfoTree> serverTree) = 0;
};

}  // namespace interf
}  // namespace sync
