#pragma once

#include <string_view>
#include <vector>

#include "smart/DiskSMARTInfo.h"

namespace vantorix::smart {

// Rows that match no priority group.
inline constexpr int kUnmatchedPriority = 1000;

// The priority of a row: the lower-cased text "path name" is searched for the keywords of the
// priority groups in order (serial number 0, model 1, firmware 2, health status 3, temperature 4,
// writes 5, reads 6, power-on 7, wear 8, errors 9, capacity 10); the first group with a keyword
// that occurs in it wins.
int rowPriority(std::string_view keyPath, std::string_view displayName);

// Orders rows by priority, then by lower-cased display name in code-point order; rows that tie
// keep their order.
void sortRows(std::vector<DiskSMARTInfo::Detail>& rows);

}  // namespace vantorix::smart
