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

/*
 * A device's place on the simulated bus: the port that the device is plugged into, and what clients
 * can import.
 *
 * Life: as long as the simulator, so tasks that it leaves in the event loop may refer to it.
 */
class ExportedDevice final : public Port {
public:
    // The connection that has imported the device.
    class Importer {
    public:
        virtual ~Importer() = default;
        virtual void offerPending() = 0;
        // The device answers no more.
        virtual void deviceLeft() = 0;
        // Ends the connection, which unplugs the device, once all answers have been sent.
        virtual void disconnect() = 0;
    };

    ExportedDevice(EventLoop &loop, usbip::ExportedName name, std::unique_ptr<DeviceModel> model);

    const usbip::ExportedName &name() const { return name_; }
    DeviceModel &model() { return *models_.back(); }
    // Whether it was plugged in, and is no more.
    bool hasLeft() const { return wasImported_ && (importer_ == nullptr || !present_); }
    bool isAvailable() const { return present_ && importer_ == nullptr; }

    // A client has imported the device, which plugs it in, or has released it.
    void imported(Importer *by);
    void released();

    // Keeps the device off the bus for that long from now.
    void stayAway(std::chrono::milliseconds time);
    // Called when the device comes to the bus after it has been away.
    std::function<void()> onReturn;
    // Whether a device may be unplugged now; one that may not is a little later.
    std::function<bool()> mayUnplug;

    void wake(std::chrono::milliseconds delay) override;
    void after(std::chrono::milliseconds delay, std::function<void()> action) override;
    void unplug(std::optional<std::chrono::milliseconds> returnAfter) override;
    void become(std::unique_ptr<DeviceModel> other, std::chrono::milliseconds returnAfter) override;
    bool isPlugged() const override { return present_ && importer_ != nullptr; }

private:
    void disconnect(std::optional<std::chrono::milliseconds> returnAfter);

    EventLoop &loop_;
    const usbip::ExportedName name_;
    // The last one is the device.  Those that it was before are kept, because tasks in the event
    // loop may still refer to them.
    std::vector<std::unique_ptr<DeviceModel>> models_;
    Importer *importer_ = nullptr;
    bool wasImported_ = false;
    bool present_ = true;
    bool wakeScheduled_ = false;
};

} // namespace sim
