// A simulated reader attached to a QEMU virtual machine over usbredir.
//
// The server plays usbredir's "usb-host" side on a Unix socket; QEMU connects
// to it with a usb-redir device on a socket chardev:
//
//   qemu-system-x86_64 ... -device qemu-xhci
//     -chardev socket,id=r,path=SOCKET -device usb-redir,chardev=r
//
// The guest's kernel sees a high-speed UVC reader (sim/model/device.h): its
// descriptors and strings, control requests, configuration and alternate
// settings, and an isochronous IN stream on 0x81 paced at one packet per
// 125 us microframe, with a new frame every committed frame interval.
#pragma once

#include "simreader.h"

#include <memory>
#include <string>

namespace sim {

class RedirServer {
public:
    explicit RedirServer(ImageMode mode = ImageMode::Pattern);
    ~RedirServer();
    RedirServer(const RedirServer&) = delete;
    RedirServer& operator=(const RedirServer&) = delete;

    // Creates the listening socket (replacing a stale file); false with a
    // message in *err on failure.
    bool listen(const std::string& socketPath, std::string* err);
    // Waits for QEMU, then serves it until it disconnects or stop() is
    // called. Returns 0 after a stop(), 1 when the connection was lost.
    int run();
    // Thread-safe commands, carried out by run()'s thread: attach a reader
    // of this model (after an unplug if one is attached), detach it, end run().
    void plug(Model m);
    void unplug();
    void stop();

    struct Impl;

private:
    std::unique_ptr<Impl> impl_;
};

}  // namespace sim
