#include "PushAddress.h"

#include <arpa/inet.h>

#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <string_view>

namespace pushaddress {
namespace {

// The reply as the C string it is read into: up to its first NUL.
std::string_view asText(const char* data, size_t len)
{
    const void* nul = std::memchr(data, '\0', len);
    return std::string_view(data, nul != nullptr ? static_cast<const char*>(nul) - data : len);
}

size_t firstDigit(std::string_view s, size_t from)
{
    for (size_t i = from; i < s.size(); ++i)
        if (std::isdigit(static_cast<unsigned char>(s[i])))
            return i;
    return std::string_view::npos;
}

// strtol on the digits at `s[from]`, bounded by the view (the reply is not
// terminated); saturates like strtol does.
long decimalAt(std::string_view s, size_t from)
{
    std::string digits;
    size_t i = from;
    while (i < s.size() && std::isspace(static_cast<unsigned char>(s[i])))
        ++i;
    if (i < s.size() && (s[i] == '+' || s[i] == '-'))
        digits += s[i++];
    while (i < s.size() && std::isdigit(static_cast<unsigned char>(s[i])) && digits.size() < 32)
        digits += s[i++];
    errno = 0;
    return std::strtol(digits.c_str(), nullptr, 10);
}

}  // namespace

bool Address::usable() const
{
    // inet_addr also takes "8080" or "1.2" as an address; only a full dotted
    // quad names a streaming server.
    in_addr strict{};
    return inet_pton(AF_INET, host.c_str(), &strict) == 1 && port > 0 && port <= 65535;
}

long wanted(const char* data, size_t len)
{
    const std::string_view s = asText(data, len);
    const size_t headEnd = s.find("\r\n\r\n");
    if (headEnd == std::string_view::npos)
        return -1;
    long body = 0;
    const size_t key = s.find("Content-Length");
    if (key != std::string_view::npos) {
        const size_t digit = firstDigit(s, key);
        if (digit != std::string_view::npos)
            body = decimalAt(s, digit);
    }
    if (body < 0 || body > LONG_MAX / 2)
        body = 0;
    return static_cast<long>(headEnd) + 4 + body;
}

bool findAddress(const char* data, size_t len, Address& out)
{
    const std::string_view s = asText(data, len);
    const size_t scheme = s.find("http:");
    if (scheme == std::string_view::npos)
        return false;
    const size_t start = firstDigit(s, scheme);
    if (start == std::string_view::npos)
        return false;
    size_t hostEnd = s.find(':', start);
    size_t slash;
    if (hostEnd != std::string_view::npos) {
        const long port = decimalAt(s, hostEnd + 1);
        out.port = port > INT_MAX ? INT_MAX : port < INT_MIN ? INT_MIN : static_cast<int>(port);
        slash = s.find('/', hostEnd);
    } else {
        out.port = 80;
        hostEnd = slash = s.find('/', start);
        if (slash == std::string_view::npos)
            return false;
    }

    std::string_view host = s.substr(start, std::min(hostEnd - start, kMaxHost));
    size_t keep = 0;
    while (keep < host.size() && (std::isdigit(static_cast<unsigned char>(host[keep])) || host[keep] == '.'))
        ++keep;
    out.host.assign(host.substr(0, keep));
    out.ip = inet_addr(out.host.c_str());
    out.netPort = htons(static_cast<uint16_t>(out.port & 0xffff));

    out.path.clear();
    if (slash != std::string_view::npos) {
        std::string_view path = s.substr(slash + 1, kMaxPath);
        path = path.substr(0, std::min(path.find('"'), path.find('}')));
        out.path.assign(path);
    }
    return true;
}

}  // namespace pushaddress
