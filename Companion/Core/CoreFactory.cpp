#include "CoreFactory.h"

#include <mutex>

#include "ConnectedToNetwork.h"
#include "CryptographicHash.h"
#include "LoggingActionLog.h"
#include "QDirIteratorWrapper.h"
#include "QDirWrapper.h"
#include "QFileWrapper.h"

namespace sync {
namespace factory {

namespace {
std::mutex g_mutex;
std::shared_ptr<sync::interf::factory::ICoreFactory> g_delegate;
std::shared_ptr<sync::interf::IActionLog> g_actionLog;
QStringList g_serverUrls;

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
    return std::make_shared<sync::core::QFileWrapper>();
}

std::shared_ptr<sync::interf::IQDirWrapper> CoreFactory::CreateQDirWrapper(
    std::shared_ptr<QDir> dir) {
    if (auto d = Delegate()) return d->CreateQDirWrapper(std::move(dir));
    return std::make_shared<sync::core::QDirWrapper>(std::move(dir));
}

std::shared_ptr<sync::interf::IQFileWrapper> CoreFactory::CreateFileWrapper() {
    if (auto d = Delegate()) return d->CreateFileWrapper();
    return std::make_shared<sync::core::QFileWrapper>();
}

std::shared_ptr<sync::interf::ICryptographicHash> CoreFactory::CreateCryptographicHash() {
    if (auto d = Delegate()) return d->CreateCryptographicHash();
    return std::make_shared<sync::core::CryptographicHash>();
}

std::shared_ptr<sync::interf::IConnectedToNetwork> CoreFactory::CreateConnectedToNetwork() {
    if (auto d = Delegate()) return d->CreateConnectedToNetwork();
    return std::make_shared<sync::core::ConnectedToNetwork>(ServerUrls());
}

std::shared_ptr<sync::interf::ICheckForExit> CoreFactory::CreateCheckForExit() {
    if (auto d = Delegate()) return d->CreateCheckForExit();
    return ExitChecker();
}

std::shared_ptr<sync::interf::IQDirIteratorWrapper> CoreFactory::CreateQDirIterator(
    const QString& path, QDir::Filters filters, QDirIterator::IteratorFlags flags) {
    if (auto d = Delegate()) return d->CreateQDirIterator(path, filters, flags);
    return std::make_shared<sync::core::QDirIteratorWrapper>(path, filters, flags);
}

std::shared_ptr<sync::interf::IActionLog> CoreFactory::CreateActionLog() {
    if (auto d = Delegate()) return d->CreateActionLog();
    static const auto log = std::make_shared<sync::core::LoggingActionLog>();
    return log;
}

std::shared_ptr<sync::core::CheckForExit> CoreFactory::ExitChecker() {
    static const auto checker = std::make_shared<sync::core::CheckForExit>();
    return checker;
}

void CoreFactory::SetServerUrls(const QStringList& serverUrls) {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_serverUrls = serverUrls;
}

QStringList CoreFactory::ServerUrls() {
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_serverUrls;
}

}  // namespace factory
}  // namespace sync
