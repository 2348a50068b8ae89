#pragma once

#include <memory>

#include "ICoreFactory.h"

namespace sync {
namespace factory {

// The core services of this machine. The engine builds one on the spot where it needs a
// service; a test or the host can install a delegate factory, to which every instance then
// forwards, and the process-wide action log.
class CoreFactory : public sync::interf::factory::ICoreFactory {
public:
    CoreFactory() = default;
    ~CoreFactory() override = default;

    std::shared_ptr<sync::interf::IQFileWrapper> CreateRecycler() override;
    std::shared_ptr<sync::interf::IQDirWrapper> CreateQDirWrapper(
        std::shared_ptr<QDir> dir) override;
    std::shared_ptr<sync::interf::IQFileWrapper> CreateFileWrapper() override;
    std::shared_ptr<sync::interf::ICryptographicHash> CreateCryptographicHash() override;
    std::shared_ptr<sync::interf::IConnectedToNetwork> CreateConnectedToNetwork() override;
    std::shared_ptr<sync::interf::ICheckForExit> CreateCheckForExit() override;
    std::shared_ptr<sync::interf::IQDirIteratorWrapper> CreateQDirIterator(
        const QString& path, QDir::Filters filters, QDirIterator::IteratorFlags flags) override;
    std::shared_ptr<sync::interf::IActionLog> CreateActionLog() override;

    // The process-wide action log: the installed one, else the delegate's, else one that
    // writes entries to the "sync" logger only.
    static std::shared_ptr<sync::interf::IActionLog> ActionLog();
    static void SetActionLog(std::shared_ptr<sync::interf::IActionLog> actionLog);

    // Every CoreFactory forwards to this factory while it is installed; nullptr uninstalls.
    static void SetDelegate(std::shared_ptr<sync::interf::factory::ICoreFactory> delegate);
    static std::shared_ptr<sync::interf::factory::ICoreFactory> Delegate();
};

}  // namespace factory
}  // namespace sync
