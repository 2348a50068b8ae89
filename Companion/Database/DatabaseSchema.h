#pragma once

#include <vector>

namespace sync {
namespace database {

// One forward step of the schema: applied to a file whose user_version is version - 1, in the
// same transaction that sets user_version to version. Steps are never edited once released;
// a change of the schema is a new step at the end.
struct MigrationStep {
    int version;
    const char* sql;
};

class DatabaseSchema {
public:
    static const std::vector<MigrationStep>& Migrations();
    static int LatestVersion();
    // Written into the file header (PRAGMA application_id) to tell our files from others.
    static constexpr int ApplicationId = 0x53594e43;  // "SYNC"
};

}  // namespace database
}  // namespace sync
