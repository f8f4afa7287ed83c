/*
 * What the Python package puts between itself and the library, in C's terms, so that cffi can read
 * it.  Python code never runs on the library's threads: their callbacks fill queues here, and
 * Python waits for a file descriptor.  A device is known to Python by a number that is never used
 * again, so that a call that comes too late meets nothing.
 */
#pragma once

#include <stdint.h>

#include "vexa_usb.h"

/* What can be waited for; a watch of the device list has events only. */
enum { kBridgeStream, kBridgeEvents, kBridgeLoad };

/* Results of bridgeWait(). */
enum { kBridgeReady, kBridgeTimedOut, kBridgeInterrupted };

/* Results beside the library's statuses. */
enum {
    kBridgeClosed = -100,       /* the object was closed */
    kBridgeStreamFailed = -101, /* all that came before the stream's error event was read */
    kBridgeViewed = -102,       /* the ring of the last stream is still looked at */
    kBridgeBusy = -103,         /* calls are in progress */
    kBridgeEmpty = -104,        /* nothing there */
};

typedef struct BridgeChange {
    uint64_t id;
    uint32_t type;
    uint16_t vendor_id;
    uint16_t product_id;
} BridgeChange;

/* The text of the C++ exception that ended this thread's last call, or an empty one. */
const char *bridgeException(void);

/* The interpreter ends, on this thread: others that are inside a call do not come back from it. */
void bridgeLeave(void);
/* In a process that was forked, where the library's threads are not: nothing is closed any more,
 * and it will leave without them. */
void bridgeForked(void);

uint64_t bridgeDeviceNew(void);
int32_t bridgeOpen(uint64_t device, const _vexa_usb_device_list_item *record);
/*
 * Turns new calls away and closes the device once nobody is inside a call or has a view of its
 * ring: at once (0); or whoever is the last does, and this answers kBridgeBusy or kBridgeViewed.
 * Waits that long for calls.
 */
int32_t bridgeClose(uint64_t device, uint32_t timeoutMs);
int32_t bridgeIsRemoved(uint64_t device, uint32_t timeoutMs);
/* The next event; without one kBridgeEmpty, DEVICE_REMOVED or kBridgeClosed; NO_MEMORY once, when
 * the queue has been emptied, if events were lost for want of it. */
int64_t bridgeTakeEvent(uint64_t device);

int32_t bridgeStreamStart(uint64_t device, uint8_t endpoint, uint64_t bufferSize,
                          uint64_t bufferCount, int32_t strict);
/* Stops at once, or when the last view of the ring has gone, and answers kBridgeViewed then. */
int32_t bridgeStreamStop(uint64_t device);
/* Gives the locked buffer back and locks the next full one, if there is one (else kBridgeEmpty). */
int32_t bridgeStreamNext(uint64_t device, uint8_t **data, uint64_t *size);
/* The locked buffer has got a view, which will tell of its end. */
void bridgeStreamViewed(uint64_t device);
void bridgeViewGone(void *data);

/* Downloads; stops between blocks, and closes the device, once a close was asked for. */
int32_t bridgeDfuDownload(uint64_t device, const uint8_t *data, uint64_t size);
double bridgeProgress(uint64_t device);
void bridgeLoadEnded(uint64_t device);

/* 0 when the callback cannot be registered; `status` tells why. */
uint64_t bridgeWatchNew(int32_t *status);
/* Without a change kBridgeEmpty, kBridgeClosed, or NO_MEMORY as above. */
int32_t bridgeTakeChange(uint64_t watch, BridgeChange *change);

/* Of devices and watches. */
int32_t bridgeWait(uint64_t id, int32_t what, int32_t timeoutMs);
/* A file descriptor of the caller's own that is readable while there is something; kBridgeClosed
 * when there is no such source, else the negative errno. */
int32_t bridgeDuplicate(uint64_t id, int32_t what);
/* Ends it, if that was not done, and forgets it. */
void bridgeFree(uint64_t id);
