#include "firmware/fx3.h"

#include <algorithm>
#include <span>

#include "firmware/formats/fx3_image.h"
#include "firmware/requests.h"

namespace vexausb {

namespace {

constexpr size_t kMaxChunk = 2048;

int32_t writeSection(AbstractDevice &device, uint32_t address, std::span<const uint8_t> bytes) {
    while (!bytes.empty()) {
        const std::span<const uint8_t> chunk = bytes.first(std::min(bytes.size(), kMaxChunk));
        const int32_t status = memoryWrite(device, address, chunk.data(), chunk.size());
        if (status != VEXA_USB_STATUS_SUCCESS)
            return status;
        address += static_cast<uint32_t>(chunk.size());
        bytes = bytes.subspan(chunk.size());
    }
    return VEXA_USB_STATUS_SUCCESS;
}

// The boot loader may jump before it answers, so the status of this request means nothing.
int32_t jump(AbstractDevice &device, const Fx3ImageWalk &walk) {
    if (!walk.checksumRight())
        return VEXA_USB_STATUS_UNKNOWN;
    memoryWrite(device, walk.address(), nullptr, 0);
    return VEXA_USB_STATUS_SUCCESS;
}

std::span<const uint8_t> asBytes(std::span<const uint32_t> words) {
    return {reinterpret_cast<const uint8_t *>(words.data()), words.size_bytes()};
}

} // namespace

int32_t fx3LoadFirmware(AbstractDevice &device, const uint32_t *image, uint64_t length) {
    Fx3ImageWalk walk({image, length});
    for (;;) {
        switch (walk.next()) {
        case Fx3ImageWalk::Record::Section: {
            const int32_t status = writeSection(device, walk.address(), asBytes(walk.data()));
            if (status != VEXA_USB_STATUS_SUCCESS)
                return status;
            break;
        }
        case Fx3ImageWalk::Record::Entry:
            return jump(device, walk);
        case Fx3ImageWalk::Record::End:
            return VEXA_USB_STATUS_SUCCESS;
        case Fx3ImageWalk::Record::Broken:
            return VEXA_USB_STATUS_INVALID_PARAMETERS;
        }
    }
}

} // namespace vexausb
