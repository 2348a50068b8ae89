#pragma once

#include <QStringList>
#include <memory>

#include "CheckForExit.h"
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

    // The process-wide exit checker that CreateCheckForExit hands out when no delegate is
    // installed; the host calls RequestExit() on it to stop the service.
    static std::shared_ptr<sync::core::CheckForExit> ExitChecker();

    // The base URLs of the configured servers, which CreateConnectedToNetwork checks; none
    // (the default) means nothing remote is configured, and the machine counts as connected.
    static void SetServerUrls(const QStringList& serverUrls);
    static QStringList ServerUrls();

    // Every CoreFactory forwards to this factory while it is installed; nullptr uninstalls.
    static void SetDelegate(std::shared_ptr<sync::interf::factory::ICoreFactory> delegate);
    static std::shared_ptr<sync::interf::factory::ICoreFactory> Delegate();
};

}  // namespace factory
}  // namespace sync
