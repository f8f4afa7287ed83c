/* Streams 64 MiB from the first instrument and adds the bytes up. */
#include <semaphore.h>
#include <stdio.h>
#include <vexa_usb.h>

static sem_t events;
static volatile int failed;

static void onEvent(_vexa_usb_device_event event, void *unused) {
    (void)unused;
    if (event == VEXA_USB_DEVICE_EVENT_DATA_STREAM_ERROR || event == VEXA_USB_DEVICE_EVENT_REMOVED)
        failed = 1;
    if (failed || event == VEXA_USB_DEVICE_EVENT_DATA_STREAM_BUFFER_FULL)
        sem_post(&events);
}

int main(void) {
    _vexa_usb_device_list_item **list = NULL;
    _vexa_usb_device *device = NULL;
    uint8_t *data = NULL;
    uint64_t size = 0, done = 0, sum = 0, i;
    int32_t status = VEXA_USB_STATUS_UNKNOWN;
    sem_init(&events, 0, 0);
    vexa_usb_init();
    vexa_usb_update_device_list();
    if (vexa_usb_get_device_list(&list, NULL) == VEXA_USB_STATUS_SUCCESS && list[0] != NULL)
        status = vexa_usb_open(list[0], onEvent, NULL, &device);
    if (status == VEXA_USB_STATUS_SUCCESS) /* 16 buffers of 1 MiB, from endpoint 0x82 */
        status = vexa_usb_data_stream_start(device, 0x82, 1048576, 16);
    while (status == VEXA_USB_STATUS_SUCCESS && !failed && done < 64 * 1048576) {
        sem_wait(&events);
        if (failed || (status = vexa_usb_data_stream_buffer_lock(device, &data, &size)) != 0)
            break;
        for (i = 0; i < size; ++i)
            sum += data[i];
        done += size;
        status = vexa_usb_data_stream_buffer_unlock(device);
    }
    printf("%llu bytes, sum %llu: %s\n", (unsigned long long)done, (unsigned long long)sum,
           failed ? "stream failed" : vexa_usb_get_status_str(status));
    if (device != NULL)
        vexa_usb_close(device); /* stops the stream, too */
    if (list != NULL)
        vexa_usb_free_device_list(list);
    vexa_usb_fini();
    return failed || status != VEXA_USB_STATUS_SUCCESS;
}
