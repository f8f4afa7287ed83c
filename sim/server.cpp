#include "server.h"

#include <cerrno>
#include <exception>
#include <string>
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

int openListener(ListenAddress &address) {
    const int descriptor = socket(address.family(), SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (descriptor < 0)
        throwErrno("socket");
    setOption(descriptor, SOL_SOCKET, SO_REUSEADDR, 1);
    try {
        address.listenWith(descriptor);
    } catch (...) {
        close(descriptor);
        throw;
    }
    return descriptor;
}

// A client whose machine or network has died says nothing any more: its connection is to end, so
// that the device can be attached again.
void endWhenSilent(int descriptor) {
    setOption(descriptor, SOL_SOCKET, SO_KEEPALIVE, 1);
    setOption(descriptor, IPPROTO_TCP, TCP_KEEPIDLE, 10);        // seconds
    setOption(descriptor, IPPROTO_TCP, TCP_KEEPINTVL, 5);        // seconds
    setOption(descriptor, IPPROTO_TCP, TCP_KEEPCNT, 4);          // probes
    setOption(descriptor, IPPROTO_TCP, TCP_USER_TIMEOUT, 30000); // milliseconds, for data sent
}

} // namespace

Server::Server(EventLoop &loop, Connection::Devices &devices, const ListenAddress &address)
    : loop_(loop), devices_(devices), address_(address), listener_(openListener(address_)) {
    loop_.watch(listener_, POLLIN, [this](short) { acceptClient(); });
}

Server::~Server() {
    loop_.unwatch(listener_);
    for (const auto &[descriptor, connection] : connections_)
        loop_.unwatch(descriptor);
    close(listener_);
}

void Server::acceptClient() {
    const int descriptor = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (descriptor < 0)
        return;
    setOption(descriptor, IPPROTO_TCP, TCP_NODELAY, 1);
    endWhenSilent(descriptor);
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
