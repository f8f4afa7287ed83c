#include "core/use_gate.h"

namespace vexausb {

UseGate::Use::~Use() {
    if (gate == nullptr)
        return;
    const std::lock_guard lock(gate->mutex);
    if (--gate->users == 0)
        gate->left.notify_all();
}

bool UseGate::Use::wanted() const {
    const std::lock_guard lock(gate->mutex);
    return !gate->isOpen;
}

void UseGate::open() {
    const std::lock_guard lock(mutex);
    isOpen = true;
}

UseGate::Use UseGate::enter() {
    const std::lock_guard lock(mutex);
    if (!isOpen)
        return Use(nullptr);
    ++users;
    return Use(this);
}

void UseGate::refuse() {
    const std::lock_guard lock(mutex);
    isOpen = false;
}

void UseGate::close() {
    refuse();
    std::unique_lock lock(mutex);
    left.wait(lock, [this]() { return users == 0; });
}

} // namespace vexausb
