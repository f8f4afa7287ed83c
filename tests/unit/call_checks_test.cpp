// The texts of the statuses, and the checks of the exported functions.
#include <string>
#include <vector>

#include "core/status.h"
#include "support/device_fixtures.h"

namespace {

TEST(Status, TextsAndMapping) {
    EXPECT_STREQ(vexa_usb_get_status_str(-14), "Not all data has been transferred");
    EXPECT_STREQ(vexa_usb_get_status_str(-8), "Stream buffer active error");
    EXPECT_STREQ(vexa_usb_get_status_str(0), "Success");
    EXPECT_STREQ(vexa_usb_get_status_str(1), "Data stream buffer empty");
    for (const int32_t none : {2, -15, INT32_MAX, INT32_MIN})
        EXPECT_STREQ(vexa_usb_get_status_str(none), "");
    EXPECT_EQ(vexausb::statusFromLibusbError(LIBUSB_ERROR_TIMEOUT), -13);
    EXPECT_EQ(vexausb::statusFromLibusbError(LIBUSB_ERROR_NO_DEVICE), -1);
    EXPECT_EQ(vexausb::statusFromLibusbError(1), -1);

    const _vexa_usb_version &version = *vexa_usb_get_version();
    EXPECT_EQ(&version, vexa_usb_get_version());
    EXPECT_EQ(version.minor, 8);
    EXPECT_EQ(version.patch, 2);
    EXPECT_EQ(version.build, 10);
    EXPECT_STREQ(version.suffix, "");
}

// One call of every function that checks the initialisation, with null in place of every pointer.
std::vector<int32_t> callEverythingWithNull() {
    return {
        vexa_usb_get_device_list(nullptr, nullptr),
        vexa_usb_free_device_list(nullptr),
        vexa_usb_open(nullptr, nullptr, nullptr, nullptr),
        vexa_usb_close(nullptr),
        vexa_usb_get_kernel_driver_version(nullptr, nullptr),
        vexa_usb_get_device_descriptor(nullptr, nullptr, 0),
        vexa_usb_control_transfer(nullptr, 0, 0, 0, 0, 0, 0, nullptr, 0),
        vexa_usb_interrupt_read(nullptr, 0x01, nullptr, 0),
        vexa_usb_interrupt_write(nullptr, 0x81, nullptr, 0),
        vexa_usb_bulk_read(nullptr, 0x01, nullptr, 0),
        vexa_usb_bulk_write(nullptr, 0x81, nullptr, 0),
        vexa_usb_register_device_list_event_callback(nullptr, nullptr, nullptr),
        vexa_usb_event_pipe_enable(nullptr, 0x01),
        vexa_usb_event_pipe_disable(nullptr),
        vexa_usb_data_stream_start(nullptr, 0x01, 0, 0),
        vexa_usb_data_stream_stop(nullptr),
        vexa_usb_data_stream_buffer_lock(nullptr, nullptr, nullptr),
        vexa_usb_data_stream_buffer_unlock(nullptr),
        vexa_usb_data_stream_memory_size_max(nullptr, nullptr),
        vexa_usb_data_stream_rate_max(nullptr, nullptr),
        vexa_usb_fx2_reset(nullptr),
        vexa_usb_fx2_renumerate(nullptr),
        vexa_usb_fx2_load_firmware(nullptr, nullptr, 0),
        vexa_usb_fx3_load_firmware(nullptr, nullptr, 0),
        vexa_usb_dfu_download(nullptr, nullptr, 0, nullptr, nullptr),
        vexa_usb_imx7_load_firmware_spl(nullptr, nullptr, 0),
        vexa_usb_imx7_load_firmware_uboot(nullptr, nullptr, 0),
        vexa_usb_lpc4370_load_firmware(nullptr, nullptr, 0),
    };
}

class ChecksTest : public test::FakeBusTest {};

TEST_F(ChecksTest, InitialisationComesFirstThenParameters) {
    for (const int32_t status : callEverythingWithNull())
        EXPECT_EQ(status, -3);
    EXPECT_EQ(vexa_usb_deregister_device_list_event_callback(0), -3);
    EXPECT_EQ(vexa_usb_get_max_packet_size(nullptr, 0x81, nullptr), -5);
    vexa_usb_init();
    for (const int32_t status : callEverythingWithNull())
        EXPECT_EQ(status, -5);
    vexa_usb_fini();
    for (const int32_t status : callEverythingWithNull())
        EXPECT_EQ(status, -3);
}

} // namespace
