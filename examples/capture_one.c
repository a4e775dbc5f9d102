/*
 * Lists the attached fingerprint readers and writes one frame of the first
 * one to a PGM file.
 *
 *   cc capture_one.c $(pkg-config --cflags --libs ztuvc) -o capture_one
 *   ./capture_one [out.pgm]
 *
 * Exit codes: 0 frame written, 1 failure, 2 no reader attached.
 */
#include <ztuvc.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static const char *text(const char *s) { return s != NULL ? s : "?"; }

static int capture(CAMERA_HANDLE cam, const char *path)
{
    CAMERA_FORMAT format;
    if (camera_set_format(cam, &format) != 0 || format.dwWidth == 0) {
        fprintf(stderr, "cannot read the image format\n");
        return 1;
    }
    /* The raw image is 8-bit grey, width x (image size / width) bytes. */
    unsigned width = format.dwWidth;
    unsigned height = format.dwImageSize / format.dwWidth;

    if (camera_start_capture(cam, 0) != 0) {
        fprintf(stderr, "cannot start capture\n");
        return 1;
    }
    void *frame = NULL;
    int rc = camera_get_image(cam, 2000, &frame);
    if (rc != 0) {
        fprintf(stderr, "no frame (%d)\n", rc);
        camera_stop_capture(cam);
        return 1;
    }
    CAMERA_TIME_STAMP ts;
    memcpy(&ts, (const unsigned char *)frame + (size_t)width * height, sizeof ts);

    int ok = 0;
    FILE *f = fopen(path, "wb");
    if (f != NULL) {
        ok = fprintf(f, "P5\n%u %u\n255\n", width, height) > 0 &&
             fwrite(frame, 1, (size_t)width * height, f) == (size_t)width * height;
        ok = (fclose(f) == 0) && ok;
    }
    camera_put_image(cam, frame);
    camera_stop_capture(cam);
    if (!ok) {
        fprintf(stderr, "cannot write %s\n", path);
        return 1;
    }
    printf("wrote %s: %u x %u, started at %u ms, handed out at %u ms\n", path, width, height,
           (unsigned)ts.dwFrameStart, (unsigned)ts.dwFrameReturned);
    return 0;
}

int main(int argc, char **argv)
{
    const char *path = argc > 1 ? argv[1] : "frame.pgm";
    camera_init();
    camera_device_enumerate(NULL, 0);

    unsigned n = camera_device_count();
    for (unsigned i = 0; i < n; i++) {
        CAMERA_HANDLE h = camera_get_by_index(i);
        printf("%u: %s %04x:%04x %s (%s) serial %s\n", i, text(camera_get_filename(h)),
               (unsigned)camera_get_vid(h), (unsigned)camera_get_pid(h), text(camera_get_product_name(h)),
               text(camera_get_manufacturer_name(h)), text(camera_get_serialnumber(h)));
    }
    if (n == 0) {
        printf("no reader found\n");
        camera_cleanup();
        return 2;
    }

    int rc = 1;
    CAMERA_HANDLE cam = camera_get_by_index(0);
    if (camera_open(cam) != 0) {
        fprintf(stderr, "cannot open %s (busy, or no permission: see 60-ztuvc.rules)\n",
                text(camera_get_filename(cam)));
    } else {
        rc = capture(cam, path);
        camera_close(cam);
    }
    camera_cleanup();
    return rc;
}
