#include "CoreFactory.h"

#include <mutex>
#include <stdexcept>

namespace sync {
namespace factory {

namespace {
std::mutex g_mutex;
std::shared_ptr<sync::interf::factory::ICoreFactory> g_delegate;
std::shared_ptr<sync::interf::IActionLog> g_actionLog;

[[noreturn]] void NotAvailable(const char* what) {
    throw std::logic_error(std::string("Core service not available yet: ") + what);
}
}  // namespace

void CoreFactory::SetDelegate(std::shared_ptr<sync::interf::factory::ICoreFactory> delegate) {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_delegate = std::move(delegate);
}

std::shared_ptr<sync::interf::factory::ICoreFactory> CoreFactory::Delegate() {
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_delegate;
}

void CoreFactory::SetActionLog(std::shared_ptr<sync::interf::IActionLog> actionLog) {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_actionLog = std::move(actionLog);
}

std::shared_ptr<sync::interf::IActionLog> CoreFactory::ActionLog() {
    {
        std::lock_guard<std::mutex> lock(g_mutex);
        if (g_actionLog) return g_actionLog;
    }
    auto log = CoreFactory().CreateActionLog();
    std::lock_guard<std::mutex> lock(g_mutex);
    if (!g_actionLog) g_actionLog = log;
    return g_actionLog;
}

std::shared_ptr<sync::interf::IQFileWrapper> CoreFactory::CreateRecycler() {
    if (auto d = Delegate()) return d->CreateRecycler();
    NotAvailable("recycler");
}

std::shared_ptr<sync::interf::IQDirWrapper> CoreFactory::CreateQDirWrapper(
    std::shared_ptr<QDir> dir) {
    if (auto d = Delegate()) return d->CreateQDirWrapper(std::move(dir));
    NotAvailable("directory wrapper");
}

std::shared_ptr<sync::interf::IQFileWrapper> CoreFactory::CreateFileWrapper() {
    if (auto d = Delegate()) return d->CreateFileWrapper();
    NotAvailable("file wrapper");
}

std::shared_ptr<sync::interf::ICryptographicHash> CoreFactory::CreateCryptographicHash() {
    if (auto d = Delegate()) return d->CreateCryptographicHash();
    NotAvailable("hash");
}

std::shared_ptr<sync::interf::IConnectedToNetwork> CoreFactory::CreateConnectedToNetwork() {
    if (auto d = Delegate()) return d->CreateConnectedToNetwork();
    NotAvailable("network state");
}

std::shared_ptr<sync::interf::ICheckForExit> CoreFactory::CreateCheckForExit() {
    if (auto d = Delegate()) return d->CreateCheckForExit();
    NotAvailable("exit checker");
}

std::shared_ptr<sync::interf::IQDirIteratorWrapper> CoreFactory::CreateQDirIterator(
    const QString& path, QDir::Filters filters, QDirIterator::IteratorFlags flags) {
    if (auto d = Delegate()) return d->CreateQDirIterator(path, filters, flags);
    NotAvailable("directory walker");
}

std::shared_ptr<sync::interf::IActionLog> CoreFactory::CreateActionLog() {
    if (auto d = Delegate()) return d->CreateActionLog();
    NotAvailable("action log");
}

}  // namespace factory
}  // namespace sync
