/*
 * libztuvc — user-space driver for USB fingerprint readers that present
 * themselves as USB Video Class cameras with a vendor extension unit.
 *
 * Usage:  camera_init(); camera_device_enumerate(NULL, 0);
 *         h = camera_get_by_index(0); camera_open(h);
 *         camera_start_capture(h, 0);
 *         camera_get_image(h, 1000, &frame); ... camera_put_image(h, frame);
 *         camera_stop_capture(h); camera_close(h); camera_cleanup();
 *
 * Every function is thread-safe: one library-wide lock serialises them, and
 * it is held across waits (an image wait blocks every other call).
 * Diagnostics go to /tmp/traces.log (levels 1-2 by default); set
 * ZTTRACE_ON=1 or ZTTRACE_PATH=<dir> to trace every call.
 */
#ifndef ZTUVC_H
#define ZTUVC_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#define CAMERA_API __attribute__((visibility("default")))
#else
#define CAMERA_API
#endif

/* Result codes.  Queries that return a value return it as a non-negative
 * number and use these negative codes for failure. */
#define CAMERA_OK 0
#define CAMERA_ERR_FAILURE (-1)
#define CAMERA_ERR_NO_DEVICE (-2)
#define CAMERA_ERR_TIMEOUT (-110)

/* Opaque camera handle: valid from the enumeration that finds the reader
 * until an enumeration that no longer finds it. */
typedef struct CAMERA_DEVICE *CAMERA_HANDLE;

/* Image format, filled by camera_set_format. */
typedef struct CAMERA_FORMAT {
    uint32_t dwFourCC;    /* "YUYV", first character in the low byte */
    uint32_t dwWidth;     /* pixels */
    uint32_t dwHeight;    /* lines */
    uint32_t dwImageSize; /* bytes: dwWidth * 2 * dwHeight */
    uint32_t dwReserved;  /* 0 */
} CAMERA_FORMAT;

/* A frame from camera_get_image is the raw image (width x height bytes of
 * 8-bit grey, where the YUYV format's dwWidth x 2*dwHeight) followed by this
 * 12-byte trailer.  Times are milliseconds since the library's time base. */
typedef struct CAMERA_TIME_STAMP {
    char szSignature[4]; /* "TmSt" */
    uint32_t dwFrameStart;    /* first payload of the frame arrived */
    uint32_t dwFrameReturned; /* frame handed to the application */
} CAMERA_TIME_STAMP;

/* ---- Lifecycle and registry ---- */

/* Initialises the library on the first call; counts further calls. */
CAMERA_API void camera_init(void);
/* Undoes one camera_init; the last one shuts the transport down.  Cameras
 * must be closed first; the registry and its handles survive. */
CAMERA_API void camera_cleanup(void);
/* Brings the registry up to date with the attached readers: cameras that
 * stay attached keep their handles, vanished ones are closed and removed
 * (the last handle moves into the freed index), new ones are appended.
 * Both arguments are only traced. */
CAMERA_API void camera_device_enumerate(void *pReserved, int32_t iReserved);
/* Number of cameras in the registry (no lock, no trace). */
CAMERA_API uint32_t camera_device_count(void);
/* Handle at an index, or NULL when the index is not below the count. */
CAMERA_API CAMERA_HANDLE camera_get_by_index(uint32_t index);
/* Not implemented: always NULL. */
CAMERA_API CAMERA_HANDLE camera_get_by_vid_pid(uint16_t vid, uint16_t pid);

/* ---- Opening and identity ---- */

/* 0; CAMERA_ERR_FAILURE when already open; CAMERA_ERR_NO_DEVICE for an
 * unknown handle or a reader that cannot be opened (gone, busy in another
 * process, no permission). */
CAMERA_API int32_t camera_open(CAMERA_HANDLE handle);
/* Stops capture and closes; frame pointers become invalid. */
CAMERA_API void camera_close(CAMERA_HANDLE handle);
/* Identity queries work on closed cameras too.  Strings point into the
 * registry record (never free them); NULL / CAMERA_ERR_NO_DEVICE for an
 * unknown handle. */
CAMERA_API const char *camera_get_filename(CAMERA_HANDLE handle);
CAMERA_API int32_t camera_get_vid(CAMERA_HANDLE handle);
CAMERA_API int32_t camera_get_pid(CAMERA_HANDLE handle);
CAMERA_API int32_t camera_get_revision(CAMERA_HANDLE handle);
CAMERA_API const char *camera_get_product_name(CAMERA_HANDLE handle);
CAMERA_API const char *camera_get_manufacturer_name(CAMERA_HANDLE handle);
CAMERA_API const char *camera_get_serialnumber(CAMERA_HANDLE handle);

/* ---- Capture ---- */

/* Starts streaming with 1..4 frame slots (0 means 4).  Returns once the
 * reader delivers payload: 0; CAMERA_ERR_FAILURE when the stream cannot be
 * started, including a reader that sends no payload within 5 s;
 * CAMERA_ERR_NO_DEVICE for an unknown or unopened camera.  On a running
 * stream it only discards the finished frames. */
