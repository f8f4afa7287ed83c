#include "core/shared_memory_budget.h"

#include <algorithm>
#include <atomic>
#include <limits>
#include <optional>

#include <fcntl.h>
#include <sys/random.h>
#include <unistd.h>

#include "core/mutex.h"
#include "core/usbfs_limit.h"

namespace vexausb::shared_memory_budget {

namespace {

constexpr uint64_t kMebibyte = 1048576;
constexpr uint64_t kLeastLimit = 64;
constexpr uint64_t kShareOfLimit = 4;    // a quarter
constexpr uint64_t kNeededPerDevice = 2; // MiB: three transfers of 512 KiB, and those of a call
constexpr uint64_t kMostBlocks = 4096;   // each is a mapping, of which a process may have 65,530
constexpr int kMostLooks = 256;
constexpr uint64_t kPlaces = 1ULL << 40U; // for the locks of a process
constexpr off_t kPlaceSize = 1ULL << 20U; // bytes, each for one MiB
constexpr uint64_t kUnlimited = std::numeric_limits<uint64_t>::max();
constexpr const char *kUnknownLimit = "the system's limit for USB transfers cannot be read";
constexpr const char *kLowLimit = "the system's limit for USB transfers (usbfs_memory_mb) is below "
                                  "64 MiB";
constexpr const char *kNoRoom = "no more can be taken from the system's limit for USB transfers "
                                "(usbfs_memory_mb), which the attached devices need, too";
constexpr const char *kTooMany = "a process shares at most 4096 buffers";

// What this process shares, as the others see it.  Owned and guarded by the budget below.  Where
// locks cannot be had, each process counts for itself.
class Tally {
public:
    // Before anything else.
    void open();
    // So many MiB are shared by this process; none closes the file.
    void tell(uint64_t mebibytes);
    uint64_t othersMebibytes() const;

private:
    static uint64_t lockedBetween(int file, off_t begin, off_t end, int &looks);
    void change(short type, off_t begin, off_t end) const;

