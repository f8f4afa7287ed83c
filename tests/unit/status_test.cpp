// The texts of the statuses, what libusb's errors become, and the version.
#include <cstdint>

#include <gtest/gtest.h>
#include <libusb.h>

#include "core/status.h"
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
    EXPECT_EQ(version.major, 0);
    EXPECT_EQ(version.minor, 8);
    EXPECT_EQ(version.patch, 2);
    EXPECT_EQ(version.build, 10);
    EXPECT_STREQ(version.suffix, "");
}

} // namespace
