#include "server.h"

#include <cerrno>
#include <exception>
#include <system_error>

#include <fmt/format.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace sim {

namespace {

[[noreturn]] void throwErrno(const std::string &what) {
    throw std::system_error(errno, std::generic_category(), what);
}

void setOption(int descriptor, int level, int option, int value) {
    setsockopt(descriptor, level, option, &value, sizeof(value));
}

// On the loopback address only, because the protocol has no authentication.
int openListener(uint16_t port) {
    const int descriptor = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (descriptor < 0)
        throwErrno("socket");
    setOption(descriptor, SOL_SOCKET, SO_REUSEADDR, 1);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (bind(descriptor, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) != 0 ||
        listen(descriptor, SOMAXCONN) != 0) {
        const int error = errno;
        close(descriptor);
        errno = error;
        throwErrno(fmt::format("cannot listen on 127.0.0.1:{}", port));
    }
    return descriptor;
}

} // namespace

Server::Server(EventLoop &loop, Connection::Devices &devices, uint16_t port)
    : loop_(loop), devices_(devices), listener_(openListener(port)) {
    loop_.watch(listener_, POLLIN, [this](short) { acceptClient(); });
}

Server::~Server() {
    loop_.unwatch(listener_);
    for (const auto &[descriptor, connection] : connections_)
        loop_.unwatch(descriptor);
    close(listener_);
}

uint16_t Server::port() const {
    sockaddr_in address{};
    socklen_t size = sizeof(address);
    getsockname(listener_, reinterpret_cast<sockaddr *>(&address), &size);
    return ntohs(address.sin_port);
}

void Server::acceptClient() {
    const int descriptor = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (descriptor < 0)
        return;
    setOption(descriptor, IPPROTO_TCP, TCP_NODELAY, 1);
    auto connection = std::make_unique<Connection>(descriptor, devices_);
    // Not at once: the connection may be in the middle of its work, and serve() may destroy it.
    connection->onOutput = [this, descriptor]() {
        loop_.after({}, [this, descriptor]() { serve(descriptor, false); });
    };
    connections_[descriptor] = std::move(connection);
    watchClient(descriptor);
}

void Server::watchClient(int descriptor) {
    const Connection &connection = *connections_.at(descriptor);
    const int events =
        (connection.wantsToReceive() ? POLLIN : 0) | (connection.wantsToSend() ? POLLOUT : 0);
    loop_.watch(descriptor, static_cast<short>(events),
                [this, descriptor](short ready) { serve(descriptor, (ready & ~POLLOUT) != 0); });
}

void Server::serve(int descriptor, bool readable) {
    const auto found = connections_.find(descriptor);
    if (found == connections_.end())
        return;
    bool goesOn = false;
    try {
        goesOn = found->second->work(readable);
    } catch (const std::exception &error) {
        fmt::print(stderr, "vexa-usb-sim: connection ended: {}\n", error.what());
    }
    if (goesOn)
        watchClient(descriptor);
    else
        end(descriptor);
}

void Server::end(int descriptor) {
    loop_.unwatch(descriptor);
    connections_.erase(descriptor);
}

} // namespace sim
