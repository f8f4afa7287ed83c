// Nothing behind the end of an i.MX7 image is read, and no image has both headers.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "firmware/formats/imx7_image.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::vector<uint8_t> image(data, data + size);
    if (vexausb::imx7SplAddress(image) && vexausb::imx7UbootAddress(image))
        std::abort();
    return 0;
}
