#include "core/use_gate.h"

namespace vexausb {

UseGate::Use::~Use() {
    if (gate_ == nullptr)
        return;
    const MutexLock lock(gate_->mutex_);
    if (--gate_->users_ == 0)
        gate_->left_.notifyAll();
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

void UseGate::refuse() {
    const MutexLock lock(mutex_);
    isOpen_ = false;
}

void UseGate::close() {
    const MutexLock lock(mutex_);
    isOpen_ = false;
    while (users_ > 0)
        left_.wait(mutex_);
}

} // namespace vexausb
