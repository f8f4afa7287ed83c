#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <string>

#include "device_model.h"
#include "exported_device.h"
#include "stream_socket.h"
#include "usbip_protocol.h"

namespace sim {

class Connection final : public ExportedDevice::Importer {
public:
    using Devices = std::deque<ExportedDevice>;

    Connection(int descriptor, Devices &devices);
    ~Connection() override;

    int descriptor() const { return socket_.descriptor(); }
    bool wantsToSend() const { return !socket_.drained(); }
    bool wantsToReceive() const { return !socket_.isFull(); }

    // Does what the socket allows; false when the connection has ended.
    bool work(bool readable);

    // Called when there may be something to send.
    std::function<void()> onOutput;

    void offerPending() override;
    void deviceLeft() override;

private:
    // A transfer that the host has submitted and that was not answered yet.
    struct Transfer {
        uint32_t sequence;
        uint32_t length;
        bool in;
        Setup setup;
        Bytes data;
    };
    // Endpoint address; the control endpoint is 0 in both directions.
    using Pending = std::map<uint8_t, std::deque<Transfer>>;

    bool handleInput();
    // Each handles one message; false when more input is needed first.
    bool handleOperation();
    bool handleCommand();
    void replyDeviceList();
    void importDevice(const std::string &busId);
    bool handleSubmit(const usbip::CommandHeader &header);
    void handleUnlink(const usbip::CommandHeader &header);
    void offer(uint8_t endpoint);
    void offerAll();
    void forget(const Transfer &transfer);
    bool answer(uint8_t endpoint, Transfer &transfer);
    static Answer ask(DeviceModel &model, uint8_t endpoint, Transfer &transfer,
                      std::span<uint8_t> room);

    StreamSocket socket_;
    Devices &devices_;
    ExportedDevice *device_ = nullptr; // once imported
    Pending pending_;
    size_t pendingBytes_ = 0; // what the transfers in `pending_` hold
    bool leaving_ = false;    // the device has left: the connection ends once all is sent
};

} // namespace sim
