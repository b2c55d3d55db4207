#pragma once

#include <array>
#include <string>

namespace vantorix {

// The four phases of a performance test, in the order they run.
enum class BenchmarkPhase { randomWrite, randomRead, sequentialWrite, sequentialRead };

inline constexpr std::array<BenchmarkPhase, 4> kBenchmarkPhases{BenchmarkPhase::randomWrite, BenchmarkPhase::randomRead,
                                                                BenchmarkPhase::sequentialWrite,
                                                                BenchmarkPhase::sequentialRead};

// "randomWrite", "randomRead", "sequentialWrite", "sequentialRead".
std::string rawValue(BenchmarkPhase phase);
// "随机写入阶段" / "Random Write Phase" and so on.
std::string phaseName(BenchmarkPhase phase);

}  // namespace vantorix
