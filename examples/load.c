/* Boots the first device from a file: load fx2|fx3|dfu|spl|uboot FILE
 * For fx2 the file is what `vexa-usb hex --binary` makes of Intel HEX. */
#include <string.h>

#include "common.h"

static void onProgress(void *data, double progress) {
    (void)data;
    fprintf(stderr, "\r%3.0f %%%s", progress * 100, progress < 1 ? "" : "\n");
}

static int32_t load(const char *kind, _vexa_usb_device *device, const uint8_t *image, size_t size) {
    if (strcmp(kind, "fx2") == 0)
        return vexa_usb_fx2_load_firmware(device, image, size);
    if (strcmp(kind, "fx3") == 0) /* from malloc, so aligned */
        return size % 4 != 0 ? VEXA_USB_STATUS_INVALID_PARAMETERS
                             : vexa_usb_fx3_load_firmware(
                                   device, (const uint32_t *)(const void *)image, size / 4);
    if (strcmp(kind, "dfu") == 0)
        return vexa_usb_dfu_download(device, image, size, onProgress, NULL);
    if (strcmp(kind, "spl") == 0)
        return vexa_usb_imx7_load_firmware_spl(device, image, size);
    if (strcmp(kind, "uboot") == 0)
        return vexa_usb_imx7_load_firmware_uboot(device, image, size);
    return VEXA_USB_STATUS_INVALID_PARAMETERS;
}

int main(int argc, char **argv) {
    static const size_t kLargest = 16 << 20;
    uint8_t *image = malloc(kLargest);
    FILE *file = argc == 3 ? fopen(argv[2], "rb") : NULL;
    _vexa_usb_device *device;
    size_t size;
    if (file == NULL || image == NULL) {
        fprintf(stderr, "usage: load fx2|fx3|dfu|spl|uboot FILE (and FILE must be readable)\n");
        return 2;
    }
    size = fread(image, 1, kLargest, file);
    if (!feof(file)) {
        fprintf(stderr, "%s: cannot be read, or has %zu bytes or more\n", argv[2], kLargest);
        return 1;
    }
    fclose(file);
    device = openFirst(ignoreEvent, NULL);
    require(load(argv[1], device, image, size), argv[1]);
    printf("%zu bytes loaded; the device comes back as what they make of it\n", size);
    vexa_usb_close(device);
    vexa_usb_fini();
    free(image);
    return 0;
}
