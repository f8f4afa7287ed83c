#pragma once

#include <map>
#include <memory>

#include "connection.h"
#include "event_loop.h"
#include "listen_address.h"

namespace sim {

// Listens for clients and serves their connections.
class Server {
public:
    Server(EventLoop &loop, Connection::Devices &devices, const ListenAddress &address);
    ~Server();
    Server(const Server &) = delete;
    Server &operator=(const Server &) = delete;

    const ListenAddress &address() const { return address_; }

private:
    void acceptClient();
    void watchClient(int descriptor);
    void serve(int descriptor, bool readable);
    void end(int descriptor);

    EventLoop &loop_;
    Connection::Devices &devices_;
    ListenAddress address_;
    const int listener_;
    std::map<int, std::unique_ptr<Connection>> connections_;
};

} // namespace sim
