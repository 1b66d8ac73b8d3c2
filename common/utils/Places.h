#pragma once

#include "common/utils/StdString.h"

#include <sys/types.h>

/// The folders of this machine, without a slash at the end. Any thread, as long as nobody changes
/// the environment meanwhile. Nothing is created but by makeFolders().
///
/// An empty variable counts as unset, and a relative path in an XDG variable or in $HOME is passed
/// over. "~" is $HOME, else home().
namespace zel::places {

/// $TAMRIX_LOG_DIR, else $XDG_STATE_HOME/tamrix/logs, else ~/.local/state/tamrix/logs.
CStdStr<char> logs();
/// $TAMRIX_DATA_DIR, else $XDG_DATA_HOME/tamrix, else ~/.local/share/tamrix.
CStdStr<char> data();
/// $TAMRIX_PREFERENCES_DIR, else $XDG_CONFIG_HOME/tamrix, else ~/.config/tamrix.
CStdStr<char> preferences();
/// The current user's home from the user database; "/" for a user who has none.
CStdStr<char> home();
/// The folder of the running program; empty when the system does not tell.
CStdStr<char> executableFolder();

/// Creates `path` and its missing parents with `mode`, less the process's umask.
/// @return whether it is a folder now
bool makeFolders(const CStdStr<char>& path, mode_t mode);

} // namespace zel::places
