#include "stream_socket.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include <sys/socket.h>
#include <unistd.h>

namespace sim {

namespace {

constexpr size_t kReceiveRoom = 256U << 10;
constexpr size_t kMaxQueued = 8U << 20;
constexpr size_t kMaxAtOnce = 4U << 20; // then the other connections are served

bool isTemporary(int error) {
    return error == EAGAIN || error == EWOULDBLOCK || error == EINTR;
}

} // namespace

StreamSocket::~StreamSocket() {
    close(descriptor_);
}

// Receives all there is.  So the end of a connection is noticed before what other clients send
// after it.
bool StreamSocket::receive() {
    input_.erase(input_.begin(), input_.begin() + static_cast<std::ptrdiff_t>(consumed_));
    consumed_ = 0;
    ssize_t count = 0;
    do {
        const size_t before = input_.size();
        input_.resize(before + kReceiveRoom);
        count = recv(descriptor_, &input_[before], kReceiveRoom, MSG_DONTWAIT);
        const int error = errno;
        input_.resize(before + static_cast<size_t>(std::max<ssize_t>(count, 0)));
        if (count < 0)
            return isTemporary(error);
    } while (count > 0 && input_.size() < kMaxAtOnce);
    return count > 0;
}

bool StreamSocket::isFull() const {
    return queued_ > kMaxQueued;
}

void StreamSocket::send(OutputPiece piece) {
    queued_ += piece.all().size();
    output_.push_back(std::move(piece));
}

void StreamSocket::send(const Bytes &bytes) {
    OutputPiece piece(bytes.size());
    std::copy(bytes.begin(), bytes.end(), piece.all().begin());
    send(std::move(piece));
}

bool StreamSocket::flush() {
    while (!output_.empty()) {
        const auto rest = output_.front().all().subspan(sentOfFront_);
        const ssize_t count =
            ::send(descriptor_, rest.data(), rest.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        if (count < 0)
            return isTemporary(errno);
        sentOfFront_ += static_cast<size_t>(count);
        if (sentOfFront_ == output_.front().all().size()) {
            queued_ -= sentOfFront_;
            output_.pop_front();
            sentOfFront_ = 0;
        }
    }
    return true;
}

void StreamSocket::endOutput() {
    shutdown(descriptor_, SHUT_WR);
}

} // namespace sim
