#include "devicelist/list_callbacks.h"

#include <utility>

namespace vexausb {

void ListCallbacks::add(Callback callback, uint32_t &id) {
    const MutexLock lock(mutex_);
    auto changed = std::make_shared<Callbacks>(*callbacks_);
    changed->emplace(static_cast<int32_t>(nextCallbackId_), std::move(callback));
    callbacks_ = std::move(changed);
    id = nextCallbackId_++;
}

void ListCallbacks::remove(uint32_t id) {
    const MutexLock lock(mutex_);
    auto changed = std::make_shared<Callbacks>(*callbacks_);
    changed->erase(static_cast<int32_t>(id));
    callbacks_ = std::move(changed);
}

void ListCallbacks::clear() noexcept {
    const MutexLock lock(mutex_);
    callbacks_ = none_;
}

void ListCallbacks::handleEvent(const DeviceListEvent &event) {
    std::shared_ptr<const Callbacks> current;
    {
        const MutexLock lock(mutex_);
        current = callbacks_;
    }
    for (const auto &[id, callback] : *current)
        callback(event.type, event.item);
}

} // namespace vexausb
