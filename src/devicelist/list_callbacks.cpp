#include "devicelist/list_callbacks.h"

#include <algorithm>
#include <utility>

namespace vexausb {

void ListCallbacks::add(Callback callback, uint32_t &id) {
    auto registration = std::make_shared<Registration>();
    registration->callback = std::move(callback);
    const MutexLock lock(mutex_);
    auto changed = std::make_shared<Callbacks>(*callbacks_);
    std::erase_if(*changed,
                  [](const auto &entry) { return entry.second->lastDelivery != UINT64_MAX; });
    changed->emplace(static_cast<int32_t>(nextCallbackId_), std::move(registration));
    callbacks_ = std::move(changed);
    id = nextCallbackId_++;
}

void ListCallbacks::remove(uint32_t id) noexcept {
    const MutexLock lock(mutex_);
    const auto found = callbacks_->find(static_cast<int32_t>(id));
    if (found != callbacks_->end())
        found->second->lastDelivery = std::min(found->second->lastDelivery.load(), deliveries_);
}

void ListCallbacks::clear() noexcept {
    const MutexLock lock(mutex_);
    callbacks_ = none_;
}

void ListCallbacks::handleEvent(const DeviceListEvent &event) {
    std::shared_ptr<const Callbacks> current;
    uint64_t delivery = 0;
    {
        const MutexLock lock(mutex_);
        current = callbacks_;
        delivery = ++deliveries_;
    }
    for (const auto &[id, registration] : *current) {
        if (delivery <= registration->lastDelivery)
            registration->callback(event.type, event.item);
    }
}

} // namespace vexausb
