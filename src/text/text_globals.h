// Process-wide state of the text subsystem. It lives until exit and is
// touched only by the serving thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

#include "text/json_sources.h"

// Every field result is copied here with "%s" and a size limit of the whole
// buffer before it is appended, so at most FIELD_RESULT_SIZE - 1 bytes of a
// result survive (and a result stops at its first NUL). The "test" field
// writes straight into it.
inline constexpr size_t FIELD_RESULT_SIZE = 2097152; // 2 MiB
extern char field_result[FIELD_RESULT_SIZE];

// The JSON data sources by name (byte-wise order); see json_sources.h.
extern std::map<std::string, json_data_source> json_sources;
// Monotonic µs of the last housekeeping pass that did its work; 0 never.
extern uint64_t json_sources_last_check;
