#pragma once

#include <QString>

namespace sync {
namespace core {
namespace consts {

const QString TEMP_FOLDER_NAME = QStringLiteral(".{SyncTemp}");
const QString BASE_FOLDER_NAME = QStringLiteral(".{SyncBackup}");
const QString BASE_FILE_EXTN = QStringLiteral("BASE");
const QString TEMP_FILE_EXTN = QStringLiteral("TMP");
const QString DELTA_FILE_EXTN = QStringLiteral("DELTA");
constexpr int HTTP_TOO_MANY_REQUESTS = 429;

// Path-length limits; the values come from the platform (see the core companion).
extern const int LOCAL_FILE_MAX_PATH;
extern const int LOCAL_FOLDER_MAX_PATH;

}  // namespace consts
}  // namespace core
}  // namespace sync
