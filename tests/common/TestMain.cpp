#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <QCoreApplication>
#include <QString>

#include "SyncLog.h"
#include "SyncMetaTypes.h"

namespace {

QtMessageHandler g_previousHandler = nullptr;

// A signal or slot string that does not match fails silently at run time; make it loud.
void FailOnConnectWarnings(QtMsgType type, const QMessageLogContext& context, const QString& msg) {
    if (msg.contains(QLatin1String("QObject::connect")) ||
        msg.contains(QLatin1String("QObject::disconnect"))) {
        ADD_FAILURE() << "Qt reported a broken connection: " << msg.toStdString();
    }
    if (g_previousHandler) g_previousHandler(type, context, msg);
}

}  // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    g_previousHandler = qInstallMessageHandler(FailOnConnectWarnings);
    sync::core::RegisterSyncMetaTypes();
    // Quiet by default; a test that asserts on log lines attaches its own capture.
    if (qEnvironmentVariableIsSet("SYNC_TEST_LOG"))
        sync::core::ConfigureLogging(qEnvironmentVariable("SYNC_TEST_LOG"));
    else
        sync::core::SyncLogger().setLogLevel(log4cplus::OFF_LOG_LEVEL);
    ::testing::InitGoogleMock(&argc, argv);
    return RUN_ALL_TESTS();
}
