// The usbredir transport: the reader model served to QEMU's usb-redir device.
#include "usbredir/redirserver.h"

#include "model/device.h"

#include <usbredirparser.h>

#include <fcntl.h>
#include <poll.h>
#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <deque>
#include <mutex>
#include <optional>

namespace sim {

namespace {

using Clock = std::chrono::steady_clock;
constexpr auto kMicroframe = std::chrono::microseconds(125);
constexpr uint32_t kMicroframe100ns = 1250;

int epIndex(uint8_t ep) { return ((ep & 0x80) >> 3) | (ep & 0x0F); }

}  // namespace

struct RedirServer::Impl {
    ImageMode mode;
    int listenFd = -1, fd = -1;
    int wake[2] = {-1, -1};
    usbredirparser* parser = nullptr;
    bool helloSeen = false;
    bool lost = false;

    // Commands from other threads.
    std::mutex cmdMutex;
    std::deque<std::optional<Model>> commands;  // a model = plug, nullopt = unplug
    bool stopping = false;

    // The attached device.
    std::optional<Model> pendingPlug;
    bool attached = false;
    bool awaitingAck = false;
    DeviceModel dev;
    unsigned serialNumber = 0;

    // The isochronous stream.
    bool isoRunning = false;
    Clock::time_point isoStart;
    uint64_t microframesSent = 0;
    uint32_t sensorPhase = 0;  // 100 ns units since the last sensor tick
    uint64_t skipped = 0;           // microframes this process was too late for
    uint32_t firstFrame = 0;        // the stream's first frame number
    std::vector<uint8_t> packet = std::vector<uint8_t>(kIsoPacketSize);

    static Impl* of(void* p) { return static_cast<Impl*>(p); }

    void sendEndpoints() {
        usb_redir_ep_info_header ep{};
        for (int i = 0; i < 32; ++i) ep.type[i] = usb_redir_type_invalid;
        ep.type[0] = ep.type[16] = usb_redir_type_control;
        ep.max_packet_size[0] = ep.max_packet_size[16] = 64;
        if (dev.config == 1) {
            const int ii = epIndex(kInterruptEndpoint);
            ep.type[ii] = usb_redir_type_interrupt;
            ep.interval[ii] = 8;
            ep.interface[ii] = 0;
            ep.max_packet_size[ii] = 16;
            if (dev.alt[1] == 1) {
                const int is = epIndex(kIsoEndpoint);
                ep.type[is] = usb_redir_type_iso;
                ep.interval[is] = 1;
                ep.interface[is] = 1;
                ep.max_packet_size[is] = 0x1400;  // 3 x 1024 per microframe
            }
        }
        usbredirparser_send_ep_info(parser, &ep);
    }

    void connectDevice(Model m) {
        char serial[16];
        snprintf(serial, sizeof serial, "SIM%08u", ++serialNumber);
        dev.reset(m, readerDescriptors(m), "Tessary Biometrics", modelInfo(m).name, serial);
        dev.imageMode = mode;
        isoRunning = false;
        usb_redir_interface_info_header ii{};
        ii.interface_count = 2;
        for (int i = 0; i < 2; ++i) {
            ii.interface[i] = uint8_t(i);
            ii.interface_class[i] = 0x0E;
            ii.interface_subclass[i] = uint8_t(i + 1);
        }
        usbredirparser_send_interface_info(parser, &ii);
        sendEndpoints();
        usb_redir_device_connect_header c{};
        c.speed = usb_redir_speed_high;
        c.device_class = 0xEF;
        c.device_subclass = 0x02;
        c.device_protocol = 0x01;
        c.vendor_id = kVendorId;
        c.product_id = modelInfo(m).productId;
        c.device_version_bcd = 0x0100;
        usbredirparser_send_device_connect(parser, &c);
        attached = true;
        std::fprintf(stderr, "ztuvc-sim: plugged %s\n", modelInfo(m).name);
    }

