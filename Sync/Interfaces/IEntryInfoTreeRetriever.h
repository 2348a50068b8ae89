#pragma once

#include <QObject>
#include <QString>
#include <memory>

#include "EntryInfoTree.h"
#include "FolderConfiguration.h"

namespace sync {
namespace interf {

// Builds one source's tree of a root folder.
class IEntryInfoTreeRetriever : public QObject {
    Q_OBJECT
public:
    ~IEntryInfoTreeRetriever() override = default;
    // The source's tree of the root folder. The local side throws sync::core::SyncException
    // when the root directory is missing; the server side throws sync::http::HttpException
    // when the server cannot list it. A null tree also ends planning quietly.
    virtual std::shared_ptr<sync::syncService::EntryInfoTree> GetEntryInfoTree(
        sync::config::FolderConfiguration& root) = 0;
    // False when the last retrieval learnt that the tree has not changed since the request
    // before (the server answered "not modified"); sources that cannot tell answer true.
    virtual bool IsTreeModified() const { return true; }

Q_SIGNALS:
    void SubFolderNameNotAllowed(QString path);
    void FolderFilteredOut(QString path);
    void FileFilteredOut(QString path);
};

}  // namespace interf
}  // namespace sync
