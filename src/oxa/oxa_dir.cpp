#include "oxa_dir.h"

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>
#include <sys/stat.h>
#include <unistd.h>

namespace {

const size_t kMaxPath = 512;

// The platform library's error logger: one line on standard error.
void oxa_log_error(const char* fmt, const char* arg)
{
    std::fprintf(stderr, fmt, arg);
}

}  // namespace

void oxa_path_normalize(const char* in, char* out, int outsize)
{
    if (outsize <= 0)
        return;
    std::string s(in);
    for (char& c : s)
        if (c == '\\')
            c = '/';

    const bool absolute = !s.empty() && s[0] == '/';
    const bool trailing = !s.empty() && s.back() == '/';

    // Split into components; empty ones are doubled slashes, "." is "./".
    std::vector<std::string> parts;
    size_t pos = 0;
    while (pos <= s.size()) {
        size_t next = s.find('/', pos);
        if (next == std::string::npos)
            next = s.size();
        std::string comp = s.substr(pos, next - pos);
        if (comp.empty() || comp == ".") {
            // dropped
        } else if (comp == ".." && !parts.empty() && parts.back() != "..") {
            parts.pop_back();                       // fold "x/../"
        } else if (comp == ".." && absolute) {
            // "/.." is "/"
        } else {
            parts.push_back(comp);
        }
        pos = next + 1;
    }

    std::string r = absolute ? "/" : "";
    for (size_t i = 0; i < parts.size(); ++i) {
        if (i)
            r += '/';
        r += parts[i];
    }
    if (trailing && !parts.empty())
        r += '/';
    if (r.empty())
        r = absolute ? "/" : "./";

    std::snprintf(out, static_cast<size_t>(outsize), "%s", r.c_str());
}

int oxa_dir_create(const char* root, const char* dir)
{
    if (root == nullptr)
        root = "";
    if (dir == nullptr)
        dir = "";
    if (std::strlen(root) + std::strlen(dir) + 3 > kMaxPath)
        return -1;

    char raw[kMaxPath + 1];
    if (*root && *dir)
        std::snprintf(raw, sizeof raw, "%s/%s/", root, dir);
    else if (*root)
        std::snprintf(raw, sizeof raw, "%s/", root);
    else if (*dir)
        std::snprintf(raw, sizeof raw, "%s/", dir);
    else
        return -1;

    char path[kMaxPath + 1];
    oxa_path_normalize(raw, path, sizeof path);

    // Create every prefix that ends at a slash, parents first.
    const size_t len = std::strlen(path);
    for (size_t i = 1; i < len; ++i) {
        if (path[i] != '/')
            continue;
        path[i] = '\0';
        if (access(path, F_OK) != 0 && mkdir(path, 500) != 0)
            oxa_log_error("oxa_dir_create %s failed\r\n", path);
        path[i] = '/';
    }
    return access(path, F_OK);
}
