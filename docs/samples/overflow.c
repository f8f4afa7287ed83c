/* Reads a stream to its end, and tells a reader that was too slow from a device that has left.
 * Usage: overflow MILLISECONDS, which is how long the reader dawdles after each buffer. */
#define _POSIX_C_SOURCE 200809L
#include <semaphore.h>
#include <time.h>

#include "first_device.h"

static sem_t wake, full, lost, removed;

static void onEvent(_vexa_usb_device_event event, void *data) {
    (void)data;
    if (event == VEXA_USB_DEVICE_EVENT_DATA_STREAM_BUFFER_FULL)
        sem_post(&full);
    else if (event == VEXA_USB_DEVICE_EVENT_DATA_STREAM_ERROR)
        sem_post(&lost);
    else if (event == VEXA_USB_DEVICE_EVENT_REMOVED)
        sem_post(&removed);
    sem_post(&wake);
}

/* At an unplug, 5 can come a moment before 256. */
static const char *whyItEnded(void) {
    struct timespec patience;
    clock_gettime(CLOCK_REALTIME, &patience);
    patience.tv_sec += 1;
    return sem_timedwait(&removed, &patience) == 0 ? "the device has left" : "data were lost";
}

int main(int argc, char **argv) {
    long dawdle = argc > 1 ? strtol(argv[1], NULL, 10) : 0;
    struct timespec pause = {dawdle / 1000, dawdle % 1000 * 1000000};
    _vexa_usb_device *device;
    uint64_t size, done = 0;
    uint8_t *data;
    const char *ending = NULL;
    sem_init(&wake, 0, 0);
    sem_init(&full, 0, 0);
    sem_init(&lost, 0, 0);
    sem_init(&removed, 0, 0);
    setenv("VEXA_USB_STREAM", "strict", 1);
    vexa_usb_init();
    device = openFirst(onEvent, NULL);
    require(vexa_usb_data_stream_start(device, 0x82, 1048576, 8), "start");
    while (ending == NULL && sem_wait(&wake) == 0) {
        if (sem_trywait(&full) == 0) { /* first what was reported before the end */
            if (vexa_usb_data_stream_buffer_lock(device, &data, &size) == 0) {
                done += size; /* data[0] to data[size - 1] are the next bytes */
                nanosleep(&pause, NULL);
                vexa_usb_data_stream_buffer_unlock(device);
            }
        } else if (sem_trywait(&removed) == 0) {
            ending = "the device has left";
        } else if (sem_trywait(&lost) == 0) {
            ending = whyItEnded();
        }
    }
    printf("%s after %" PRIu64 " bytes\n", ending, done);
    vexa_usb_close(device);
    vexa_usb_fini();
    return 0;
}
