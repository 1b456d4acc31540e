// The guardrail file: per-process PSS limits for the guardrail monitor.
//
//   {"processes": [
//       {"name": "mediaserver", "soft_memory_limit": 150000, "hard_memory_limit": 300000}
//   ]}
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "common/DevicePaths.h"

namespace tavrend {

inline constexpr const char* kMemoryGuardrailConfigPath = paths::kMemoryGuardrailConfig;

// One guarded process. Limits are kB; a limit of -1 in the file is widened
// with its sign and so stands for "no limit" (2^64-1).
struct MemoryGuardrailConfig {
    std::string name;
    uint64_t soft_memory_limit = 0;
    uint64_t hard_memory_limit = 0;
};

// Appends one row per well-formed element of "processes", in file order and
// with duplicates kept. 0 on success (also for an empty array), -1 when the
// file is missing, not JSON, or has no "processes" array; rows appended before
// a failure stay in `configs`. An element that is not an object with a string
// "name" and numeric limits is skipped with an error line naming it.
int loadMemoryGuardrailConfig(std::vector<MemoryGuardrailConfig>& configs);

}  // namespace tavrend
