#include "core/use_gate.h"

namespace vexausb {

UseGate::Use::~Use() {
    if (gate_ != nullptr)
        gate_->leave();
}

bool UseGate::Use::closeRequested() const {
    const MutexLock lock(gate_->mutex_);
    return !gate_->isOpen_;
}

void UseGate::open() {
    const MutexLock lock(mutex_);
    isOpen_ = true;
}

UseGate::Use UseGate::enter() {
    const MutexLock lock(mutex_);
    if (!isOpen_)
        return Use(nullptr);
    ++users_;
    return Use(this);
}

void UseGate::leave() {
    const MutexLock lock(mutex_);
    if (--users_ == 0)
        left_.notifyAll();
}

void UseGate::refuse() {
    const MutexLock lock(mutex_);
    isOpen_ = false;
}

void UseGate::close() {
    const MutexLock lock(mutex_);
    isOpen_ = false;
    left_.wait(mutex_, [this]() REQUIRES(mutex_) { return users_ == 0; });
}

} // namespace vexausb
