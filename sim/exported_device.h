#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "device_model.h"
#include "event_loop.h"
#include "usbip_protocol.h"

namespace sim {

// A device's place on the simulated bus.  Tells whoever imported it what the device asks of its
// port.
class ExportedDevice final : public Port {
public:
    // The connection that has imported the device.
    class Importer {
    public:
        virtual ~Importer() = default;
        virtual void offerPending() = 0;
        virtual void deviceLeft() = 0;
    };

    ExportedDevice(EventLoop &loop, usbip::ExportedAs name, std::unique_ptr<DeviceModel> model);

    const usbip::ExportedAs &name() const { return name_; }
    DeviceModel &model() { return *lives_.back(); }
    bool isAvailable() const { return present_ && importer_ == nullptr; }

    void imported(Importer *by);
    void released();

    // Keeps the device off the bus for that long from now.
    void stayAway(std::chrono::milliseconds time);
    // Called whenever the device comes (back) to the bus.
    std::function<void()> onReturn;

    void wake(std::chrono::milliseconds delay) override;
    void after(std::chrono::milliseconds delay, std::function<void()> action) override;
    void unplug(std::optional<std::chrono::milliseconds> returnAfter) override;
    void become(std::unique_ptr<DeviceModel> other, std::chrono::milliseconds returnAfter) override;

private:
    EventLoop &loop_;
    const usbip::ExportedAs name_;
    // The device, and what it was before: that may have something scheduled still.
    std::vector<std::unique_ptr<DeviceModel>> lives_;
    Importer *importer_ = nullptr;
    bool present_ = true;
    bool wakeScheduled_ = false;
};

} // namespace sim
