/**
 * @file vexa_usb.h
 * @brief Access to a family of USB instruments: device list, transfers, events, data streams.
 *
 * All use of the library lies between vexa_usb_init() and the matching vexa_usb_fini().
 *
 * **Status codes.** Functions return a 32-bit status: 0 on success, negative on an error, and in
 * one case 1 (#VEXA_USB_STATUS_DATA_STREAM_BUFFER_EMPTY).  vexa_usb_get_status_str() gives the
 * text.  Checks are made in a fixed order, and the first that fails decides: initialisation
 * (-3), required pointers and ranges (-5), endpoint direction (-11), the state of the object
 * (such as -8 or -9), and whether the device was removed (-12).  Where a function differs, its
 * description says so.
 *
 * **Threads.** Every function may be called from any thread, callbacks included, unless its
 * description restricts it.  Several threads may transfer on one device at once.  A handle must
 * not be closed while another thread is inside a call with it.  No signal handler interrupts a call
 * or changes its time limits.  No function is a cancellation point: a thread that is cancelled
 * inside one ends at its next cancellation point after the call.
 *
 * **Forks.** A child that is forked while the library is in use cannot use it: vexa_usb_init() and
 * vexa_usb_fini() do nothing there, vexa_usb_get_max_packet_size() answers -1 (-12 if the device
 * was removed), and all else that tests the initialisation answers -3.  The parent is not
 * disturbed.  The child may exec and exit; until then it keeps the devices' files open.  A child
 * that is to use devices is forked before the first vexa_usb_init() or after the last
 * vexa_usb_fini().
 *
 * **Callbacks** run under no lock of the library.  They may call any function, including
 * vexa_usb_close() on the device that they report on and the last vexa_usb_fini().  They must not
 * throw.  A download's progress callback runs on the thread that downloads; all others run on
 * threads of the library, those of a device one at a time, and those of the list, too.  These
 * threads block all signals but those that report a fault of the thread itself (SIGSEGV, SIGBUS,
 * SIGFPE, SIGILL, SIGTRAP, SIGSYS), so other signal handlers run on the caller's own threads.  A
 * process that is started from a callback on one of them inherits that mask: unblock the signals in
 * it before the exec.
 *
 * **Removal.** A device that leaves the bus fails the transfers in progress with
 * #VEXA_USB_STATUS_UNKNOWN; once the library has taken notice, the device's callback gets
 * #VEXA_USB_DEVICE_EVENT_REMOVED and every call on the device that is otherwise valid answers
 * #VEXA_USB_STATUS_DEVICE_REMOVED, except vexa_usb_close(), which is still due and succeeds, and
 * vexa_usb_lpc4370_load_firmware(), which is never supported.
 *
 * **Finalisation.** The last vexa_usb_fini() ends all transfers and marks devices that are still
 * open as removed.  Their handles stay valid and are closed after a later vexa_usb_init().
 *
 * **Memory.** Functions that allocate may let a C++ exception (`std::bad_alloc`,
 * `std::system_error`) through where no status is documented for it; C programs then end. Stopping,
 * closing and finalising need no memory.  Without memory for an event, a stream ends with
 * #VEXA_USB_DEVICE_EVENT_DATA_STREAM_ERROR, an event pipe ends, and a device that was plugged in is
 * listed by the next update.
 *
 * **Environment.** Three variables change what the library does:
 * - `VEXA_USB_LOG`, read when the library is started: `error`, `info` or `debug` has it write to
 *   standard error why something failed and what to do about it; unset or empty, it is silent; any
 *   other word is treated as `error`.  Lines are written where things happen, so standard error has
 *   to be drained: while it blocks, the library does.
 * - `VEXA_USB_STREAM`, read at each vexa_usb_data_stream_start(): `strict` has a stream end at its
 *   first gap; unset, empty, `default` or any other word, it goes on.
 * - `VEXA_USB_RING`, read at the same moment: `private` keeps the stream's buffers in ordinary
 *   memory; unset, empty, `shared` or any other word, see vexa_usb_data_stream_start().
 *
 * **Unloading.** The library stays in memory when a program that has loaded it with dlopen() closes
 * it: its threads may still be at work.  Loading it again finds it as it was left.
 */
#ifndef VEXA_USB_H
#define VEXA_USB_H

#include <stdint.h>

#include "vexa_usb_config.h"

