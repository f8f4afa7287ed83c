#pragma once

namespace vexausb {

// What a transfer that does not bring all its data means for a stream.
enum class StreamMode {
    Default, // its piece is missing, and the stream goes on
    Strict,  // the end of the run, as when a transfer cannot be submitted
};

// As the environment variable VEXA_USB_STREAM asks for, at the start of a stream.
StreamMode wantedStreamMode();

} // namespace vexausb
