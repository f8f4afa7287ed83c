#pragma once

#include <cstddef>
#include <new>
#include <utility>

namespace vexausb {

// Holds a Thing that is made with it and never destroyed: for what other threads may still use when
// the process exits, or what a forked child must not destroy.
template <typename Thing>
class Undestroyed {
public:
    template <typename... Arguments>
    explicit Undestroyed(Arguments &&...arguments)
        : thing_(new (memory_) Thing(std::forward<Arguments>(arguments)...)) {}
    Undestroyed(const Undestroyed &) = delete;
    Undestroyed &operator=(const Undestroyed &) = delete;

    Thing &get() { return *thing_; }

private:
    alignas(Thing) std::byte memory_[sizeof(Thing)];
    Thing *thing_;
};

} // namespace vexausb
