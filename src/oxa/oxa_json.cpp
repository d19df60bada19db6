#include "oxa_json.h"

#include <mutex>

cJSON* oxa_json_parse(const char* text)
{
    static std::mutex parseMutex;
    std::lock_guard<std::mutex> g(parseMutex);
    return cJSON_Parse(text);
}
