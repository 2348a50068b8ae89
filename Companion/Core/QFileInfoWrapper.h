#pragma once

#include <QFileInfo>

#include "IQFileInfoWrapper.h"

namespace sync {
namespace core {

// One local entry, read once: the answers come from the QFileInfo's cached stat, so a walker
// hands out its entries without touching the disk again.
class QFileInfoWrapper : public sync::interf::IQFileInfoWrapper {
public:
    explicit QFileInfoWrapper(const QFileInfo& info);
    explicit QFileInfoWrapper(const QString& path);
    ~QFileInfoWrapper() override = default;

    QString AbsoluteFilePath() override;
    QString FileName() override;
    qint64 Size() override;
    QDateTime LastModified() override;
    bool IsFile() override;
    bool IsDir() override;
    bool IsSymLink() override;
    bool IsHidden() override;
    bool Exists() override;

private:
    QFileInfo _info;
};

}  // namespace core
}  // namespace sync
