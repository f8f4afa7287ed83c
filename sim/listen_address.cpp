#include "listen_address.h"

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <system_error>

#include <fmt/format.h>
#include <netdb.h>
#include <netinet/in.h>

namespace sim {

namespace {

const in_addr &ipv4(const sockaddr_storage &address) {
    return reinterpret_cast<const sockaddr_in &>(address).sin_addr;
}

const in6_addr &ipv6(const sockaddr_storage &address) {
    return reinterpret_cast<const sockaddr_in6 &>(address).sin6_addr;
}

const char *adviceFor(int error) {
    switch (error) {
    case EADDRNOTAVAIL:
        return " ('ip address' lists the addresses that this machine has)";
    case EADDRINUSE:
        return " (another simulator or usbipd has it; --port takes another)";
    default:
        return "";
    }
}

} // namespace

ListenAddress::ListenAddress(const std::string &host, uint16_t port) {
    addrinfo hints{};
    hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo *found = nullptr;
    if (getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found) != 0)
        throw std::invalid_argument(fmt::format(
            "--listen: '{}' is no address; give one of this machine in numbers, which 'ip address' "
            "lists, or 0.0.0.0 or :: for all",
            host));
    size_ = found->ai_addrlen;
    std::memcpy(&address_, found->ai_addr, size_);
    freeaddrinfo(found);
}

bool ListenAddress::isLoopback() const {
    if (family() == AF_INET)
        return ntohl(ipv4(address_).s_addr) >> 24U == IN_LOOPBACKNET;
    const in6_addr &address = ipv6(address_);
    return IN6_IS_ADDR_LOOPBACK(&address) ||
           (IN6_IS_ADDR_V4MAPPED(&address) && address.s6_addr[12] == IN_LOOPBACKNET);
}

std::string ListenAddress::host() const {
    std::string name(NI_MAXHOST, '\0');
    getnameinfo(reinterpret_cast<const sockaddr *>(&address_), size_, name.data(),
                static_cast<socklen_t>(name.size()), nullptr, 0, NI_NUMERICHOST);
    name.resize(std::strlen(name.c_str()));
    return name;
}

std::string ListenAddress::text() const {
    return family() == AF_INET ? fmt::format("{}:{}", host(), port())
                               : fmt::format("[{}]:{}", host(), port());
}

std::string ListenAddress::localHost() const {
    if (family() == AF_INET)
        return ipv4(address_).s_addr == htonl(INADDR_ANY) ? "127.0.0.1" : host();
    return IN6_IS_ADDR_UNSPECIFIED(&ipv6(address_)) ? "::1" : host();
}

// Both families have it in the same place.
uint16_t ListenAddress::port() const {
    return ntohs(reinterpret_cast<const sockaddr_in &>(address_).sin_port);
}

void ListenAddress::listenWith(int socket) {
    auto *const address = reinterpret_cast<sockaddr *>(&address_);
    if (bind(socket, address, size_) != 0 || listen(socket, SOMAXCONN) != 0) {
        const int error = errno;
        throw std::system_error(error, std::generic_category(),
                                fmt::format("cannot listen on {}{}", text(), adviceFor(error)));
    }
    getsockname(socket, address, &size_);
}

} // namespace sim
