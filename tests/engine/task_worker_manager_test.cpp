// The worker manager hands out a fresh worker of the right kind for every task type and refuses
// the rest.

#include <gtest/gtest.h>

#include "FakeConfigStore.h"
#include "FakeCore.h"
#include "FakeServer.h"
#include "FileConflictMarkingWorker.h"
#include "LocalFileCreationWorker.h"
#include "LocalFileDeletionWorker.h"
#include "LocalFolderCreationWorker.h"
#include "LocalFolderDeletionWorker.h"
#include "ServerFileCreationWorker.h"
#include "ServerFileDeletionWorker.h"
#include "ServerFolderCreationWorker.h"
#include "ServerFolderDeletionWorker.h"
#include "SyncServiceException.h"
#include "TaskWorkerManager.h"

using namespace sync::syncService;

namespace {

template <typename Worker, typename Base>
bool Is(const std::shared_ptr<Base>& worker) {
    return dynamic_cast<Worker*>(worker.get()) != nullptr;
}

TEST(TaskWorkerManagerTest, EveryTypeGetsItsOwnFreshWorker) {
    auto store = std::make_shared<sync::test::FakeConfigStore>();
    auto server = std::make_shared<sync::test::FakeServer>();
    TaskWorkerManager manager(std::make_shared<sync::test::FakeCore>(), store, store, server,
                              server, server, server, server, nullptr, server);

    EXPECT_TRUE(Is<ServerFileCreationWorker>(manager.GetFileTaskWorker(ServerFileCreation)));
    EXPECT_TRUE(Is<ServerFileDeletionWorker>(manager.GetFileTaskWorker(ServerFileDeletion)));
    EXPECT_TRUE(Is<LocalFileCreationWorker>(manager.GetFileTaskWorker(LocalFileCreation)));
    EXPECT_TRUE(Is<LocalFileDeletionWorker>(manager.GetFileTaskWorker(LocalFileDeletion)));
    EXPECT_TRUE(Is<FileConflictMarkingWorker>(manager.GetFileTaskWorker(FileConflictMarking)));
    EXPECT_TRUE(Is<ServerFolderCreationWorker>(manager.GetFolderTaskWorker(ServerFolderCreation)));
    EXPECT_TRUE(Is<ServerFolderDeletionWorker>(manager.GetFolderTaskWorker(ServerFolderDeletion)));
    EXPECT_TRUE(Is<LocalFolderCreationWorker>(manager.GetFolderTaskWorker(LocalFolderCreation)));
    EXPECT_TRUE(Is<LocalFolderDeletionWorker>(manager.GetFolderTaskWorker(LocalFolderDeletion)));
    EXPECT_NE(manager.GetFileTaskWorker(LocalFileCreation),
              manager.GetFileTaskWorker(LocalFileCreation));

    // Conflict marking has no folder worker; every other mismatch is refused.
    EXPECT_EQ(manager.GetFolderTaskWorker(FileConflictMarking), nullptr);
    for (SyncTaskType folderType : {ServerFolderCreation, ServerFolderDeletion, LocalFolderCreation,
                                    LocalFolderDeletion, None})
        EXPECT_THROW(manager.GetFileTaskWorker(folderType), SyncServiceException) << folderType;
    for (SyncTaskType fileType : {ServerFileCreation, LocalFileDeletion, None})
        EXPECT_THROW(manager.GetFolderTaskWorker(fileType), SyncServiceException) << fileType;
}

}  // namespace