    int file_ = -1; // open while anything is told, or is about to be
    off_t place_ = 0;
    off_t told_ = 0;
};

// Without a file, and where the kernel cannot tell a random number yet, programs may not see each
// other; each then counts for itself.
void Tally::open() {
    if (file_ >= 0)
        return;
    file_ = ::open(usbfsLimitFile(), O_RDONLY | O_CLOEXEC);
    uint64_t random = 0;
    if (getrandom(&random, sizeof(random), GRND_NONBLOCK) != sizeof(random))
        random = static_cast<uint64_t>(getpid());
    place_ = static_cast<off_t>(random % kPlaces) * kPlaceSize;
}

void Tally::change(short type, off_t begin, off_t end) const {
    struct flock lock {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    lock.l_start = place_ + begin;
    lock.l_len = end - begin;
    fcntl(file_, F_OFD_SETLK, &lock);
}

void Tally::tell(uint64_t mebibytes) {
    if (file_ < 0)
        return;
    const auto wanted = static_cast<off_t>(std::min<uint64_t>(mebibytes, kPlaceSize));
    if (wanted > told_)
        change(F_RDLCK, told_, wanted);
    else if (wanted < told_)
        change(F_UNLCK, wanted, told_);
    told_ = wanted;
    if (told_ == 0) {
        close(file_);
        file_ = -1;
    }
}

// The kernel names one lock of the range at a time; what lies on either side of it comes next.
// After so many looks the room counts as used up: whoever holds that many locks may mean harm.
uint64_t Tally::lockedBetween(int file, off_t begin, off_t end, int &looks) {
    if (begin >= end)
        return 0;
    if (looks-- <= 0)
        return kPlaceSize;
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    lock.l_start = begin;
    lock.l_len = end - begin;
    if (fcntl(file, F_OFD_GETLK, &lock) != 0 || lock.l_type == F_UNLCK)
        return 0;
    const off_t first = std::max(lock.l_start, begin);
    const off_t last = lock.l_len == 0 ? end : std::min(lock.l_start + lock.l_len, end);
    return static_cast<uint64_t>(last - first) + lockedBetween(file, begin, first, looks) +
           lockedBetween(file, last, end, looks);
}

uint64_t Tally::othersMebibytes() const {
    int looks = kMostLooks;
    return file_ < 0 ? 0 : lockedBetween(file_, 0, static_cast<off_t>(kPlaces) * kPlaceSize, looks);
}

// Alive for as long as the process.
Mutex mutex;
uint64_t reservedBlocks GUARDED_BY(mutex) = 0;
Tally tally GUARDED_BY(mutex);
uint64_t attachedDevices GUARDED_BY(mutex) = 0;
// Bytes, written under the mutex.
std::atomic<uint64_t> reserved{0};
std::atomic<uint64_t> keepable{kUnlimited};

uint64_t toMebibytes(uint64_t bytes) {
    return bytes / kMebibyte + (bytes % kMebibyte != 0 ? 1 : 0);
}

// What all programs together may share under that limit, both in MiB.
uint64_t allowedUnder(uint64_t limit) REQUIRES(mutex) {
    if (limit == 0)
        return kUnlimited / kMebibyte;
    if (limit < kLeastLimit)
        return 0;
    const uint64_t needed = attachedDevices * kNeededPerDevice;
    return std::min(limit / kShareOfLimit, limit > needed ? limit - needed : 0);
}

void setReserved(uint64_t bytes) REQUIRES(mutex) {
    reserved.store(bytes);
    tally.tell(toMebibytes(bytes));
}

// Asks before it tells, so that no other program makes way for a wish that cannot be granted, and
// asks once more, since another may have told in between.
uint64_t reserveUpTo(uint64_t allowed, uint64_t blockSize, uint64_t count) REQUIRES(mutex) {
    const uint64_t before = reserved.load();
    uint64_t granted = count;
    tally.open();
    for (int round = 0; round < 2; ++round) {
        const uint64_t others = tally.othersMebibytes();
        const uint64_t room = allowed > others ? (allowed - others) * kMebibyte : 0;
        granted = std::min(granted, room > before ? (room - before) / blockSize : 0);
        setReserved(before + blockSize * granted);
        if (granted == 0)
            break;
    }
    return granted;
}

// Where all programs together share more than is allowed, each keeps its part of that, in whole
// MiB. It gives back more: a ring that gives way keeps no block to spare.
void updateKeepable(uint64_t allowed) REQUIRES(mutex) {
    const uint64_t own = toMebibytes(reserved.load());
    const uint64_t all = own + tally.othersMebibytes();
    keepable.store(all <= allowed ? kUnlimited : allowed * own / all * kMebibyte);
}

} // namespace

Grant reserve(uint64_t blockSize, uint64_t count) {
    const MutexLock lock(mutex);
    const std::optional<uint64_t> limit = usbfsMemoryLimit();
    if (!limit)
        return {0, kUnknownLimit};
    if (*limit != 0 && *limit < kLeastLimit)
        return {0, kLowLimit};
    const uint64_t allowed = allowedUnder(*limit);
    const uint64_t mappable =
        std::min({count, kMostBlocks - reservedBlocks, kUnlimited / 4 / blockSize});
    const uint64_t granted = reserveUpTo(allowed, blockSize, mappable);
    reservedBlocks += granted;
    updateKeepable(allowed);
    if (granted < mappable)
        return {granted, kNoRoom};
    return {granted, granted < count ? kTooMany : nullptr};
}

void release(uint64_t blockSize, uint64_t count) {
    if (count == 0)
        return;
    const MutexLock lock(mutex);
    reservedBlocks -= count;
    setReserved(reserved.load() - blockSize * count);
}

void setAttachedDevices(size_t count) {
    const MutexLock lock(mutex);
    attachedDevices = count;
    if (reserved.load() == 0)
        return;
    const std::optional<uint64_t> limit = usbfsMemoryLimit();
    if (limit)
        updateKeepable(allowedUnder(*limit));
}

bool isOverdrawn() {
    return reserved.load(std::memory_order_relaxed) > keepable.load(std::memory_order_relaxed);
}

} // namespace vexausb::shared_memory_budget
