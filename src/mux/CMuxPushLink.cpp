// Uploader of one live push, run by the camera's push thread only: asks the
// video server for the push address, connects to the streaming server (CDN)
// it names, sends the PUT line, then writes the transport stream as the muxer
// produces it. Plain POSIX sockets; every send is MSG_NOSIGNAL, so a peer
// that goes away costs a reconnection, never the process.
//
// States (state_): 0 idle, 1 query, 2 connect, 3 connecting, 4 connected
// (send the request), 5 streaming, 6 close and start over.

#include "CMux.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include <glog/logging.h>

namespace {

constexpr int kQueryRetryMs = 1000;
// A push that has just failed starts over a second later: a streaming server
// that refuses every connection is not met with a query and a connection
// attempt every few milliseconds.
constexpr int kRestartPauseMs = 1000;
constexpr int kConnectLimitMs = 10000;
constexpr int kStallLimitMs = 60000;
constexpr int kQueryConnectMs = 200;
constexpr int kQueryAttempts = 3;
constexpr int kQueryIoMs = 10000;
// Streaming with nothing to encode: the wait ends early when a frame is
// posted, so this only paces the stall check; with bytes in the backlog
// the socket is tried again soon.
constexpr int kIdleWaitMs = 200;
constexpr int kBacklogRetryMs = 5;

void setNonBlocking(int fd, bool on)
{
    int flag = on ? 1 : 0;
    ioctl(fd, FIONBIO, &flag);
}

std::string dotted(uint32_t ip)
{
    const auto* b = reinterpret_cast<const unsigned char*>(&ip);
    char text[16];
    std::snprintf(text, sizeof text, "%d.%d.%d.%d", b[0], b[1], b[2], b[3]);
    return text;
}

}  // namespace

int64_t CMux::GetMs()
{
    timeval tv{};
    gettimeofday(&tv, nullptr);
    return static_cast<int64_t>(tv.tv_sec) * 1000 + tv.tv_usec / 1000;
}

void CMux::CloseSocket()
{
    if (socket_ >= 0) {
        ::close(socket_);
        socket_ = -1;
    }
}

int64_t CMux::OnTimer()
{
    const int64_t r = step();
    streaming_.store(state_ == kStreaming, std::memory_order_relaxed);
    return r;
}

int64_t CMux::step()
{
    const int64_t now = GetMs();
    if (stateTime_ == 0)
        stateTime_ = now;
    switch (state_) {
    case kIdle:
        return 10;
    case kQuery:
        if (!GetCdn())
            return kQueryRetryMs;
        state_ = kConnect;
        stateTime_ = now;
        return 0;
    case kConnect:
        LOG(INFO) << "video:Connect";
        Connect();
        LOG(INFO) << "video:Connecting";
        return 10;
    case kConnecting: {
        const int c = SocketGetConnectState(socket_, 0);
        if (c == 0)
            state_ = kConnected;
        else if (c < 0)
            state_ = kRestart;
        // Counted from Connect: ten seconds without a connection start a new
        // one, even when this very step saw it complete.
        if (stateTime_ + kConnectLimitMs < now) {
            state_ = kConnect;
            stateTime_ = now;
        }
        return 10;
    }
    case kConnected:
        state_ = kStreaming;
        setNonBlocking(socket_, false);
        OnRequest();
        setNonBlocking(socket_, true);
        if (!headerWritten_)
            WriteHeader();
        LOG(INFO) << "video:Connected";
        return 0;
    case kStreaming: {
        int64_t r = OnMux();
        const int s = OnSend(nullptr, 0);
        // A send error, on new stream bytes (written from inside OnMux) or on
        // the backlog, ends this connection.
        if (s == -1 || sendFailed_)
            state_ = kRestart;
        sendFailed_ = false;
        // Every byte counts, new stream bytes as well as the backlog: only
        // a connection that took nothing for a minute is given up.
        if (sentSinceStep_)
            lastSendTime_ = now;
        sentSinceStep_ = false;
        if (s >= 1)
            r = 0;
        if (lastSendTime_ == 0)
            lastSendTime_ = now;
        if (lastSendTime_ + kStallLimitMs < now) {
            LOG(INFO) << "video:(camera " << cameraId_ << " took no stream bytes for 60 s, reconnecting)";
            state_ = kRestart;
        }
        if (r == 1)
            return backlog() > 0 ? kBacklogRetryMs : kIdleWaitMs;
        return r;
    }
    case kRestart:
        // From states 3 and 5 the socket is open; whichever way it got here,
        // the push starts over with a new query.
        CloseSocket();
        state_ = kQuery;
        stateTime_ = 0;
        lastSendTime_ = 0;
        backlog_.clear();
        backlogHead_ = 0;
        startFresh();
        return kRestartPauseMs;
    default:
        return 0;
    }
}

