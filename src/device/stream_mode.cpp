#include "device/stream_mode.h"

#include <cstdlib>
#include <string_view>

#include "core/log.h"

namespace vexausb {

StreamMode wantedStreamMode() {
    const char *const value = std::getenv("VEXA_USB_STREAM");
    const std::string_view wanted = value == nullptr ? "" : value;
    if (wanted == "strict")
        return StreamMode::Strict;
    if (!wanted.empty() && wanted != "default")
        logLine(LogLevel::Error,
                "VEXA_USB_STREAM is '%s': treated as default; it can be strict or default", value);
    return StreamMode::Default;
}

} // namespace vexausb
