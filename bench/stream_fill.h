// The stream a reader sends, for the benchmarks' usbfs stand-ins: full
// packets behind 12-byte payload headers, the FID toggling per frame and EOF
// on a frame's last packet. Only the headers are written: the benchmarks
// count the library's work, not the image's content.
#pragma once

#include <linux/usbdevice_fs.h>

#include <cstddef>
#include <cstdint>

#include "lnx/transport/usbtr.h"

struct StreamFill {
    static constexpr uint32_t kPacket = USBVD_ISO_PACKET_SIZE;
    static constexpr uint32_t kPayload = kPacket - USBVD_PAYLOAD_HEADER_SIZE;

    uint32_t image = 0;           // bytes of one frame
    uint32_t packetsOfFrame = 0;
    uint32_t packetNo = 0;        // of the frame being sent
    bool fid = false;

    // Starts with a frame boundary, as a reader joined mid-stream would.
    void start(uint32_t imageBytes)
    {
        image = imageBytes;
        packetsOfFrame = (image + kPayload - 1) / kPayload;
        packetNo = packetsOfFrame;
    }

    void fill(usbdevfs_urb* u)
    {
        auto* buf = static_cast<uint8_t*>(u->buffer);
        for (int k = 0; k < u->number_of_packets; k++) {
            if (packetNo == packetsOfFrame) {
                packetNo = 0;
                fid = !fid;
            }
            const uint32_t nLeft = image - packetNo * kPayload;
            const uint32_t d = nLeft < kPayload ? nLeft : kPayload;
            uint8_t* p = buf + size_t(k) * kPacket;
            p[0] = 12;
            p[1] = uint8_t(0x8C | (fid ? 1 : 0) | (d == nLeft ? 2 : 0));
            u->iso_frame_desc[k].actual_length = USBVD_PAYLOAD_HEADER_SIZE + d;
            u->iso_frame_desc[k].status = 0;
            packetNo++;
        }
        u->status = 0;
    }
};
