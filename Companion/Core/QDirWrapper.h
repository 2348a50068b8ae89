#pragma once

#include <QDir>
#include <memory>

#include "IQDirWrapper.h"

namespace sync {
namespace core {

class QDirWrapper : public sync::interf::IQDirWrapper {
public:
    // dir may be null: the wrapper then starts at the current directory.
    explicit QDirWrapper(std::shared_ptr<QDir> dir = nullptr);
    ~QDirWrapper() override = default;

    void SetPath(const QString& path) override;
    QString Path() override;
    bool MakePath(const QString& path) override;
    bool DirectoryExists() override;
    bool RemoveDirectory(const QString& path) override;
    bool Exists() override;
    QStringList FileNames(const QStringList& nameFilters) override;

private:
    std::shared_ptr<QDir> _dir;
};

}  // namespace core
}  // namespace sync
