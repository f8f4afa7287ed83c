/* Streams from endpoint 0x82 to a file: record FILE BYTES */
#define _POSIX_C_SOURCE 200809L
#include <semaphore.h>
#include <stdatomic.h>
#include <time.h>

#include "common.h"

static sem_t events;
static atomic_int failed, removed;

static void onEvent(_vexa_usb_device_event event, void *data) {
    (void)data;
    if (event == VEXA_USB_DEVICE_EVENT_DATA_STREAM_ERROR)
        failed = 1;
    else if (event == VEXA_USB_DEVICE_EVENT_REMOVED)
        removed = 1;
    else if (event != VEXA_USB_DEVICE_EVENT_DATA_STREAM_BUFFER_FULL)
        return;
    sem_post(&events);
}

/* Whether another buffer is full.  All that was reported before the error is read first. */
static int waitForBuffer(void) {
    while (sem_wait(&events) != 0)
        ;
    return !removed && !failed;
}

/* At an unplug the error can come before the removal. */
static const char *reason(void) {
    const struct timespec shortly = {0, 500000000};
    if (!removed)
        nanosleep(&shortly, NULL);
    return removed ? "the device has left" : "data were lost: give it more or larger buffers";
}

int main(int argc, char **argv) {
    _vexa_usb_device *device;
    uint64_t size = 0, done = 0;
    const uint64_t wanted = argc == 3 ? strtoull(argv[2], NULL, 10) : 0;
    FILE *file;
    int written;
    if (argc != 3) {
        fprintf(stderr, "usage: record FILE BYTES\n");
        return 2;
    }
    sem_init(&events, 0, 0);
    setenv("VEXA_USB_STREAM", "strict", 1); /* a gap in the data ends the stream */
    device = openFirst(onEvent, NULL);      /* before an older recording is emptied */
    file = fopen(argv[1], "wb");
    written = file != NULL;
    require(vexa_usb_data_stream_start(device, 0x82, 1 << 20, 32), "stream");
    while (written && done < wanted && waitForBuffer()) {
        uint8_t *data;
        require(vexa_usb_data_stream_buffer_lock(device, &data, &size), "lock");
        if (size > wanted - done)
            size = wanted - done;
        written = fwrite(data, 1, size, file) == size;
        done += size;
        vexa_usb_data_stream_buffer_unlock(device);
    }
    written = file != NULL && fclose(file) == 0 && written;
    if (!written)
        fprintf(stderr, "%s: cannot be written\n", argv[1]);
    else if (done < wanted)
        fprintf(stderr, "after %" PRIu64 " bytes: %s\n", done, reason());
    vexa_usb_close(device);
    vexa_usb_fini();
    return !written || done < wanted;
}
