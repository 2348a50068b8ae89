#pragma once

#include <QProcess>
#include <QString>

namespace sync {
namespace test {

// A finished program's exit code, or -1 when a signal ended it; the signal is then added to
// its error output, since a crash leaves nothing else there to go on.
inline int ProgramStatus(const QProcess& process, QString& err) {
    if (process.exitStatus() == QProcess::NormalExit) return process.exitCode();
    err += QStringLiteral("\n(ended by signal %1)").arg(process.exitCode());
    return -1;
}

}  // namespace test
}  // namespace sync
