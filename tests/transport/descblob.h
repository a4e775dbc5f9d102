// Raw USB descriptor blobs as sysfs "descriptors" holds them.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <vector>

namespace descblob {

using Bytes = std::vector<uint8_t>;

inline Bytes cat(std::initializer_list<Bytes> parts)
{
    Bytes b;
    for (const Bytes &p : parts)
        b.insert(b.end(), p.begin(), p.end());
    return b;
}

inline Bytes interface(uint8_t number, uint8_t alt, uint8_t nEndpoints, uint8_t subClass = 1)
{
    return {9, 4, number, alt, nEndpoints, 0x0E, subClass, 0, 0};
}

// Optional bytes past 7: bRefresh 0xA7, bSynchAddress 0xA8, then padding.
inline Bytes endpoint(uint8_t address, uint8_t attributes, uint16_t maxPacket, uint8_t length = 7)
{
    Bytes b = {length, 5, address, attributes, uint8_t(maxPacket), uint8_t(maxPacket >> 8), 1};
    for (uint8_t i = 7; i < length; i++)
        b.push_back(uint8_t(0xA0 + i));
    return b;
}

// A class-specific (or any other) descriptor; length at least 2.
inline Bytes other(uint8_t type, uint8_t length)
{
    Bytes b(length, 0x11);
    b[0] = length, b[1] = type;
    return b;
}

// A configuration header for nInterfaces followed by body, wTotalLength set.
inline Bytes config(uint8_t nInterfaces, const Bytes &body, uint8_t value = 1)
{
    Bytes c = cat({{9, 2, 0, 0, nInterfaces, value, 0, 0x80, 0xFA}, body});
    c[2] = uint8_t(c.size()), c[3] = uint8_t(c.size() >> 8);
    return c;
}

// A reader's video class layout: IAD; interface 0 (control) with class
// descriptors, an interrupt IN endpoint and its class descriptor; interface
// 1 alt 0 (streaming) with format and frame descriptors; alt 1 with the iso IN endpoint.
inline Bytes uvcConfig()
{
    return config(2, cat({{8, 11, 0, 2, 0x0E, 3, 0, 0}, interface(0, 0, 1), other(0x24, 13), other(0x24, 26),
                          endpoint(0x82, 0x03, 16), other(0x25, 5), interface(1, 0, 0, 2), other(0x24, 14),
                          other(0x24, 27), other(0x24, 30), interface(1, 1, 1, 2), endpoint(0x81, 0x05, 0x0C00)}));
}

} // namespace descblob
