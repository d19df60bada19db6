#pragma once

#include <cJSON.h>

// cJSON_Parse records its error position in a process-wide variable, so two
// threads parsing at once race on it. Every parse in the agent goes through
// here, one at a time. The caller owns the tree (cJSON_Delete).
cJSON* oxa_json_parse(const char* text);