    void disconnectDevice() {
        if (!attached) return;
        usbredirparser_send_device_disconnect(parser);
        attached = false;
        isoRunning = false;
        // Before connecting again, the peer must have seen the disconnect.
        awaitingAck = usbredirparser_peer_has_cap(parser, usb_redir_cap_device_disconnect_ack);
        std::fprintf(stderr, "ztuvc-sim: unplugged\n");
    }

    void takeCommands() {
        std::lock_guard<std::mutex> g(cmdMutex);
        while (!commands.empty()) {
            auto c = commands.front();
            commands.pop_front();
            if (c) {
                pendingPlug = c;
            } else {
                pendingPlug.reset();
                if (helloSeen) disconnectDevice();
            }
        }
        if (pendingPlug && helloSeen && !awaitingAck) {
            if (attached) {
                disconnectDevice();
                if (awaitingAck) return;
            }
            connectDevice(*pendingPlug);
            pendingPlug.reset();
        }
    }

    // The microframes that are due: a packet of image data for each while a
    // frame is queued.
    void pumpIso() {
        if (!isoRunning || !attached) return;
        const uint64_t due = uint64_t((Clock::now() - isoStart) / kMicroframe);
        // Starved by the host's scheduler: the microframes missed are gone
        // (the sensor clock runs on the ones sent), rather than a burst that
        // would overflow QEMU's buffer.
        if (due > microframesSent + 64) {
            skipped += due - 8 - microframesSent;
            microframesSent = due - 8;
        }
        // QEMU's main thread reads the socket and runs the controller's
        // schedule: while it leaves data unread it takes no packets either,
        // and the sensor waits with it.
        int unread = 0;
        if (usbredirparser_has_data_to_write(parser) > 0 ||
            (ioctl(fd, SIOCOUTQ, &unread) == 0 && unread > 16 * int(kIsoPacketSize))) {
            skipped += due - microframesSent;
            microframesSent = due;
            return;
        }
        while (microframesSent < due) {
            ++microframesSent;
            sensorPhase += kMicroframe100ns;
            if (sensorPhase >= dev.frameInterval()) {
                sensorPhase -= dev.frameInterval();
                dev.sensorTick();
            }
            IsoSlot slot;
            slot.length = kIsoPacketSize;
            dev.fillIso(&slot, 1, packet.data(), packet.size());
            // Image data only. QEMU queues what arrives and its controllers
            // take at most one packet per microframe, under TCG far fewer
            // than 8000 a second (xHCI took 4,000 to 6,500 here): empty
            // packets would fill that queue until QEMU drops data. When the
            // queue runs dry, QEMU hands the guest empty packets itself.
            if (slot.actual == 0) continue;
            usb_redir_iso_packet_header h{};
            h.endpoint = kIsoEndpoint;
            h.status = usb_redir_success;
            h.length = uint16_t(slot.actual);
            usbredirparser_send_iso_packet(parser, 0, &h, packet.data(), int(slot.actual));
        }
    }

    void stopIso() {
        if (isoRunning)
            std::fprintf(stderr, "ztuvc-sim: stream of %llu microframes: frames %u..%u, %llu microframes skipped\n",
                         (unsigned long long)microframesSent, firstFrame, dev.nextFrame,
                         (unsigned long long)skipped);
        isoRunning = false;
        // A partly sent frame is not finished later: the sensor starts afresh.
        dev.queue.clear();
    }

    // ------------------------------------------------------------ callbacks

