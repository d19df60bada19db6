#include "MemoryInfo.h"

#include <climits>
#include <cmath>
#include <string>

#include "oxa_json.h"

namespace memoryinfo {
namespace {

bool intItem(const cJSON* element, const char* key, int& out)
{
    const cJSON* item = cJSON_GetObjectItem(element, key);
    if (!cJSON_IsNumber(item))
        return false;
    const double v = item->valuedouble;
    if (!std::isfinite(v) || v != std::floor(v) || v < INT_MIN || v > INT_MAX)
        return false;
    out = static_cast<int>(v);
    return true;
}

}  // namespace

bool project(int prefix, int cameraid, int& out)
{
    if (cameraid < 0)
        return false;
    const std::string text = std::to_string(prefix) + std::to_string(cameraid);
    if (text.size() > 10)
        return false;
    const long long value = std::stoll(text);
    if (value > INT_MAX)
        return false;
    out = static_cast<int>(value);
    return true;
}

bool frameFits(const CameraAnnounce& camera, unsigned long long segmentBytes)
{
    if (camera.width <= 0 || camera.height <= 0 || camera.width > kMaxSide || camera.height > kMaxSide)
        return false;
    // An I420 picture: the luma plane and two chroma planes of half the
    // width and height, rounded up.
    const unsigned long long w = static_cast<unsigned long long>(camera.width);
    const unsigned long long h = static_cast<unsigned long long>(camera.height);
    return w * h + 2 * ((w + 1) / 2) * ((h + 1) / 2) <= segmentBytes;
}

bool parseAnnouncement(const QByteArray& body, QList<CameraAnnounce>& cameras)
{
    cameras.clear();
    cJSON* root = oxa_json_parse(body.constData());
    if (root == nullptr)
        return false;
    const cJSON* list = cJSON_GetObjectItem(root, "memoryinfo");
    if (!cJSON_IsArray(list)) {
        cJSON_Delete(root);
        return false;
    }
    const cJSON* element = nullptr;
    cJSON_ArrayForEach(element, list) {
        CameraAnnounce c;
        const bool complete = cJSON_IsObject(element) && intItem(element, "shmid", c.shmid)
            && intItem(element, "semid", c.semid) && intItem(element, "cameraid", c.cameraid)
            && intItem(element, "size", c.size) && intItem(element, "width", c.width)
            && intItem(element, "height", c.height) && intItem(element, "fps", c.fps);
        c.usable = complete && c.size > 0 && c.width > 0 && c.height > 0 && project(100, c.cameraid, c.shmProject)
            && project(200, c.cameraid, c.semProject);
        cameras.append(c);
    }
    cJSON_Delete(root);
    return true;
}

}  // namespace memoryinfo
