#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>

#include "devicelist/abstract_device_list_item.h"

namespace vexausb {

struct DeviceListEvent {
    uint32_t type;
    std::shared_ptr<AbstractDeviceListItem> item;
};

class ListCallbacks {
public:
    using Callback =
        std::function<void(uint32_t type, const std::shared_ptr<AbstractDeviceListItem> &item)>;

    // Writes `id` before the callback can be called.
    void add(Callback callback, uint32_t &id);
    void remove(uint32_t id);
    void clear() noexcept;
    void handleEvent(const DeviceListEvent &event);

    // The device list's mutex, too: it guards the list's entries as well as the members below.
    // Taken before the mutex of the list's event queue, never the other way round.
    std::mutex mutex;

private:
    using Callbacks = std::map<int32_t, Callback>;

    const std::shared_ptr<const Callbacks> none = std::make_shared<Callbacks>();
    std::shared_ptr<const Callbacks> callbacks = none;
    uint32_t nextCallbackId = 0;
};

} // namespace vexausb