    static void log(void*, int level, const char* msg) {
        if (level <= usbredirparser_warning) std::fprintf(stderr, "ztuvc-sim: usbredir: %s\n", msg);
    }
    static int readCb(void* p, uint8_t* data, int count) {
        const ssize_t r = ::read(of(p)->fd, data, size_t(count));
        if (r > 0) return int(r);
        if (r < 0 && (errno == EAGAIN || errno == EINTR)) return 0;
        of(p)->lost = true;
        return -1;
    }
    static int writeCb(void* p, uint8_t* data, int count) {
        const ssize_t r = ::send(of(p)->fd, data, size_t(count), MSG_NOSIGNAL);
        if (r >= 0) return int(r);
        if (errno == EAGAIN || errno == EINTR) return 0;
        of(p)->lost = true;
        return -1;
    }
    static void hello(void* p, usb_redir_hello_header*) { of(p)->helloSeen = true; }
    static void disconnectAck(void* p) { of(p)->awaitingAck = false; }
    static void reset(void* p) {
        Impl& s = *of(p);
        s.dev.alt[0] = s.dev.alt[1] = 0;
        s.stopIso();
    }
    static void setConfiguration(void* p, uint64_t id, usb_redir_set_configuration_header* h) {
        Impl& s = *of(p);
        usb_redir_configuration_status_header st{};
        st.status = s.dev.setConfiguration(h->configuration) ? usb_redir_success : usb_redir_stall;
        if (st.status == usb_redir_success) s.stopIso();
        st.configuration = uint8_t(s.dev.config);
        s.sendEndpoints();
        usbredirparser_send_configuration_status(s.parser, id, &st);
    }
    static void getConfiguration(void* p, uint64_t id) {
        Impl& s = *of(p);
        usb_redir_configuration_status_header st{usb_redir_success, uint8_t(s.dev.config)};
        usbredirparser_send_configuration_status(s.parser, id, &st);
    }
    static void setAlt(void* p, uint64_t id, usb_redir_set_alt_setting_header* h) {
        Impl& s = *of(p);
        usb_redir_alt_setting_status_header st{};
        st.interface = h->interface;
        const bool ok = s.dev.config == 1 && s.dev.setInterface(h->interface, h->alt);
        if (ok && h->interface == 1 && h->alt == 0) s.stopIso();
        st.status = ok ? usb_redir_success : usb_redir_inval;
        st.alt = uint8_t(h->interface < 2 ? s.dev.alt[h->interface] : 0);
        s.sendEndpoints();
        usbredirparser_send_alt_setting_status(s.parser, id, &st);
    }
    static void getAlt(void* p, uint64_t id, usb_redir_get_alt_setting_header* h) {
        Impl& s = *of(p);
        usb_redir_alt_setting_status_header st{};
        st.interface = h->interface;
        st.status = h->interface < 2 ? usb_redir_success : usb_redir_inval;
        st.alt = uint8_t(h->interface < 2 ? s.dev.alt[h->interface] : 0);
        usbredirparser_send_alt_setting_status(s.parser, id, &st);
    }
    static void startIso(void* p, uint64_t id, usb_redir_start_iso_stream_header* h) {
        Impl& s = *of(p);
        usb_redir_iso_stream_status_header st{usb_redir_inval, h->endpoint};
        if (h->endpoint == kIsoEndpoint && s.dev.streaming()) {
            st.status = usb_redir_success;
            s.isoRunning = true;
            s.isoStart = Clock::now();
            s.microframesSent = 0;
            s.skipped = 0;
            s.firstFrame = s.dev.nextFrame;
            s.sensorPhase = s.dev.frameInterval();  // the first frame starts at once
        }
        usbredirparser_send_iso_stream_status(s.parser, id, &st);
    }
    static void stopIsoCb(void* p, uint64_t id, usb_redir_stop_iso_stream_header* h) {
        Impl& s = *of(p);
        if (h->endpoint == kIsoEndpoint) s.stopIso();
        usb_redir_iso_stream_status_header st{usb_redir_success, h->endpoint};
        usbredirparser_send_iso_stream_status(s.parser, id, &st);
    }
    static void startInterrupt(void* p, uint64_t id, usb_redir_start_interrupt_receiving_header* h) {
        // The reader never reports status changes: the endpoint stays quiet.
        usb_redir_interrupt_receiving_status_header st{usb_redir_success, h->endpoint};
        usbredirparser_send_interrupt_receiving_status(of(p)->parser, id, &st);
    }
    static void stopInterrupt(void* p, uint64_t id, usb_redir_stop_interrupt_receiving_header* h) {
        usb_redir_interrupt_receiving_status_header st{usb_redir_success, h->endpoint};
        usbredirparser_send_interrupt_receiving_status(of(p)->parser, id, &st);
    }
    static void cancel(void*, uint64_t) {}  // every transfer is answered at once
    static void control(void* p, uint64_t id, usb_redir_control_packet_header* h, uint8_t* data, int len) {
        Impl& s = *of(p);
        const bool in = h->endpoint & 0x80;
        std::vector<uint8_t> buf(in ? h->length : size_t(len));
        if (!in && len > 0) memcpy(buf.data(), data, size_t(len));
        if (data) usbredirparser_free_packet_data(s.parser, data);
        const Setup setup{h->requesttype, h->request, h->value, h->index, h->length};
        const long r = s.dev.answerControl(setup, buf.data(), unsigned(buf.size()));
        usb_redir_control_packet_header reply = *h;
        reply.status = r >= 0 ? usb_redir_success : r == -EPIPE ? usb_redir_stall : usb_redir_ioerror;
        reply.length = uint16_t(r > 0 ? r : 0);
        usbredirparser_send_control_packet(s.parser, id, &reply, in && r > 0 ? buf.data() : nullptr,
                                           in && r > 0 ? int(r) : 0);
    }
    // The reader has no OUT endpoints and no bulk ones: such transfers are refused.
    static void freeData(void* p, uint8_t* data) {
        if (data) usbredirparser_free_packet_data(of(p)->parser, data);
    }
    static void bulk(void* p, uint64_t id, usb_redir_bulk_packet_header* h, uint8_t* data, int) {
        freeData(p, data);
        usb_redir_bulk_packet_header r = *h;
        r.status = usb_redir_inval;
        r.length = 0;
        usbredirparser_send_bulk_packet(of(p)->parser, id, &r, nullptr, 0);
    }
    static void iso(void* p, uint64_t, usb_redir_iso_packet_header*, uint8_t* data, int) { freeData(p, data); }
    static void interrupt(void* p, uint64_t id, usb_redir_interrupt_packet_header* h, uint8_t* data, int) {
        freeData(p, data);
        usb_redir_interrupt_packet_header r = *h;
        r.status = usb_redir_inval;
        r.length = 0;
        usbredirparser_send_interrupt_packet(of(p)->parser, id, &r, nullptr, 0);
    }