CAMERA_API int32_t camera_start_capture(CAMERA_HANDLE handle, uint32_t slots);
/* Stops streaming (0 also when not streaming). */
CAMERA_API int32_t camera_stop_capture(CAMERA_HANDLE handle);
/* Waits up to timeout_ms + 1500 ms for a finished frame and hands it out in
 * place: 0 with *frame set; CAMERA_ERR_TIMEOUT (also when the stream ended
 * because the reader stopped sending); CAMERA_ERR_FAILURE when not streaming,
 * the reader is gone or frame is NULL; CAMERA_ERR_NO_DEVICE for an unknown or
 * unopened camera.  The lock is held for the whole wait. */
CAMERA_API int32_t camera_get_image(CAMERA_HANDLE handle, uint32_t timeout_ms, void **frame);
/* Gives a frame from camera_get_image back to the library. */
CAMERA_API int32_t camera_put_image(CAMERA_HANDLE handle, void *frame);
/* Discards the finished frames not yet handed out, and the frame being
 * assembled. */
CAMERA_API int32_t camera_flush(CAMERA_HANDLE handle);

/* ---- Format and frame interval ---- */

/* Not implemented: always CAMERA_ERR_FAILURE (use camera_set_format). */
CAMERA_API int32_t camera_get_format(CAMERA_HANDLE handle, CAMERA_FORMAT *format);
/* Selects the reader's only format and describes it in *format (output
 * only): 0; CAMERA_ERR_FAILURE for a closed camera or a NULL format;
 * CAMERA_ERR_NO_DEVICE for an unknown handle.  Set it again after every
 * camera_open. */
CAMERA_API int32_t camera_set_format(CAMERA_HANDLE handle, CAMERA_FORMAT *format);
/* Frame interval in milliseconds: 0; CAMERA_ERR_FAILURE for a closed camera;
 * CAMERA_ERR_NO_DEVICE.  A NULL interval_ms is accepted and left alone. */
CAMERA_API int32_t camera_get_frame_interval(CAMERA_HANDLE handle, uint32_t *interval_ms);
/* Requests an interval (raised to the reader's shortest) and writes back
 * the one in effect; it reaches the reader at the next capture start.
 * CAMERA_ERR_FAILURE for a NULL interval_ms (whatever the handle) or a closed
 * camera; CAMERA_ERR_NO_DEVICE for an unknown handle. */
CAMERA_API int32_t camera_set_frame_interval(CAMERA_HANDLE handle, uint32_t *interval_ms);

/* ---- Reader extension controls ---- */

/* One sensor register byte (0..255), or a negative code: CAMERA_ERR_FAILURE
 * when a transfer fails, CAMERA_ERR_NO_DEVICE for an unknown or unopened
 * camera. */
CAMERA_API int32_t camera_xu_sensor_read(CAMERA_HANDLE handle, uint32_t address);
/* Writes the low 8 bits of value. */
CAMERA_API int32_t camera_xu_sensor_write(CAMERA_HANDLE handle, uint32_t address, int32_t value);
/* The finger register (sensor address 0xF000). */
CAMERA_API int32_t camera_xu_get_finger(CAMERA_HANDLE handle);
CAMERA_API int32_t camera_xu_set_finger(CAMERA_HANDLE handle, int32_t value);
/* Reads length (> 0) bytes of flash at address into buffer, 8 bytes per
 * exchange: 0; CAMERA_ERR_FAILURE for a length <= 0, a NULL buffer or a
 * failed exchange (the chunks read before it stay in the buffer);
 * CAMERA_ERR_NO_DEVICE for an unknown or unopened camera. */
CAMERA_API int32_t camera_xu_flash_read(CAMERA_HANDLE handle, uint32_t address, int32_t length,
                                        void *buffer);

/* Controls the readers do not have: each returns 0 at once and touches
 * nothing. */
CAMERA_API int32_t camera_get_controls(CAMERA_HANDLE handle, void *controls, uint32_t *count);
CAMERA_API int32_t camera_get_control_info(CAMERA_HANDLE handle, uint32_t id, void *info);
CAMERA_API int32_t camera_get_control(CAMERA_HANDLE handle, uint32_t id, int32_t *value);
CAMERA_API int32_t camera_set_control(CAMERA_HANDLE handle, uint32_t id, int32_t value);
CAMERA_API int32_t camera_button_state(CAMERA_HANDLE handle, int32_t *state);
CAMERA_API int32_t camera_wait_for_button(CAMERA_HANDLE handle, uint32_t timeout_ms);
CAMERA_API int32_t camera_xu_get_flip(CAMERA_HANDLE handle, int32_t *flip);
CAMERA_API int32_t camera_xu_set_flip(CAMERA_HANDLE handle, int32_t flip);
CAMERA_API int32_t camera_xu_get_mirror(CAMERA_HANDLE handle, int32_t *mirror);
CAMERA_API int32_t camera_xu_set_mirror(CAMERA_HANDLE handle, int32_t mirror);
CAMERA_API int32_t camera_xu_set_leds_mode(CAMERA_HANDLE handle, int32_t mode);
CAMERA_API int32_t camera_xu_set_leds(CAMERA_HANDLE handle, int32_t leds);

#ifdef __cplusplus
}
#endif

#endif
