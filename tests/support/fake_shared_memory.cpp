#include "support/fake_shared_memory.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>
#include <system_error>

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <libusb.h>

#include "core/usbfs_limit.h"

namespace {

constexpr const char *kName = "shared-with-kernel";

// The limit's file, with a path of its own for each descriptor; made before main().
struct LimitFile {
    LimitFile() : path("/proc/self/fd/" + std::to_string(file)) {
        vexausb::setUsbfsLimitFile(path.c_str());
        fake::limitTransfers("256");
        fake::shareAsAsked();
    }
    const int file = memfd_create("limit", 0);
    const std::string path;
};

LimitFile &limit() {
    static LimitFile instance;
    return instance;
}
const LimitFile &madeEarly = limit();

std::atomic<fake::Sharing> mode{fake::Sharing::All};
std::atomic<unsigned> asked{0};

// The second range of addresses in a line of /proc/self/maps that names our file, and so on.
template <typename Visitor>
void forEachBlock(Visitor visit) {
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);) {
        if (line.find(kName) == std::string::npos)
            continue;
        char *rest = nullptr;
        const uintptr_t begin = std::strtoull(line.c_str(), &rest, 16);
        visit(begin, std::strtoull(rest + 1, nullptr, 16));
    }
}

} // namespace

namespace fake {

void shareMemory(Sharing sharing) {
    mode.store(sharing);
}

void shareAsAsked() {
    const char *const value = std::getenv("VEXA_TEST_SHARING");
    const std::string_view wanted = value == nullptr ? "" : value;
    shareMemory(wanted == "none" ? Sharing::None : wanted == "half" ? Sharing::Half : Sharing::All);
}

void limitTransfers(const char *mebibytes) {
    std::ofstream(vexausb::usbfsLimitFile()) << mebibytes << '\n';
}

void othersShare(int mebibytes, int programs) {
    static int file = -1;
    if (file >= 0)
        close(file);
    file = -1;
    if (mebibytes == 0)
        return;
    file = open(vexausb::usbfsLimitFile(), O_RDWR);
    struct flock lock {};
    lock.l_type = F_RDLCK;
    lock.l_len = mebibytes;
    for (int i = 0; i < programs; ++i) {
        lock.l_start = 12345 + i * 1048576L;
        fcntl(file, F_OFD_SETLK, &lock);
    }
}

int toldToOthers() {
    struct flock lock {};
    lock.l_type = F_WRLCK;
    fcntl(limit().file, F_OFD_GETLK, &lock);
    return lock.l_type == F_UNLCK ? 0 : static_cast<int>(lock.l_len);
}

int openLimitFiles() {
    const auto file = std::filesystem::read_symlink(limit().path);
    int count = 0;
    for (const auto &open : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code gone;
        count += std::filesystem::read_symlink(open.path(), gone) == file ? 1 : 0;
    }
    return count;
}

bool isShared(const uint8_t *memory) {
    bool found = false;
    const auto address = reinterpret_cast<uintptr_t>(memory);
    forEachBlock([&](uintptr_t begin, uintptr_t end) {
        found = found || (address >= begin && address < end);
    });
    return found;
}

// Neighbours are shown as one only when they are of one file, and each block has its own.
size_t sharedBlocks() {
    size_t count = 0;
    forEachBlock([&](uintptr_t, uintptr_t) { ++count; });
    return count;
}

} // namespace fake

unsigned char *libusb_dev_mem_alloc(libusb_device_handle *handle, size_t length) {
    libusb_get_device(handle); // ends the program unless it is open
    const fake::Sharing sharing = mode.load();
    if (sharing == fake::Sharing::None ||
        (sharing == fake::Sharing::Half && asked.fetch_add(1) % 2 == 1))
        return nullptr;
    const int file = memfd_create(kName, 0);
    if (file < 0 || ftruncate(file, static_cast<off_t>(length)) != 0)
        std::abort();
    void *const memory = mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    close(file);
    return static_cast<unsigned char *>(memory);
}

int libusb_dev_mem_free(libusb_device_handle *handle, unsigned char *buffer, size_t length) {
    libusb_get_device(handle);
    if (msync(buffer, length, MS_ASYNC) != 0) // not mapped
        std::abort();
    return munmap(buffer, length);
}
