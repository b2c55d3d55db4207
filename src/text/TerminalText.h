#pragma once

#include <string>
#include <string_view>

namespace vantorix::text {

// Text from outside the program (a drive's firmware, a saved file, a server, a file or folder name)
// made safe for a terminal: bytes that are not UTF-8 become U+FFFD (as lossyUtf8 does), and no
// control character reaches the terminal raw. LF, CR, TAB and ESC show as \n, \r, \t and \e, the
// other C0 characters and DEL as \xHH, the C1 characters U+0080–U+009F as \u0080 … \u009F.
std::string terminalText(std::string_view bytes);

// The same for a message of several lines of the program's own: its line feeds stay line feeds.
std::string terminalLines(std::string_view bytes);

}  // namespace vantorix::text
