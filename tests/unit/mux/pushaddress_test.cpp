#include "PushAddress.h"

#include <arpa/inet.h>

#include <string>

#include <gtest/gtest.h>

namespace {

struct AddressCase
{
    const char* name;
    std::string reply;
    bool found;
    std::string host;
    int port;
    std::string path;
    bool usable;
};

TEST(PushAddress, FindsHostPortAndPathWhereverTheServerPutsThem)
{
    const std::string longPath(600, 'p');
    const AddressCase cases[] = {
        {"JSON string", "HTTP/1.1 200 OK\r\nContent-Length: 52\r\n\r\n{\"code\":0,\"data\":\"http://10.0.0.5:8080/live/cam1\"}",
         true, "10.0.0.5", 8080, "live/cam1", true},
        {"bare address", "http://127.0.0.1:1935/live/cam2", true, "127.0.0.1", 1935, "live/cam2", true},
        {"no port means 80", "{\"data\":\"http://10.0.0.5/live\"}", true, "10.0.0.5", 80, "live", true},
        {"path ends at a brace", "{\"data\":http://10.0.0.5:81/a/b}", true, "10.0.0.5", 81, "a/b", true},
        // The first digit after the scheme starts the host, wherever it is.
        {"host name is not usable", "{\"data\":\"http://cdn.example:8080/live\"}", true, "8080", 80, "live", false},
        {"digits alone are no address", "http://3232235777:80/x", true, "3232235777", 80, "x", false},
        {"host cut at a foreign character", "http://10.0.0.5x:82/v", true, "10.0.0.5", 82, "v", true},
        {"path cut at 511", "http://10.0.0.5:83/" + longPath, true, "10.0.0.5", 83, longPath.substr(0, 511), true},
        {"no slash after the port", "http://10.0.0.5:84", true, "10.0.0.5", 84, "", true},
        {"port zero", "http://10.0.0.5:0/x", true, "10.0.0.5", 0, "x", false},
        // A colon later in the JSON is taken for the port: the server is
        // expected to give one.
        {"colon after a portless host", "{\"data\":\"http://10.0.0.5/live\",\"code\":0}", true, "10.0.0.5", 0, "", false},
        {"no scheme", "HTTP/1.1 200 OK\r\n\r\n{\"code\":1}", false, "", 0, "", false},
        {"no digit after the scheme", "http://", false, "", 0, "", false},
        {"neither colon nor slash", "http:10.0.0.5", false, "", 0, "", false},
        {"the scheme after a NUL is not read", std::string("xx\0http://10.0.0.5:1/a", 22), false, "", 0, "", false},
    };
    for (const AddressCase& c : cases) {
        SCOPED_TRACE(c.name);
        pushaddress::Address a;
        ASSERT_EQ(pushaddress::findAddress(c.reply.data(), c.reply.size(), a), c.found);
        if (!c.found)
            continue;
        EXPECT_EQ(a.host, c.host);
        EXPECT_EQ(a.port, c.port);
        EXPECT_EQ(a.path, c.path);
        EXPECT_EQ(a.usable(), c.usable);
        if (c.usable) {
            EXPECT_EQ(a.ip, inet_addr(c.host.c_str()));
            EXPECT_EQ(ntohs(a.netPort), c.port);
        }
    }
}

TEST(PushAddress, ReplyIsWholeOnceHeadAndContentLengthBytesAreIn)
{
    const std::string head = "HTTP/1.1 200 OK\r\n";
    const struct
    {
        std::string reply;
        long body;      // the body length taken; -1: the head is not complete
    } cases[] = {
        {head + "Content-Length: 10\r\n", -1},
        {head + "Content-Length: 10\r\n\r\n", 10},
        {head + "\r\nbody without length", 0},
        {head + "Content-Length:abc 7\r\n\r\n", 7},
        {head + "Content-Length: -5\r\n\r\n", 5},       // the sign is skipped with the rest
        {head + "Content-Length: 99999999999999999999\r\n\r\n", 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.reply);
        const long whole = pushaddress::wanted(c.reply.data(), c.reply.size());
        const size_t headEnd = c.reply.find("\r\n\r\n");
        EXPECT_EQ(whole, c.body < 0 ? -1 : static_cast<long>(headEnd + 4) + c.body);
    }
}

}  // namespace