    void makeParser() {
        parser = usbredirparser_create();
        parser->priv = this;
        parser->log_func = log;
        parser->read_func = readCb;
        parser->write_func = writeCb;
        parser->hello_func = hello;
        parser->device_disconnect_ack_func = disconnectAck;
        parser->reset_func = reset;
        parser->set_configuration_func = setConfiguration;
        parser->get_configuration_func = getConfiguration;
        parser->set_alt_setting_func = setAlt;
        parser->get_alt_setting_func = getAlt;
        parser->start_iso_stream_func = startIso;
        parser->stop_iso_stream_func = stopIsoCb;
        parser->start_interrupt_receiving_func = startInterrupt;
        parser->stop_interrupt_receiving_func = stopInterrupt;
        parser->cancel_data_packet_func = cancel;
        parser->control_packet_func = control;
        parser->bulk_packet_func = bulk;
        parser->iso_packet_func = iso;
        parser->interrupt_packet_func = interrupt;
        uint32_t caps[USB_REDIR_CAPS_SIZE] = {};
        for (int c : {usb_redir_cap_connect_device_version, usb_redir_cap_device_disconnect_ack,
                      usb_redir_cap_ep_info_max_packet_size, usb_redir_cap_64bits_ids,
                      usb_redir_cap_32bits_bulk_length})
            usbredirparser_caps_set_cap(caps, c);
        usbredirparser_init(parser, "ztuvc-sim", caps, USB_REDIR_CAPS_SIZE, usbredirparser_fl_usb_host);
    }
};

RedirServer::RedirServer(ImageMode mode) : impl_(std::make_unique<Impl>()) {
    impl_->mode = mode;
    if (pipe2(impl_->wake, O_CLOEXEC | O_NONBLOCK) != 0) impl_->wake[0] = impl_->wake[1] = -1;
}

RedirServer::~RedirServer() {
    if (impl_->parser) usbredirparser_destroy(impl_->parser);
    for (int f : {impl_->fd, impl_->listenFd, impl_->wake[0], impl_->wake[1]})
        if (f >= 0) close(f);
}

bool RedirServer::listen(const std::string& path, std::string* err) {
    sockaddr_un a{};
    a.sun_family = AF_UNIX;
    if (path.size() >= sizeof a.sun_path) {
        *err = "socket path too long";
        return false;
    }
    memcpy(a.sun_path, path.c_str(), path.size() + 1);
    const int s = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (s < 0) {
        *err = strerror(errno);
        return false;
    }
    unlink(path.c_str());
    if (bind(s, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 || ::listen(s, 1) != 0) {
        *err = strerror(errno);
        close(s);
        return false;
    }
    impl_->listenFd = s;
    return true;
}

int RedirServer::run() {
    Impl& s = *impl_;
    auto stopped = [&] {
        std::lock_guard<std::mutex> g(s.cmdMutex);
        return s.stopping;
    };
    auto drainWake = [&] {
        char b[64];
        while (read(s.wake[0], b, sizeof b) > 0) {
        }
    };
    while (s.fd < 0) {
        pollfd p[2] = {{s.listenFd, POLLIN, 0}, {s.wake[0], POLLIN, 0}};
        if (poll(p, 2, -1) < 0 && errno != EINTR) return 1;
        drainWake();
        if (stopped()) return 0;
        if (p[0].revents & POLLIN) s.fd = accept4(s.listenFd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    }
    s.makeParser();
    for (;;) {
        s.takeCommands();
        if (stopped()) {
            // Whatever the last commands produced (a disconnect) goes out first.
            for (int i = 0; i < 100 && usbredirparser_has_data_to_write(s.parser) > 0 && !s.lost; ++i) {
                pollfd p = {s.fd, POLLOUT, 0};
                if (poll(&p, 1, 10) > 0 && usbredirparser_do_write(s.parser) != 0) break;
            }
            return 0;
        }
        s.pumpIso();
        const bool wantWrite = usbredirparser_has_data_to_write(s.parser) > 0;
        pollfd p[2] = {{s.fd, short(POLLIN | (wantWrite ? POLLOUT : 0)), 0}, {s.wake[0], POLLIN, 0}};
        // Wake every millisecond while streaming: eight microframes are due.
        const int timeout = s.isoRunning ? 1 : 100;
        if (poll(p, 2, timeout) < 0 && errno != EINTR) return 1;
        drainWake();
        if (p[0].revents & (POLLIN | POLLHUP | POLLERR)) {
            if (usbredirparser_do_read(s.parser) == usbredirparser_read_io_error || s.lost) return 1;
        }
        if (usbredirparser_has_data_to_write(s.parser) > 0 && usbredirparser_do_write(s.parser) != 0 && s.lost)
            return 1;
        if (s.lost) return 1;
    }
}

void RedirServer::plug(Model m) {
    std::lock_guard<std::mutex> g(impl_->cmdMutex);
    impl_->commands.push_back(m);
    if (write(impl_->wake[1], "p", 1) < 0) {
    }
}

void RedirServer::unplug() {
    std::lock_guard<std::mutex> g(impl_->cmdMutex);
    impl_->commands.push_back(std::nullopt);
    if (write(impl_->wake[1], "u", 1) < 0) {
    }
}

void RedirServer::stop() {
    std::lock_guard<std::mutex> g(impl_->cmdMutex);
    impl_->stopping = true;
    if (write(impl_->wake[1], "s", 1) < 0) {
    }
}

}  // namespace sim
