#pragma once

#include <ostream>
#include <string>
#include <utility>
#include <vector>

namespace vantorix::cli {

// Columns a text takes on a terminal: two for East Asian wide and full-width characters, one otherwise.
std::size_t displayWidth(const std::string& cell);

// Prints label/value rows with the values lined up in one column, each cell as text::terminalText
// shows it.
void printTable(std::ostream& out, const std::vector<std::pair<std::string, std::string>>& rows);

}  // namespace vantorix::cli