/** Marks a function that the library exports; of no meaning to its callers. */
#if defined(__GNUC__)
#define VEXA_USB_API __attribute__((visibility("default")))
#else
#define VEXA_USB_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/** @name Status codes
 * @{ */
/** What functions return: the whole set; no function returns another value. */
enum vexa_usb_status {
    VEXA_USB_STATUS_DATA_STREAM_BUFFER_EMPTY = 1,     /**< No buffer can be locked now. */
    VEXA_USB_STATUS_SUCCESS = 0,                      /**< Done. */
    VEXA_USB_STATUS_UNKNOWN = -1,                     /**< Failed; USB errors among them. */
    VEXA_USB_STATUS_NOT_SUPPORTED = -2,               /**< The device cannot do this. */
    VEXA_USB_STATUS_NOT_INITIALIZED = -3,             /**< Outside vexa_usb_init()/fini(). */
    VEXA_USB_STATUS_NO_MEMORY = -4,                   /**< An allocation failed. */
    VEXA_USB_STATUS_INVALID_PARAMETERS = -5,          /**< A null pointer, or out of range. */
    VEXA_USB_STATUS_EVENT_PIPE_NOT_ACTIVE = -6,       /**< The event pipe was never enabled. */
    VEXA_USB_STATUS_EVENT_PIPE_ACTIVE = -7,           /**< The event pipe was enabled before. */
    VEXA_USB_STATUS_STREAM_BUFFER_ACTIVE = -8,        /**< A data stream is active. */
    VEXA_USB_STATUS_STREAM_BUFFER_NOT_ACTIVE = -9,    /**< No data stream is active. */
    VEXA_USB_STATUS_ENDPOINT_NOT_SUPPORTED = -10,     /**< The device has no such endpoint. */
    VEXA_USB_STATUS_INVALID_ENDPOINT_DIRECTION = -11, /**< IN where OUT is due, or reverse. */
    VEXA_USB_STATUS_DEVICE_REMOVED = -12,             /**< The device has left the bus. */
    VEXA_USB_STATUS_TIMEOUT = -13,                    /**< The device did not answer in time. */
    VEXA_USB_STATUS_NOT_ALL_DATA_TRANSFERRED = -14    /**< The transfer was short. */
};
/** @} */

/** @name Device events
 * @{ */
/** What a device's callback receives.  The values 0 to 255 are also those of single bytes that a
 * device sends as events; 4 and 5 cannot be told apart from such bytes. */
enum vexa_usb_device_event {
    VEXA_USB_DEVICE_EVENT_DATA_STREAM_BUFFER_FULL = 4, /**< One more buffer holds its data. */
    VEXA_USB_DEVICE_EVENT_DATA_STREAM_ERROR = 5,       /**< The stream could not go on. */
    VEXA_USB_DEVICE_EVENT_REMOVED = 256,               /**< The device has left the bus. */
    VEXA_USB_DEVICE_EVENT_DATA_STREAM_STARTED = 257,   /**< The stream has started. */
    VEXA_USB_DEVICE_EVENT_DATA_STREAM_STOPPED = 258    /**< The stream has been stopped. */
};
/** @} */

/** @name Changes of the device list
 * @{ */
/** What the device list's callbacks receive. */
enum vexa_usb_device_list_event {
    VEXA_USB_DEVICE_LIST_EVENT_ADDED = 1,  /**< A device was added. */
    VEXA_USB_DEVICE_LIST_EVENT_REMOVED = 2 /**< A device was removed. */
};
/** @} */

/** @name Fields of a control transfer's bmRequestType
 * @{ */
/** Direction of a control transfer, as in chapter 9.3 of the USB 2.0 specification. */
enum vexa_usb_direction {
    VEXA_USB_DIRECTION_OUT = 0, /**< Host to device. */
    VEXA_USB_DIRECTION_IN = 1   /**< Device to host. */
};

/** Type of a control transfer: whose request it is. */
enum vexa_usb_type {
    VEXA_USB_TYPE_STANDARD = 0, /**< Request of the USB standard. */
    VEXA_USB_TYPE_CLASS = 1,    /**< Request of a device class. */
    VEXA_USB_TYPE_VENDOR = 2    /**< Request of the device's vendor. */
};

/** Recipient of a control transfer: whom it is for. */
enum vexa_usb_recipient {
    VEXA_USB_RECIPIENT_DEVICE = 0,    /**< To the device. */
    VEXA_USB_RECIPIENT_INTERFACE = 1, /**< To an interface. */
    VEXA_USB_RECIPIENT_ENDPOINT = 2,  /**< To an endpoint. */
    VEXA_USB_RECIPIENT_OTHER = 3      /**< To something else. */
};
/** @} */

/** Version of the library; a constant that the library owns. */
typedef struct _vexa_usb_version {
    uint16_t major;     /**< Changes when the interface breaks. */
    uint16_t minor;     /**< Changes when the interface grows. */
    uint16_t patch;     /**< Changes with every other release. */
    uint16_t build;     /**< Number of the build. */
    const char *suffix; /**< Mark of a pre-release; empty for a release, never null. */
} _vexa_usb_version;

/**
 * One device of the device list, as it was when the record was made.  The record does not keep the
 * device in the list: opening it fails once the device has gone.  Records are not copied by
 * callers, since the private field counts as a reference.
 */
typedef struct _vexa_usb_device_list_item {
    uint64_t id; /**< Unique in the life of the process; a device that returns gets a new one. */
    uint16_t vendor_id;  /**< idVendor of the device descriptor. */
    uint16_t product_id; /**< idProduct of the device descriptor. */
    uint32_t reserved;   /**< Not written. */
    void *item[2];       /**< Private to the library. */
} _vexa_usb_device_list_item;

/**
 * USB device descriptor (USB 2.0, chapter 9.6.1) without its first two bytes, in host byte order.
 */
typedef struct _vexa_usb_device_descriptor {
    uint16_t bcdUSB;            /**< Holds bcdDevice, not bcdUSB. */
    uint8_t bDeviceClass;       /**< Class code. */
    uint8_t bDeviceSubClass;    /**< Subclass code. */
    uint8_t bDeviceProtocol;    /**< Protocol code. */
    uint8_t bMaxPacketSize0;    /**< Not written: keeps what the caller had there. */
    uint16_t idVendor;          /**< Vendor identifier. */
    uint16_t idProduct;         /**< Product identifier. */
    uint16_t bcdDevice;         /**< Release number of the device. */
    uint8_t iManufacturer;      /**< Index of the manufacturer's string; 0 means none. */
    uint8_t iProduct;           /**< Index of the product's string; 0 means none. */
    uint8_t iSerialNumber;      /**< Index of the serial number's string; 0 means none. */
    uint8_t bNumConfigurations; /**< Number of configurations. */
} _vexa_usb_device_descriptor;

/** An opened device; made by vexa_usb_open(), freed by vexa_usb_close(). */
typedef struct _vexa_usb_device _vexa_usb_device;

/** A device event: one of VEXA_USB_DEVICE_EVENT_*, or a byte (0 to 255) from the device. */
typedef uint32_t _vexa_usb_device_event;

/**
 * Receives the events of one opened device, in their order, one at a time.
 *
 * Runs on a thread of that device ("usb-device" and a number), under no lock, so it may call any
 * function: transfer, stream, close the device, even the last vexa_usb_fini().  A callback that
 * takes long delays this device's later events only; they are kept without limit.
 *
 * Calls come from the opening until the closing.  The first may come before vexa_usb_open() has
 * returned, when the device leaves at that moment; the handle is written by then.  They go on after
 * the last vexa_usb_fini(), which itself causes #VEXA_USB_DEVICE_EVENT_REMOVED.  Closing the device
 * does not wait for them: one call may still be running, or be just about to begin, when
 * vexa_usb_close() returns, and what @p data points to must outlive that call.
 *
 * @param event what happened
 * @param data the pointer given to vexa_usb_open()
 */
typedef void (*vexa_usb_device_event_callback)(_vexa_usb_device_event event, void *data);

/**
 * Receives the changes of the device list, in their order, one at a time.
 *
 * Runs on the library's thread "usb-devicelist", under no lock, so it may call any function:
 * register and deregister callbacks, open the device, even the last vexa_usb_fini().  Callbacks are
 * called in the order of their registration.  A callback that takes long delays later changes only;
 * they are kept without limit.
 *
 * After its deregistration, or the last vexa_usb_fini(), a callback can be called once more for the
 * change whose delivery has begun: what @p data points to must outlive that call.
 *
 * @param type #VEXA_USB_DEVICE_LIST_EVENT_ADDED or #VEXA_USB_DEVICE_LIST_EVENT_REMOVED
 * @param item the device; valid during the call only.  To keep it, keep its numbers; the record
 * with the same @c id in a later vexa_usb_get_device_list() can be opened.  On an addition it can
 * be given to vexa_usb_open() here; on a removal that answers -1.  A device opened from it hears of
 * its removal (#VEXA_USB_DEVICE_EVENT_REMOVED) after all callbacks have.
 * @param data the pointer given at the registration
 */
typedef void (*vexa_usb_device_list_event_callback)(uint32_t type,
                                                    const _vexa_usb_device_list_item *item,
                                                    void *data);

/**
 * Begins use of the library.  The first call starts it, further ones only count; each is balanced
 * by one vexa_usb_fini().  Calls may come from many threads at once: only a starting and an ending
 * call wait for each other.
 *
 * Nothing is reported: where USB cannot be had, the device list stays empty.  Devices attached
 * already are listed after vexa_usb_update_device_list() only, later ones by themselves.  After a
 * last vexa_usb_fini() the library can be started again, but then it no longer follows the bus by
 * itself nor completes data streams and event pipes: synchronous transfers and
 * vexa_usb_update_device_list() work. Stopping a data stream closes the device's USB connection
 * then, so that its later transfers answer -1 until it is closed and opened again.
 *
 * A process that exits without the last vexa_usb_fini() ends by `std::terminate`, but for a child
 * that was forked meanwhile.
 */
VEXA_USB_API void vexa_usb_init(void);

/**
 * Ends one use of the library.  The call that balances the first vexa_usb_init() ends all
 * transfers and marks open devices removed (those that a list callback is just hearing of, or has
 * yet to hear of, when the callback that is running returns) and returns; callbacks in progress are
 * not waited for.  Calls in progress on other threads are: a synchronous transfer for at most its
 * time limit of 1000 ms, a vexa_usb_open() or vexa_usb_update_device_list() for as long as the
 * system takes, which has no limit.  Devices that do not give up their event transfers are waited
 * for, half a second at most for all together.
 *
 * A call too many is an error that is not detected: the library no longer works then.
 */
VEXA_USB_API void vexa_usb_fini(void);

/** @return the library's version; valid for ever, also without vexa_usb_init(). */
VEXA_USB_API const _vexa_usb_version *vexa_usb_get_version(void);

/**
 * @param status any value
 * @return the text of a status code, or the empty text for a value that is none; never null, valid
 *         for ever, also without vexa_usb_init()
 */
VEXA_USB_API const char *vexa_usb_get_status_str(int32_t status);

/**
 * Makes a snapshot of the device list, oldest entry first.
 *
 * @param[out] list receives a new array of records, ended by a null pointer; the caller frees it
 *             with vexa_usb_free_device_list().  Written on success, and before an exception for
 *             want of memory, when it may be freed as well.
 * @param[out] count receives the number of records; may be null
 * @retval 0 done
 * @retval -3 library not initialised, or just being started or ended by another thread
 * @retval -5 @p list is null
 */
VEXA_USB_API int32_t vexa_usb_get_device_list(_vexa_usb_device_list_item ***list, uint64_t *count);

/**
 * Frees a snapshot, its records included.
 *
 * @param list what vexa_usb_get_device_list() gave
 * @retval 0 done
 * @retval -3 library not initialised; nothing is freed
 * @retval -5 @p list is null
 */
VEXA_USB_API int32_t vexa_usb_free_device_list(_vexa_usb_device_list_item **list);

/**
 * Adds the supported devices that are attached and not yet listed.  Removes nothing.
 *
 * @retval 0 done, also when the bus could not be read
 * @retval -3 library not initialised, or just being started or ended by another thread
 */
VEXA_USB_API int32_t vexa_usb_update_device_list(void);

/**
 * Registers a callback for changes of the device list, from the next delivery on.  That of an
 * update which has returned may be still to come: the callback is then called for what that update
 * listed.
 *
 * @param callback called for each change; see its type for threads and lifetimes
 * @param data handed to @p callback; may be null
 * @param[out] id receives the identifier for the deregistration; the first since vexa_usb_init() is
 *             0, the next 1, and so on
 * @retval 0 done
 * @retval -3 library not initialised, or just being started or ended by another thread
 * @retval -5 @p callback or @p id is null
 */
VEXA_USB_API int32_t vexa_usb_register_device_list_event_callback(
    vexa_usb_device_list_event_callback callback, void *data, uint32_t *id);

/**
 * Ends a registration.  A delivery in progress is not waited for: the callback can be called once
 * more after this has returned.
 *
 * @param id the identifier; an unknown one is no error
 * @retval 0 done
 * @retval -3 library not initialised, or just being started or ended by another thread
 */
VEXA_USB_API int32_t vexa_usb_deregister_device_list_event_callback(uint32_t id);

/**
 * Opens a device and claims its interface 0, from a kernel driver too.
 *
 * @param entry a record of a snapshot; not kept
 * @param callback receives the device's events
 * @param data handed to @p callback; may be null
 * @param[out] device receives the handle, to be closed with vexa_usb_close(); written on success
 *             only
 * @retval 0 done
 * @retval -1 the device has gone, is in use elsewhere, or may not be accessed (the log says which),
 *         or there is no memory
 * @retval -3 library not initialised, or just being started or ended by another thread
 * @retval -5 @p entry, @p callback or @p device is null
 * @retval -13 opening timed out
 */
VEXA_USB_API int32_t vexa_usb_open(const _vexa_usb_device_list_item *entry,
                                   vexa_usb_device_event_callback callback, void *data,
                                   _vexa_usb_device **device);

/**
 * Closes a device: ends its event pipe and data stream, releases interface 0 and frees the handle.
 * When it returns, another program can open the device.  Events not yet delivered are dropped.  A
 * device that does not give up its event transfer is waited for, half a second at most.
 *
 * @param device the handle; must not be in use by another thread
 * @retval 0 done, also for a removed device
 * @retval -3 library not initialised; the handle stays valid
 * @retval -5 @p device is null
 */
VEXA_USB_API int32_t vexa_usb_close(_vexa_usb_device *device);

/**
 * Would tell the version of a kernel driver; no device of this library has one.
 *
 * @param device the handle
 * @param[out] version not written
 * @retval -2 always, when nothing else is wrong
 * @retval -3 library not initialised
 * @retval -5 @p device or @p version is null
 * @retval -12 device removed
 */
VEXA_USB_API int32_t vexa_usb_get_kernel_driver_version(_vexa_usb_device *device,
                                                        _vexa_usb_version *version);

/**
 * Gives the device descriptor that was read when the device was opened.
 *
 * @param device the handle
 * @param[out] descriptor receives 16 bytes, of which bMaxPacketSize0 is left as it was
 * @param size room at @p descriptor in bytes, at least 16
 * @retval 0 done
 * @retval -3 library not initialised
 * @retval -5 a pointer is null or @p size below 16
 * @retval -12 device removed
 */
VEXA_USB_API int32_t vexa_usb_get_device_descriptor(_vexa_usb_device *device,
                                                    _vexa_usb_device_descriptor *descriptor,
                                                    uint64_t size);

/**
 * Gives an endpoint's wMaxPacketSize.  The initialisation is not tested.
 *
 * @param device the handle; not tested, must not be null
 * @param endpoint the endpoint's address, bit 7 set for IN
 * @param[out] size receives the size in bytes
 * @retval 0 done
 * @retval -1 the size could not be had
 * @retval -5 @p size is null
 * @retval -10 the active configuration has no such endpoint
 * @retval -12 device removed
 */
VEXA_USB_API int32_t vexa_usb_get_max_packet_size(_vexa_usb_device *device, uint8_t endpoint,
                                                  uint16_t *size);

/**
 * Does a control transfer on endpoint 0 and waits for it, at most 1000 ms.
 *
 * @param device the handle
 * @param direction #VEXA_USB_DIRECTION_OUT or #VEXA_USB_DIRECTION_IN
 * @param type one of VEXA_USB_TYPE_*
 * @param recipient one of VEXA_USB_RECIPIENT_*; this and the two before are put together without a
 *        check
 * @param request bRequest
 * @param value wValue
 * @param index wIndex
 * @param data the data stage's bytes, sent or received; may be null when @p length is 0
 * @param length number of bytes, at most 65535
 * @retval 0 all of @p length was transferred
 * @retval -1 @p length above 65535, or the transfer failed, for instance by a stall
 * @retval -3 library not initialised
 * @retval -5 @p device is null
 * @retval -12 device removed
 * @retval -13 the device did not answer in time
 * @retval -14 the device sent or took less
 */
VEXA_USB_API int32_t vexa_usb_control_transfer(_vexa_usb_device *device, int32_t direction,
                                               int32_t type, int32_t recipient, uint8_t request,
                                               uint16_t value, uint16_t index, uint8_t *data,
                                               uint64_t length);

/**
 * Reads from an interrupt IN endpoint and waits for all of it.
 *
 * The request is carried out in pieces of at most 524288 bytes, each with a time limit of 1000 ms.
 * After a failure an unknown part of @p data has been written.  A halted endpoint stays halted.
 *
 * @param device the handle
 * @param endpoint the endpoint's address, bit 7 set
 * @param[out] data receives the bytes
 * @param length number of bytes, above 0
 * @retval 0 all of @p length was transferred
 * @retval -1 the transfer failed, for instance by a stall
 * @retval -3 library not initialised
 * @retval -5 a pointer is null or @p length is 0
 * @retval -11 not an IN endpoint
 * @retval -12 device removed
 * @retval -13 the device did not answer in time
 * @retval -14 the device sent less
 */
VEXA_USB_API int32_t vexa_usb_interrupt_read(_vexa_usb_device *device, uint8_t endpoint,
                                             uint8_t *data, uint64_t length);

/**
 * Writes to an interrupt OUT endpoint and waits until all was taken.
 *
 * In pieces and with time limits as vexa_usb_interrupt_read().  After a failure the device has
 * got an unknown part of the data.
 *
 * @param device the handle
 * @param endpoint the endpoint's address, bit 7 clear
 * @param data the bytes; only read
 * @param length number of bytes, above 0
 * @retval 0 all of @p length was transferred
 * @retval -1 the transfer failed, for instance by a stall
 * @retval -3 library not initialised
 * @retval -5 a pointer is null or @p length is 0
 * @retval -11 not an OUT endpoint
 * @retval -12 device removed
 * @retval -13 the device did not take the data in time
 * @retval -14 the device took less
 */
VEXA_USB_API int32_t vexa_usb_interrupt_write(_vexa_usb_device *device, uint8_t endpoint,
                                              const uint8_t *data, uint64_t length);

/**
 * Reads from a bulk IN endpoint and waits for all of it.
 *
 * Otherwise as vexa_usb_interrupt_read().
 *
 * @param device the handle
 * @param endpoint the endpoint's address, bit 7 set
 * @param[out] data receives the bytes
 * @param length number of bytes, above 0
 * @retval 0 all of @p length was transferred
 * @retval -1 the transfer failed, for instance by a stall
 * @retval -3 library not initialised
 * @retval -5 a pointer is null or @p length is 0
 * @retval -11 not an IN endpoint
 * @retval -12 device removed
 * @retval -13 the device did not answer in time
 * @retval -14 the device sent less
 */
VEXA_USB_API int32_t vexa_usb_bulk_read(_vexa_usb_device *device, uint8_t endpoint, uint8_t *data,
                                        uint64_t length);

/**
 * Writes to a bulk OUT endpoint and waits until all was taken.
 *
 * Otherwise as vexa_usb_interrupt_write().
 *
 * @param device the handle
 * @param endpoint the endpoint's address, bit 7 clear
 * @param data the bytes; only read
 * @param length number of bytes, above 0
 * @retval 0 all of @p length was transferred
 * @retval -1 the transfer failed, for instance by a stall
 * @retval -3 library not initialised
 * @retval -5 a pointer is null or @p length is 0
 * @retval -11 not an OUT endpoint
 * @retval -12 device removed
 * @retval -13 the device did not take the data in time
 * @retval -14 the device took less
 */
VEXA_USB_API int32_t vexa_usb_bulk_write(_vexa_usb_device *device, uint8_t endpoint,
                                         const uint8_t *data, uint64_t length);

/**
 * Enables the event pipe: from now on every byte that the device sends on an endpoint becomes one
 * device event (0 to 255), in the order of the bytes.
 *
 * One transfer of the endpoint's packet size is kept armed.  The pipe can be enabled once for each
 * opened device: close and open the device to enable it again, also after a
 * vexa_usb_event_pipe_disable(), and after the transfer has ended by itself because of an error,
 * which only the log tells.
 *
 * @param device the handle
 * @param endpoint the endpoint's address, bit 7 set; interrupt or bulk
 * @retval 0 enabled
 * @retval -1 the device has no such endpoint, or the transfer could not be submitted; may be
 * retried
 * @retval -2 the device has no event pipe
 * @retval -3 library not initialised
 * @retval -4 no memory for the transfer
 * @retval -5 @p device is null
 * @retval -7 the event pipe was enabled before
 * @retval -11 not an IN endpoint
 * @retval -12 device removed
 */
VEXA_USB_API int32_t vexa_usb_event_pipe_enable(_vexa_usb_device *device, uint8_t endpoint);

/**
 * Disables the event pipe.  Events that came before are still delivered.  Closing the device
 * disables as well.
 *
 * @param device the handle
 * @retval 0 disabled, also when it had been disabled or had ended before
 * @retval -2 the device has no event pipe
 * @retval -3 library not initialised
 * @retval -5 @p device is null
 * @retval -6 the event pipe was never enabled
 * @retval -12 device removed
 */
VEXA_USB_API int32_t vexa_usb_event_pipe_disable(_vexa_usb_device *device);

/**
 * Starts to stream from a bulk IN endpoint into a ring of buffers.
 *
 * Three transfers of at most 512 KiB are kept in flight.  The device's callback gets
 * #VEXA_USB_DEVICE_EVENT_DATA_STREAM_STARTED, then
 * #VEXA_USB_DEVICE_EVENT_DATA_STREAM_BUFFER_FULL for each buffer that has its data, in ring order.
 * Drain the ring with vexa_usb_data_stream_buffer_lock() and
 * vexa_usb_data_stream_buffer_unlock(), one lock for each such event.
 *
 * A stream that cannot go on, because the next buffer has not been given back or because USB
 * refuses a transfer, reports #VEXA_USB_DEVICE_EVENT_DATA_STREAM_ERROR once; when that is during
 * the start, before the started event.  Buffers reported full can still be drained, one for each
 * buffer-full event and no more: what further locks would give was never filled.  Nothing is ever
 * overwritten.  The stream stays active, and must be stopped before another start.
 *
 * **Gaps.** By default only those ends are reported.  A transfer that fails on the bus is dropped
 * without an event: no buffer-full event comes for a buffer that it was to complete, further locks
 * may give buffers out of step with their events, and when all three transfers have failed the
 * events cease.  Data that a device cuts short with a short packet leave a gap of unspecified
 * bytes.  And behind the error event buffers may be reported full whose data come from behind the
 * gap: drain what was reported before it, and nothing that is reported behind it.
 *
 * With `VEXA_USB_STREAM=strict` in the environment at the start, which every new driver should set,
 * a transfer that fails or brings less than it was to ends the stream as a refused one does, with
 * the error event, and no buffer is reported full from there on.  What is read with one lock for
 * each buffer-full event is then what the device sent, from the first byte on and without a gap.
 * The device must fill every transfer for that: one that ends a stream with a short packet shows as
 * the error event.  A device that leaves may show as the error event shortly before
 * #VEXA_USB_DEVICE_EVENT_REMOVED.
 *
 * Buffers need not be multiples of the endpoint's packet size.  They should be above 64 KiB for
 * speed, and there should be enough of them to outlast the caller's pauses.  Three transfers are
 * prepared at the start, so below 512 KiB there must be at least 3 buffers of a multiple of the
 * packet size or 4 of another size, and more to go on while one is read; of buffers smaller than a
 * packet, more than three packets' worth.  Too few show as the error event.
 *
 * **Memory.** On x86-64 the kernel fills buffers itself where that takes nothing away from others:
 * where the system's limit for USB transfers (`/sys/module/usbcore/parameters/usbfs_memory_mb`) is
 * at least 64 MiB or 0 (none), as long as all programs that use this library share a quarter of it
 * at most, and 2 MiB stay free for each supported device on the bus.  What goes beyond that or is
 * refused is ordinary memory, to which the kernel copies.  Shared buffers are mapped device memory:
 * they can be read, written, and passed to transfers and, in general, to write(), but not to what
 * pins their pages, which answers `EFAULT`: files opened with `O_DIRECT` or on file systems without
 * a page cache, registered buffers of io_uring, `MSG_ZEROCOPY`, `vmsplice`.  A debugger and a core
 * dump do not show them, and a forked child sees what is there now.  Where that matters, set
 * `VEXA_USB_RING=private` before the start.  `VEXA_USB_LOG=info` tells what is shared, and why not
 * the rest.
 *
 * @param device the handle
 * @param endpoint the endpoint's address, bit 7 set
 * @param buffer_size bytes in one buffer, above 0
 * @param buffer_count number of buffers, above 0
 * @retval 0 started; a transfer that could not be submitted shows as the error event
 * @retval -1 the endpoint's packet size cannot be had or is 0
 * @retval -2 the device has no data stream (its USB version is below 1.1)
 * @retval -3 library not initialised
 * @retval -4 no memory for the buffers or transfers; nothing is in flight
 * @retval -5 @p device is null, or a size or count is 0
 * @retval -8 a stream is active already
 * @retval -11 not an IN endpoint
 * @retval -12 device removed
 */
VEXA_USB_API int32_t vexa_usb_data_stream_start(_vexa_usb_device *device, uint8_t endpoint,
                                                uint64_t buffer_size, uint64_t buffer_count);

/**
 * Stops a data stream and waits until its transfers have ended.  All buffers are freed: pointers
 * from vexa_usb_data_stream_buffer_lock() are no longer valid.  Unless the device was removed, its
 * callback gets #VEXA_USB_DEVICE_EVENT_DATA_STREAM_STOPPED.  Closing the device stops as well.
 *
 * @param device the handle
 * @retval 0 stopped
 * @retval -2 the device has no data stream
 * @retval -3 library not initialised
 * @retval -5 @p device is null
 * @retval -9 no stream is active
 * @retval -12 device removed; vexa_usb_close() frees the stream
 */
VEXA_USB_API int32_t vexa_usb_data_stream_stop(_vexa_usb_device *device);

/**
 * Locks the oldest buffer, for reading in place.
 *
 * Lock on #VEXA_USB_DEVICE_EVENT_DATA_STREAM_BUFFER_FULL, once for each: a buffer can be locked
 * from the moment when its last transfer has been submitted, before its data are all there.
 * This and the unlock wait for a vexa_usb_data_stream_stop() in progress on another thread.
 *
 * @param device the handle
 * @param[out] data receives the buffer's address; valid until the unlock, the stop or the close.
 * It may be another each time the ring comes round to the same buffer.
 * @param[out] size receives the number of bytes, always the buffer size given at the start
 * @retval 0 locked
 * @retval 1 no buffer is full, or one is locked already
 * @retval -2 the device has no data stream
 * @retval -3 library not initialised
 * @retval -5 a pointer is null
 * @retval -9 no stream is active
 * @retval -12 device removed
 */
VEXA_USB_API int32_t vexa_usb_data_stream_buffer_lock(_vexa_usb_device *device, uint8_t **data,
                                                      uint64_t *size);

/**
 * Gives the locked buffer back, to be filled again.
 *
 * @param device the handle
 * @retval 0 given back
 * @retval -1 no buffer is locked
 * @retval -2 the device has no data stream
 * @retval -3 library not initialised
 * @retval -5 @p device is null
 * @retval -9 no stream is active
 * @retval -12 device removed
 */
VEXA_USB_API int32_t vexa_usb_data_stream_buffer_unlock(_vexa_usb_device *device);

/**
 * Gives the largest stream memory (buffer size times count) that is advised, in bytes.  It is not
 * enforced.
 *
 * @param device the handle
 * @param[out] size receives the number of bytes
 * @retval 0 done
 * @retval -2 the device has no data stream
 * @retval -3 library not initialised
 * @retval -5 a pointer is null
 * @retval -12 device removed
 */
VEXA_USB_API int32_t vexa_usb_data_stream_memory_size_max(_vexa_usb_device *device, uint64_t *size);

/**
 * Gives the highest stream rate that the device's USB version is good for: 1000000 (USB 1.1),
 * 40000000 (2.x) or 400000000 (3.0 and later), in bytes a second.  It is not enforced.
 *
 * @param device the handle
 * @param[out] rate receives the rate
 * @retval 0 done
 * @retval -2 the device has no data stream
 * @retval -3 library not initialised
 * @retval -5 a pointer is null
 * @retval -12 device removed
 */
VEXA_USB_API int32_t vexa_usb_data_stream_rate_max(_vexa_usb_device *device, uint64_t *rate);

/** @name Firmware
 * Functions that boot a bare processor from an image in memory.  They run on the calling thread,
 * transfer synchronously, and take no lock: two loads on one device at once are the caller's error.
 * They are done when the device was told to start; it then leaves the bus and comes back as another
 * device, which the device list reports.  A device that leaves in the middle of a load fails the
 * transfer in progress (#VEXA_USB_STATUS_UNKNOWN).  @{ */

/**
 * Called between the blocks of a download, on the thread that downloads, under no lock.  It must
 * not throw.  When it closes the device, vexa_usb_dfu_download() answers -1, with the download
 * incomplete.
 *
 * @param data as given to vexa_usb_dfu_download()
 * @param progress the part that is done, above 0 and up to 1
 */
typedef void (*vexa_usb_dfu_progress_callback)(void *data, double progress);

/**
 * Restarts the processor of a Cypress EZ-USB FX2: holds its 8051 in reset, releases it and waits
 * 50 ms for its program to start.
 *
 * @param device the handle
 * @retval 0 done
 * @retval -1 a transfer failed
 * @retval -3 library not initialised
 * @retval -5 @p device is null
 * @retval -12 device removed
 * @retval -13 a transfer timed out (1000 ms)
 * @retval -14 a transfer was short
 */
VEXA_USB_API int32_t vexa_usb_fx2_reset(_vexa_usb_device *device);

/**
 * Loads a program into a Cypress EZ-USB FX2 and starts it.  Memory below 0x3000 is written by the
 * chip itself, memory from there on by a loader that the library brings.
 *
 * The image holds Intel HEX records as raw bytes, back to back: byte count, address (high byte
 * first), type, data, checksum; "vexa-usb hex --binary" makes it from the text form.  Records up to
 * the first End Of File record are written at their 16-bit address, whatever their type; a record
 * without data is sent as a request without a data stage.  Records behind it are not written but
 * must be well formed.  An image of size 0 is empty.
 *
 * The program starts with bit 1 (RENUM) of the chip's register USBCS (0xE680) set and bit 3
 * (DISCON) clear: the loader has taken over the requests of the chip's built-in device, and neither
 * a reset of the processor nor this function gives them back.  So from its start the program gets
 * all requests but 0xA0 and SET_ADDRESS, while the host still knows the built-in device.  A program
 * must not take the set bit as a sign that it has renumerated already: to be seen as the
 * device that it makes, it has to set DISCON and RENUM, wait until the host has seen that
 * (half a second is plenty), and clear DISCON, whatever RENUM was, by itself or when
 * vexa_usb_fx2_renumerate() asks for it.
 *
 * After a failure the processor runs what it ran before, is held in reset (if its lower memory
 * may be incomplete), or runs the loader; the function can be called again.
 *
 * @note The one function that throws C++ exceptions on bad input: `std::out_of_range` for a record
 *       that runs past the end of the image, `std::runtime_error` for a wrong checksum.  The
 *       loader is running then.
 * @param device the handle
 * @param image the records, read during the call only; may be null with a size of 0.  Null with
 *        another size is undefined
 * @param size their length in bytes
 * @retval 0 done: the program was started.  It renumerates by itself, or by
 *         vexa_usb_fx2_renumerate()
 * @retval -1 a transfer failed
 * @retval -3 library not initialised
 * @retval -5 @p device is null
 * @retval -12 device removed
 * @retval -13 a transfer timed out (1000 ms)
 * @retval -14 a transfer was short
 */
VEXA_USB_API int32_t vexa_usb_fx2_load_firmware(_vexa_usb_device *device, const uint8_t *image,
                                                uint64_t size);

/**
 * Asks a program on a Cypress EZ-USB FX2 to leave the bus and come back (vendor request 0xD2).
 *
 * @param device the handle
 * @retval 0 done
 * @retval -1 the program does not know the request, or the transfer failed
 * @retval -3 library not initialised
 * @retval -5 @p device is null
 * @retval -12 device removed
 * @retval -13 the transfer timed out (1000 ms)
 */
VEXA_USB_API int32_t vexa_usb_fx2_renumerate(_vexa_usb_device *device);

/**
 * Loads a program into a Cypress FX3 that runs its boot loader, and starts it.
 *
 * The image is an FX3 boot image, in 32-bit little-endian words: a header, which is not looked at;
 * sections of a length in words, an address and the data words; then a length of 0, the address of
 * the program's entry, and the sum of all data words.  An image that ends without an entry is
 * loaded but not started, with result 0; so is one of a single word, with nothing sent.
 *
 * @param device the handle
 * @param image the image, aligned to 4 bytes; read during the call only
 * @param length its length in 32-bit words
 * @retval 0 done; whether the program could be started is not known
 * @retval -1 the checksum is wrong (the sections are written, the program is not started), or a
 *         transfer failed
 * @retval -3 library not initialised
 * @retval -5 @p device or @p image is null, @p image is not aligned, @p length is 0, or a record
 *         runs past the end of the image; sections before that record are written
 * @retval -12 device removed
 * @retval -13 a transfer timed out (1000 ms)
 * @retval -14 a transfer was short
 */
VEXA_USB_API int32_t vexa_usb_fx3_load_firmware(_vexa_usb_device *device, const uint32_t *image,
                                                uint64_t length);

/**
 * Downloads an image to a device that speaks USB Device Firmware Upgrade 1.1 on interface 0, in
 * blocks of up to 4096 bytes, and starts its manifestation.
 *
 * The device must be in dfuIDLE or dfuDNLOAD-IDLE.  After each block it is polled for as long as it
 * asks for that, without end; between two polls it is given the time that it asks for, up to
 * 16777 s.  A removal of which the device's callback is told, or the last vexa_usb_fini(), ends
 * both.  Block numbers wrap after 65535.
 *
 * @param device the handle
 * @param data the image, read during the call only
 * @param size its length in bytes
 * @param callback hears of the progress after each block; may be null
 * @param callback_data handed to @p callback; may be null
 * @retval 0 done: the manifestation was started
 * @retval -1 a block could not be sent, the device reported an error, or a transfer failed
 * @retval -3 library not initialised
 * @retval -5 @p device or @p data is null, or @p size is 0
 * @retval -12 device removed
 * @retval -13 a status request or the last block timed out (1000 ms)
 * @retval -14 a status was short
 */
VEXA_USB_API int32_t vexa_usb_dfu_download(_vexa_usb_device *device, const uint8_t *data,
                                           uint64_t size, vexa_usb_dfu_progress_callback callback,
                                           void *callback_data);

/**
 * Loads a secondary program loader into an NXP i.MX7 in serial-download mode, and starts it.
 *
 * @param device the handle
 * @param data the image, beginning with an i.MX Image Vector Table (tag 0xD1) without device
 *        configuration data; the table's own address tells where it is loaded.  Read during the
 *        call only
 * @param size its length in bytes
 * @retval 0 done: the program was started
 * @retval -1 the header is wrong (nothing is sent), or the load failed at some step
 * @retval -3 library not initialised
 * @retval -5 @p device or @p data is null, or @p size is 0
 * @retval -12 device removed
 */
VEXA_USB_API int32_t vexa_usb_imx7_load_firmware_spl(_vexa_usb_device *device, const uint8_t *data,
                                                     uint64_t size);

/**
 * Loads a boot loader into an NXP i.MX7 in serial-download mode, and starts it.
 *
 * @param device the handle
 * @param data the image, beginning with a legacy U-Boot image header (magic 0x27051956), whose load
 *        address is that of the payload behind the 64-byte header.  Read during the call only
 * @param size its length in bytes
 * @retval 0 done: the boot loader was started
 * @retval -1 the header is wrong, or the load failed at some step
 * @retval -3 library not initialised
 * @retval -5 @p device or @p data is null, or @p size is 0
 * @retval -12 device removed
 */
VEXA_USB_API int32_t vexa_usb_imx7_load_firmware_uboot(_vexa_usb_device *device,
                                                       const uint8_t *data, uint64_t size);

/**
 * Reserved for NXP's LPC4370, which this release cannot load.
 *
 * @param device the handle
 * @param data an image
 * @param size its length in bytes
 * @retval -2 not supported
 * @retval -3 library not initialised
 * @retval -5 @p device or @p data is null, or @p size is 0
 */
VEXA_USB_API int32_t vexa_usb_lpc4370_load_firmware(_vexa_usb_device *device, const uint8_t *data,
                                                    uint64_t size);
/** @} */

#ifdef __cplusplus
}
#endif

#endif
