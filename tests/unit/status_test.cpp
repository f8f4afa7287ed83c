// The texts of the statuses, their names in the log, what libusb's errors become, and the version.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <libusb.h>

#include "core/status.h"
#include "core/transfer_status.h"
#include "vexa_usb.h"

namespace {

TEST(Status, TextsAndMapping) {
    EXPECT_STREQ(vexa_usb_get_status_str(-14), "Not all data has been transferred");
    EXPECT_STREQ(vexa_usb_get_status_str(-13), "Operation timed out");
    EXPECT_STREQ(vexa_usb_get_status_str(-1), "Unknown error");
    EXPECT_STREQ(vexa_usb_get_status_str(0), "Success");
    EXPECT_STREQ(vexa_usb_get_status_str(1), "Data stream buffer empty");
    for (const int32_t none : {2, -15, INT32_MAX, INT32_MIN})
        EXPECT_STREQ(vexa_usb_get_status_str(none), "");
    EXPECT_EQ(vexausb::statusFromLibusbError(LIBUSB_SUCCESS), 0);
    EXPECT_EQ(vexausb::statusFromLibusbError(LIBUSB_ERROR_TIMEOUT), -13);
    EXPECT_EQ(vexausb::statusFromLibusbError(LIBUSB_ERROR_NO_DEVICE), -1);
    EXPECT_EQ(vexausb::statusFromLibusbError(1), -1);

    const _vexa_usb_version &version = *vexa_usb_get_version();
    EXPECT_EQ(&version, vexa_usb_get_version());
    EXPECT_EQ(std::to_string(version.major) + "." + std::to_string(version.minor) + "." +
                  std::to_string(version.patch) + "." + std::to_string(version.build),
              VEXA_VERSION_AND_BUILD);
    EXPECT_STREQ(version.suffix, "");
}

TEST(Status, NamesOfTransferStatuses) {
    const std::vector<std::string> names{"COMPLETED", "ERROR",     "TIMED_OUT", "CANCELLED",
                                         "STALL",     "NO_DEVICE", "OVERFLOW"};
    for (size_t i = 0; i < names.size(); ++i)
        EXPECT_EQ(vexausb::transferStatusName(static_cast<libusb_transfer_status>(i)),
                  "LIBUSB_TRANSFER_" + names[i]);
    EXPECT_STREQ(vexausb::transferStatusName(static_cast<libusb_transfer_status>(7)),
                 "an unknown status");
}

} // namespace
