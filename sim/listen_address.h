#pragma once

#include <cstdint>
#include <string>

#include <sys/socket.h>

namespace sim {

// Where the simulator listens: an address of this machine, IPv4 or IPv6, and a TCP port.
class ListenAddress {
public:
    // Throws std::invalid_argument unless `host` is an address in numbers.
    ListenAddress(const std::string &host, uint16_t port);

    // Only programs of this machine reach it.
    bool isLoopback() const;
    // As addresses are written: HOST:PORT, or [HOST]:PORT.
    std::string text() const;
    // How this machine's own client reaches it, also if it is all addresses.
    std::string localHost() const;
    uint16_t port() const;

    int family() const { return address_.ss_family; }
    // Listens there with that socket, and takes over the port that the system has chosen if it is
    // 0; throws std::system_error.
    void listenWith(int socket);

private:
    std::string host() const;

    sockaddr_storage address_{};
    socklen_t size_ = 0;
};

} // namespace sim
