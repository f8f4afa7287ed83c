#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <string>

#include "device_model.h"
#include "exported_device.h"
#include "stream_socket.h"
#include "usbip_protocol.h"

namespace sim {

/*
 * The connection of one client.  The client asks for the list of devices, or imports one of them;
 * after an import the connection carries that device's transfers.  Transfers on one endpoint are
 * answered in the order of their submission.
 *
 * Input that breaks the protocol throws std::runtime_error with the reason, which ends this
 * connection alone.
 */
class Connection final : public ExportedDevice::Importer {
public:
    using Devices = std::deque<ExportedDevice>;

    Connection(int descriptor, Devices &devices);
    ~Connection() override;

    int descriptor() const { return socket_.descriptor(); }
    bool wantsToSend() const { return !socket_.drained(); }
    bool wantsToReceive() const { return !socket_.isFull(); }

    // Receives, answers and sends as much as is possible without waiting; false when the connection
    // has ended.
    bool work(bool readable);

    // Called when there may be something to send outside of work().
    std::function<void()> onOutput;

    void offerPending() override;
    void deviceLeft() override;
    void disconnect() override;

private:
    // A transfer that the client has submitted and that has not been answered yet.
    struct Transfer {
        uint32_t sequence;
        uint32_t length;
        bool in;
        Setup setup;
        Bytes data;
    };
    // By endpoint address; the control endpoint is 0 in both directions.
    using Pending = std::map<uint8_t, std::deque<Transfer>>;

    // Only once everything is sent.
    void endSending();
    // Leaves the device to other clients.
    void release();
    bool handleInput();
    // Handle one message; false when it is not complete yet.
    bool handleOperation();
    bool handleCommand();
    void replyDeviceList();
    void importDevice(const std::string &busId);
    bool handleSubmit(const usbip::CommandHeader &header);
    void handleUnlink(const usbip::CommandHeader &header);
    void replyToUnlink(uint32_t sequence, int32_t status);
    // Takes the transfer back from the device; false if it has no such.
    bool withdraw(uint32_t sequence);
    // Lets the device answer the pending transfers that it can answer now.
    void offer(uint8_t endpoint);
    void offerAll();
    void subtractPending(const Transfer &transfer);
    // False when the device lets the transfer wait.
    bool answer(uint8_t endpoint, Transfer &transfer);
    static Answer ask(DeviceModel &model, uint8_t endpoint, Transfer &transfer,
                      std::span<uint8_t> room);

    StreamSocket socket_;
    Devices &devices_;
    ExportedDevice *device_ = nullptr; // once imported
    Pending pending_;
    size_t pendingBytes_ = 0;                    // the memory of the transfers in `pending_`
    std::optional<uint32_t> lastSubmitted_;      // sequence number
    std::map<uint32_t, uint32_t> unlinkedEarly_; // transfers still to come, and what unlinks each
    // In the order in which they follow one another.  When the device has gone only unlinks are
    // answered.  An ending connection sends what is left, and then waits for the client to close
    // it.
    enum class Phase { Serving, DeviceGone, Ending, AwaitingClose };
    Phase phase_ = Phase::Serving;
};

} // namespace sim
