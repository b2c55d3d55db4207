#pragma once

#include <optional>
#include <string>
#include <string_view>

// The user's folders as the XDG base-directory and user-dirs conventions place them. Read afresh
// from the environment and the files on every call; nothing is created.
namespace vantorix::xdg {

// $HOME, else the home folder of the user's password entry; nothing when neither names one.
std::optional<std::string> homeFolder();

// A user directory by its XDG name ("DOWNLOAD", "DOCUMENTS", …): XDG_<NAME>_DIR from the
// environment, else from user-dirs.dirs in the configuration folder ($XDG_CONFIG_HOME when it is
// absolute, else ~/.config), where a value is "$HOME/…" or an absolute path in double quotes.
// Nothing when it is not set, not absolute, or names the home folder itself (which is how
// user-dirs.dirs turns a directory off). Whether the folder exists is not checked.
std::optional<std::string> userDirectory(std::string_view name);

// Where downloads go: the DOWNLOAD user directory when it exists, else ~/Downloads when it exists,
// else the temporary folder.
std::string downloadsFolder();

// $XDG_DATA_HOME when it is absolute, else ~/.local/share; nothing without either.
std::optional<std::string> dataHome();

}  // namespace vantorix::xdg
