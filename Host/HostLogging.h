#pragma once

#include <QString>

namespace sync {
namespace host {

// Logging of the command-line program: warnings and errors on the terminal (INFO with -v,
// DEBUG with -vv) and INFO and up in a rotating file under the XDG state directory. A
// log4cplus configuration at $XDG_CONFIG_HOME/foldersync/log4cplus.properties replaces all of
// it. errorsOnly keeps warnings off the terminal when no -v was given. Returns the log file's path
// (empty when the user's configuration is used).
QString ConfigureHostLogging(int verbosity, bool errorsOnly = false);

}  // namespace host
}  // namespace sync