int CMux::GetCdn()
{
    int fd = -1;
    for (int attempt = 0; attempt < kQueryAttempts && fd < 0 && !quitting(); ++attempt) {
        fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (fd < 0)
            continue;
        setNonBlocking(fd, true);
        int one = 1;
        setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
        sockaddr_in server{};
        server.sin_family = AF_INET;
        server.sin_addr.s_addr = serverIp_;
        server.sin_port = serverPort_;
        const int c = ::connect(fd, reinterpret_cast<sockaddr*>(&server), sizeof server);
        if ((c == 0 || errno == EINPROGRESS) && SocketGetConnectState(fd, kQueryConnectMs) == 0)
            break;
        ::close(fd);
        fd = -1;
    }
    if (fd < 0)
        return 0;

    setNonBlocking(fd, false);
    timeval io{kQueryIoMs / 1000, 0};
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &io, sizeof io);
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &io, sizeof io);
    int rcvbuf = 1048576;
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &rcvbuf, sizeof rcvbuf);

    char request[2048] = {};
    size_t used = 0;
    auto append = [&](const char* fmt, auto... args) {
        const int n = std::snprintf(request + used, sizeof request - used, fmt, args...);
        if (n > 0)
            used = std::min(sizeof request - 1, used + static_cast<size_t>(n));
    };
    append("GET /vmu/inlive/pushurl/query?device_id=%s&camera_id=%s", deviceId_, cameraId_);
    append(" HTTP/1.1");
    append("\r\nHost: %s", dotted(serverIp_).c_str());
    append("\r\nAccept: */*");
    append("\r\nConnection: close");
    append("\r\nAuthorized: true");
    append("\r\nContent-Length: %d", 0);
    append("\r\nContent-Type: application/x-www-form-urlencoded");
    append("\r\n\r\n");
    if (::send(fd, request, used, MSG_NOSIGNAL) < static_cast<ssize_t>(used)) {
        ::close(fd);
        return 0;
    }

    // Read until the server closes or the whole reply (head and
    // Content-Length body) is in; in slices, so a stopping agent does not
    // sit out the ten-second bound.
    char reply[pushaddress::kReplyBuffer] = {};
    size_t got = 0;
    const int64_t deadline = GetMs() + kQueryIoMs;
    while (got < sizeof reply - 1 && !quitting()) {
        pollfd p{fd, POLLIN, 0};
        const int64_t left = deadline - GetMs();
        if (left <= 0)
            break;
        const int ready = ::poll(&p, 1, static_cast<int>(std::min<int64_t>(left, 100)));
        if (ready < 0 && errno != EINTR)
            break;
        if (ready <= 0)
            continue;
        const ssize_t n = ::recv(fd, reply + got, sizeof reply - 1 - got, 0);
        if (n < 1)
            break;
        got += static_cast<size_t>(n);
        const long whole = pushaddress::wanted(reply, got);
        if (whole >= 0 && got >= static_cast<size_t>(whole)) {
            got = static_cast<size_t>(whole);
            reply[got] = '\0';
            break;
        }
    }
    ::close(fd);

    pushaddress::Address found;
    if (!pushaddress::findAddress(reply, got, found))
        return 0;
    char line[700] = {};
    std::snprintf(line, sizeof line, "cdnip:%s cdn_port:%d suffix:%s\r\n\r\n", found.host.c_str(), found.port,
                  found.path.c_str());
    LOG(INFO) << "video:recv" << line;
    // A host name (or no port) cannot be connected to: ask again later.
    if (!found.usable())
        return 0;
    cdn_ = found;
    return 1;
}

int CMux::Connect()
{
    CloseSocket();
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return -1;
    socket_ = fd;
    setNonBlocking(fd, true);
    const int sendBuffer = kSendBuffer;
    setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &sendBuffer, sizeof sendBuffer);
    sockaddr_in cdn{};
    cdn.sin_family = AF_INET;
    cdn.sin_addr.s_addr = cdn_.ip;
    cdn.sin_port = cdn_.netPort;
    ::connect(fd, reinterpret_cast<sockaddr*>(&cdn), sizeof cdn);
    state_ = kConnecting;
    stateTime_ = GetMs();
    return 0;
}

