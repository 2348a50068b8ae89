#pragma once

#include <QString>
#include <QStringList>
#include <memory>

#include "ICoreFactory.h"

namespace sync {
namespace test {

// The core services for tests: an exit checker and a network state the test controls, an
// action log that keeps its entries as text lines, and this machine's real file wrappers,
// walker and hash. The recycler is the real file wrapper too, except that a test can give it a
// trash folder of its own: the real trash lies outside the test's temporary folders.
//
// The engine also builds core services on the spot (sync::factory::CoreFactory) and writes the
// action log through CoreFactory::ActionLog(); an InstalledCore routes both here while it lives.
class FakeCore : public sync::interf::factory::ICoreFactory {
public:
    FakeCore();
    ~FakeCore() override;

    // Counting from this call, polls 1 to n of ShouldExit answer false and every later one
    // true; n < 0 never stops.
    void StopAfterPolls(int n);
    // Every later poll answers true, and ShouldExitThread too; emits PrepareToQuit once.
    void RequestStop();
    int Polls() const;

    void SetConnected(bool connected);

    // One line per entry, in order: "type name localPath", "type name kind:arg,arg localPath",
    // "type name http code url localPath", or for an entry without folder "type kind:arg,arg".
    QStringList ActionLogLines() const;
    void ClearActionLog();
    std::shared_ptr<sync::interf::IActionLog> ActionLogService() const;

    // Empty (the default): files go to the user's trash like the real recycler's.
    void SetTrashFolder(const QString& folder);

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

private:
    class ExitChecker;
    class Network;
    class TextActionLog;
    class Recycler;

    std::shared_ptr<ExitChecker> _exit;
    std::shared_ptr<Network> _network;
    std::shared_ptr<TextActionLog> _actionLog;
    QString _trashFolder;
};

// Makes every sync::factory::CoreFactory forward to the fake core, and its action log the
// process-wide one, for as long as it lives.
class InstalledCore {
public:
    explicit InstalledCore(std::shared_ptr<FakeCore> core);
    ~InstalledCore();
    InstalledCore(const InstalledCore&) = delete;
    InstalledCore& operator=(const InstalledCore&) = delete;
};

}  // namespace test
}  // namespace sync
