#include "device/shared_buffers.h"

#include <algorithm>
#include <cinttypes>
#include <cstdlib>
#include <string_view>
#include <utility>

#include <libusb.h>
#include <sys/mman.h>
#include <unistd.h>

#include "core/log.h"
#include "core/shared_memory_budget.h"
#include "core/usb_connection.h"

// libusb has them since 1.0.21; the library works with one that has not.
#pragma weak libusb_dev_mem_alloc
#pragma weak libusb_dev_mem_free

namespace vexausb {

namespace {

constexpr bool kBuiltToShare = VEXA_USB_SHARED_RING != 0;
constexpr uint64_t kStep = 8; // blocks

bool isPrivateWanted() {
    const char *const value = std::getenv("VEXA_USB_RING");
    const std::string_view wanted = value == nullptr ? "" : value;
    if (!wanted.empty() && wanted != "private" && wanted != "shared")
        logLine(LogLevel::Error,
                "VEXA_USB_RING is '%s': treated as shared; it can be shared or private", value);
    return wanted == "private";
}

// Null when nothing speaks against it.
const char *reasonAgainst(const UsbConnection &connection) {
    if (isPrivateWanted())
        return "VEXA_USB_RING is private";
    if (!kBuiltToShare)
        return "the library is built without shared rings";
    if (libusb_dev_mem_alloc == nullptr || libusb_dev_mem_free == nullptr)
        return "this libusb cannot share memory";
    return connection.eventLoopRuns() ? nullptr
                                      : "nothing fills the ring after the library's last fini";
}

// What the kernel counts for a mapping.
uint64_t wholePages(uint64_t size) {
    const auto page = static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
    return (size + page - 1) / page * page;
}

shared_memory_budget::Grant grantFor(const UsbConnection &connection, uint64_t size,
                                     uint64_t count) {
    const char *const against = reasonAgainst(connection);
    if (against != nullptr)
        return {0, against};
    return shared_memory_budget::reserve(wholePages(size), count);
}

} // namespace

// The ring may share what the whole of it is granted now, but takes it in steps as it needs it, so
// that a ring of which a few blocks go round leaves the rest to others.
std::unique_ptr<SharedBuffers> SharedBuffers::make(const UsbConnection &connection, uint64_t size,
                                                   uint64_t count, const DeviceName &name) {
    const auto grant = grantFor(connection, size, count);
    shared_memory_budget::release(wholePages(size), grant.blocks);
    logLine(LogLevel::Info,
            "%s: the kernel may fill %" PRIu64 " of the ring's %" PRIu64 " buffers (%" PRIu64
            " bytes with their spare packet) itself%s%s",
            name.text(), grant.blocks, count, size,
            grant.reason != nullptr ? ", and copies to the others: " : "",
            grant.reason != nullptr ? grant.reason : "");
    if (grant.blocks == 0)
        return nullptr;
    return std::unique_ptr<SharedBuffers>(
        new SharedBuffers(connection.handle(), size, grant.blocks, name));
}

SharedBuffers::SharedBuffers(libusb_device_handle *handle, uint64_t size, uint64_t count,
                             const DeviceName &name)
    : handle_(handle), size_(size), count_(count), wanted_(count), deviceName_(name) {
    spare_.reserve(count);
}

SharedBuffers::~SharedBuffers() {
    releaseUnused();
}

uint8_t *SharedBuffers::take() {
    if (shared_memory_budget::isOverdrawn())
        releaseUnused();
    if (!spare_.empty()) {
        uint8_t *const block = spare_.back();
        spare_.pop_back();
        return block;
    }
    if (pause_ > 0) {
        --pause_;
        return nullptr;
    }
    if (reservedBlocks_ == 0)
        reserveMore();
    uint8_t *const block = reservedBlocks_ > 0 ? allocate() : nullptr;
    if (block == nullptr)
        pause_ = count_;
    return block;
}

void SharedBuffers::reserveMore() {
    const uint64_t step = std::min(wanted_, kStep);
    if (step == 0)
        return;
    reservedBlocks_ = shared_memory_budget::reserve(wholePages(size_), step).blocks;
    wanted_ -= reservedBlocks_;
}

uint8_t *SharedBuffers::allocate() {
    --reservedBlocks_;
    uint8_t *const block = libusb_dev_mem_alloc(handle_, size_);
    if (block != nullptr)
        return block;
    ++wanted_;
    shared_memory_budget::release(wholePages(size_), 1);
    if (!std::exchange(refused_, true))
        logLine(LogLevel::Info,
                "%s: the kernel refused to share a buffer of %" PRIu64
                " bytes, and copies to it instead",
                deviceName_.text(), size_);
    return nullptr;
}

void SharedBuffers::giveBack(uint8_t *block) {
    spare_.push_back(block);
}

// Without the handle by what libusb does for it on Linux.
void SharedBuffers::release(uint8_t *block) {
    if (handle_ != nullptr)
        libusb_dev_mem_free(handle_, block, size_);
    else
        munmap(block, size_);
    shared_memory_budget::release(wholePages(size_), 1);
}

void SharedBuffers::releaseUnused() {
    for (uint8_t *const block : spare_)
        release(block);
    spare_.clear();
    shared_memory_budget::release(wholePages(size_), std::exchange(reservedBlocks_, 0));
    wanted_ = 0;
}

void SharedBuffers::handleIsClosing() {
    releaseUnused();
    handle_ = nullptr;
}

} // namespace vexausb