int CMux::SocketGetConnectState(int fd, int timeout_ms)
{
    if (fd < 0)
        return -1;
    const int ep = epoll_create(8);
    if (ep < 0)
        return -1;
    epoll_event ev{};
    ev.events = EPOLLIN | EPOLLOUT | EPOLLET;
    ev.data.fd = fd;
    epoll_ctl(ep, EPOLL_CTL_ADD, fd, &ev);
    epoll_event events[8];
    const int n = epoll_wait(ep, events, 8, timeout_ms);
    int result = 1;
    for (int i = 0; i < n; ++i) {
        if (events[i].data.fd != fd)
            continue;
        if (events[i].events & EPOLLERR) {
            result = -1;
        } else if (events[i].events & (EPOLLOUT | EPOLLIN)) {
            int error = 0;
            socklen_t len = sizeof error;
            result = (getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &len) == 0 && error == 0) ? 0 : -1;
        }
    }
    ::close(ep);
    return result;
}

int CMux::OnRequest()
{
    char request[1024] = {};
    const std::string ip = dotted(cdn_.ip);
    const int n = std::snprintf(request, sizeof request, "PUT http://%s:%d/%s\r\nHost:127.0.0.1\r\n\r\n", ip.c_str(),
                                ntohs(cdn_.netPort), cdn_.path.c_str());
    const int len = std::min(n, static_cast<int>(sizeof request) - 1);
    LOG(INFO) << "video:send" << request;
    if (socket_ >= 0)
        ::send(socket_, request, static_cast<size_t>(len), MSG_NOSIGNAL);
    return len;
}

int CMux::Send(int fd, const char* buf, int len, int* sent)
{
    *sent = 0;
    while (*sent < len) {
        const ssize_t n = ::send(fd, buf + *sent, static_cast<size_t>(len - *sent), MSG_NOSIGNAL);
        if (n > 0) {
            *sent += static_cast<int>(n);
            continue;
        }
        if (n == 0)
            return -1;
        if (errno == EAGAIN || errno == EWOULDBLOCK)
            return 0;
        if (errno == EINTR)
            continue;
        return -1;
    }
    return 0;
}

int CMux::OnSend(const char* buf, int len)
{
    int sent = 0;
    if (buf != nullptr && len > 0) {
        // New bytes go straight out only when nothing older waits; otherwise
        // they queue behind it: the stream leaves in the order it was muxed.
        if (backlog() == 0) {
            if (Send(socket_, buf, len, &sent) == -1) {
                sendFailed_ = true;
                return -1;
            }
            buf += sent;
            len -= sent;
        }
        if (len > 0) {
            if (backlog() + len > kBacklogCapacity) {
                // Dropping bytes would break the stream: start a new one.
                sendFailed_ = true;
                return -1;
            }
            if (backlogHead_ > 0) {
                backlog_.erase(backlog_.begin(), backlog_.begin() + static_cast<std::ptrdiff_t>(backlogHead_));
                backlogHead_ = 0;
            }
            backlog_.insert(backlog_.end(), buf, buf + len);
        }
    } else {
        if (backlog() == 0)
            return 0;
        if (Send(socket_, backlog_.data() + backlogHead_, backlog(), &sent) == -1)
            return -1;
        backlogHead_ += static_cast<size_t>(sent);
        if (backlogHead_ == backlog_.size()) {
            backlog_.clear();
            backlogHead_ = 0;
        }
    }
    if (sent > 0)
        sentSinceStep_ = true;
    return sent;
}

void CMux::waitForWork(int64_t ms)
{
    // Only a streaming push has a use for frames; in every other state the
    // queue fills up while the uploader waits out its pause.
    const bool onFrame = state_ == kStreaming;
    std::unique_lock<std::mutex> lock(queueMutex_);
    frameReady_.wait_for(lock, std::chrono::milliseconds(ms),
                         [this, onFrame] { return (onFrame && !queue_.empty()) || quitting(); });
}

void CMux::quit()
{
    {
        std::lock_guard<std::mutex> lock(queueMutex_);
        quit_ = true;
    }
    frameReady_.notify_all();
}
