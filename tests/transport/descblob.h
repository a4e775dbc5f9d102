// Builders for raw USB descriptor blobs as sysfs "descriptors" holds them.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <vector>

namespace descblob {

using Bytes = std::vector<uint8_t>;

inline void append(Bytes &b, const Bytes &more)
{
    b.insert(b.end(), more.begin(), more.end());
}

inline Bytes device(uint16_t vid, uint16_t pid, uint16_t rev, uint8_t nConfigs)
{
    return {18,
            1,
            0x00,
            0x02,
            0xEF,
            0x02,
            0x01,
            64,
            uint8_t(vid),
            uint8_t(vid >> 8),
            uint8_t(pid),
            uint8_t(pid >> 8),
            uint8_t(rev),
            uint8_t(rev >> 8),
            1,
            2,
            3,
            nConfigs};
}

// Configuration header; wTotalLength is patched by finishConfig().
inline Bytes configHeader(uint8_t nInterfaces, uint8_t bValue = 1)
{
    return {9, 2, 0, 0, nInterfaces, bValue, 0, 0x80, 0xFA};
}

inline void finishConfig(Bytes &config)
{
    config[2] = uint8_t(config.size());
    config[3] = uint8_t(config.size() >> 8);
}

inline Bytes iad(uint8_t first, uint8_t count)
{
    return {8, 11, first, count, 0x0E, 0x03, 0x00, 0x00};
}

inline Bytes interface(uint8_t number, uint8_t alt, uint8_t nEndpoints, uint8_t subClass = 1)
{
    return {9, 4, number, alt, nEndpoints, 0x0E, subClass, 0x00, 0x00};
}

inline Bytes endpoint(uint8_t address, uint8_t attributes, uint16_t maxPacket, uint8_t interval,
                      uint8_t length = 7)
{
    Bytes b = {length, 5, address, attributes, uint8_t(maxPacket), uint8_t(maxPacket >> 8), interval};
    for (uint8_t i = 7; i < length; i++)
        b.push_back(uint8_t(0xA0 + i)); // bRefresh = 0xA7, bSynchAddress = 0xA8, then padding
    return b;
}

// A class-specific (or any other) descriptor of the given type and length.
inline Bytes other(uint8_t type, uint8_t length, uint8_t fill = 0x11)
{
    Bytes b(length, fill);
    if (length > 0)
        b[0] = length;
    if (length > 1)
        b[1] = type;
    return b;
}

// The video class layout of a reader: IAD; interface 0 (control) with
// class-specific descriptors, an interrupt IN endpoint and a class-specific
// endpoint descriptor; interface 1 alt 0 (streaming) with format and frame
// descriptors and no endpoint; interface 1 alt 1 with one iso IN endpoint.
inline Bytes uvcConfig()
{
    Bytes c = configHeader(2);
    append(c, iad(0, 2));
    append(c, interface(0, 0, 1, 1));
    append(c, other(0x24, 13)); // VC header
    append(c, other(0x24, 18)); // camera terminal
    append(c, other(0x24, 26)); // extension unit
    append(c, endpoint(0x82, 0x03, 16, 6));
    append(c, other(0x25, 5)); // class-specific interrupt endpoint
    append(c, interface(1, 0, 0, 2));
    append(c, other(0x24, 14)); // VS input header
    append(c, other(0x24, 27)); // uncompressed format
    append(c, other(0x24, 30)); // frame
    append(c, other(0x24, 6));  // colour matching
    append(c, interface(1, 1, 1, 2));
    append(c, endpoint(0x81, 0x05, 0x0C00, 1));
    finishConfig(c);
    return c;
}

} // namespace descblob
