#include "stream_socket.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include <sys/socket.h>
#include <unistd.h>

namespace sim {

namespace {

constexpr size_t kReceiveRoom = 256U << 10;
constexpr size_t kMostQueued = 8U << 20;
constexpr size_t kMostAtOnce = 4U << 20; // others want to be served, too

bool isTemporary(int error) {
    return error == EAGAIN || error == EWOULDBLOCK || error == EINTR;
}

} // namespace

StreamSocket::~StreamSocket() {
    close(socket);
}

// All that is there, so that the end of a connection is seen before what others send afterwards.
bool StreamSocket::receive() {
    input.erase(input.begin(), input.begin() + static_cast<std::ptrdiff_t>(consumed));
    consumed = 0;
    ssize_t count = 0;
    do {
        const size_t before = input.size();
        input.resize(before + kReceiveRoom);
        count = recv(socket, &input[before], kReceiveRoom, MSG_DONTWAIT);
        const int error = errno;
        input.resize(before + static_cast<size_t>(std::max<ssize_t>(count, 0)));
        if (count < 0)
            return isTemporary(error);
    } while (count > 0 && input.size() < kMostAtOnce);
    return count > 0;
}

bool StreamSocket::isFull() const {
    return queued > kMostQueued;
}

void StreamSocket::send(OutputPiece piece) {
    queued += piece.all().size();
    output.push_back(std::move(piece));
}

void StreamSocket::send(const Bytes &bytes) {
    OutputPiece piece(bytes.size());
    std::copy(bytes.begin(), bytes.end(), piece.all().begin());
    send(std::move(piece));
}

bool StreamSocket::flush() {
    while (!output.empty()) {
        const auto rest = output.front().all().subspan(sentOfFront);
        const ssize_t count = ::send(socket, rest.data(), rest.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        if (count < 0)
            return isTemporary(errno);
        sentOfFront += static_cast<size_t>(count);
        if (sentOfFront == output.front().all().size()) {
            queued -= sentOfFront;
            output.pop_front();
            sentOfFront = 0;
        }
    }
    return true;
}

} // namespace sim
