#pragma once

#include <QFileInfo>

#include "IQFileInfoWrapper.h"

namespace sync {
namespace core {

// One local entry named by a path (the file wrapper's GetFileInfo; the walker has its own):
// the type from QFileInfo, size and time from one stat of our own, taken on first use. A path
// held in a QString always has a name that is UTF-8, so UndecodableName() stays empty.
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
    bool _Stat();

    QFileInfo _info;
    bool _statDone = false;
    bool _statOk = false;
    qint64 _size = 0;
    qint64 _modifiedMs = 0;
};

}  // namespace core
}  // namespace sync
