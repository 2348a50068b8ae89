#pragma once

#include <QMutex>
#include <QStringList>
#include <memory>

#include "IFileConfigManager.h"
#include "ISyncHostApplication.h"

namespace sync {
namespace host {

// The command-line program as the engine sees it. Before a root folder's plan runs it applies
// the mass-deletion guard (a plan that would delete more than half of a root's files, and
// more than a handful, is held back unless the user allowed it) and, for a dry run, records
// the plan and cancels the root folder so that nothing is transferred.
//
// The engine calls it on the service thread; the main thread reads what it recorded through
// the accessors, which lock.
class HostApplication : public sync::interf::ISyncHostApplication {
    Q_OBJECT
public:
    // Below this many deletions the guard never holds a plan back: deleting a few files of a
    // small folder is ordinary work.
    static constexpr int HandfulOfFiles = 10;

    struct Options {
        bool dryRun = false;
        bool allowMassDelete = false;
    };

    HostApplication(Options options, std::shared_ptr<sync::interf::IFileConfigManager> files);

    QString GetRootFolderText() override;
    bool IsSyncAllowed() override;
    void SyncStarted() override;
    bool PreProcessFiles(const sync::config::FolderConfiguration& root,
                         std::shared_ptr<sync::syncService::SyncTaskDepot> depot) override;
    void PostProcessFiles(const sync::config::FolderConfiguration& root,
                          std::shared_ptr<sync::syncService::SyncTaskDepot> depot,
                          sync::core::SyncResults& results) override;
    void SyncFinished() override;

    // The planned tasks of a dry run, one line each: "download /home/u/Docs/a.txt".
    QStringList PlanLines() const;
    // One message per root folder that the guard held back.
    QStringList HeldBack() const;

    // Files of the root, known to the database, that the plan would delete (directly or with a
    // folder above them), and how many files the root has.
    static int DoomedFiles(const QVector<sync::config::FileConfiguration>& known,
                           const sync::syncService::SyncTaskDepot& depot);

private:
    Options _options;
    std::shared_ptr<sync::interf::IFileConfigManager> _files;
    mutable QMutex _mutex;
    QStringList _planLines;
    QStringList _heldBack;
};

}  // namespace host
}  // namespace sync
