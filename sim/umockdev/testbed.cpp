// The testbed: devices in umockdev's sysfs and /dev, ioctl handler wiring,
// lock holders and open denial.
#include "internal.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

// The testbed hands out a fresh copy of its root path.
static std::string TestbedRoot(UMockdevTestbed* tb) {
    gchar* p = umockdev_testbed_get_root_dir(tb);
    std::string root = p ? p : "";
    g_free(p);
    return root;
}

namespace sim {

gboolean simHandleIoctl(UMockdevIoctlBase*, UMockdevIoctlClient* client, gpointer user);

namespace {

Testbed* gCurrent = nullptr;

std::string fmt(const char* f, ...) __attribute__((format(printf, 1, 2)));
std::string fmt(const char* f, ...) {
    char b[1024];
    va_list ap;
    va_start(ap, f);
    vsnprintf(b, sizeof b, f, ap);
    va_end(ap);
    return b;
}

std::string hex(const std::vector<uint8_t>& v) {
    std::string s;
    s.reserve(v.size() * 2);
    static const char* d = "0123456789abcdef";
    for (uint8_t b : v) {
        s += d[b >> 4];
        s += d[b & 15];
    }
    return s;
}

[[noreturn]] void die(const std::string& what) {
    fprintf(stderr, "sim: %s\n", what.c_str());
    fflush(stderr);
    abort();
}

void addFromString(UMockdevTestbed* tb, const std::string& s) {
    GError* err = nullptr;
    if (!umockdev_testbed_add_from_string(tb, s.c_str(), &err)) {
        std::string m = err ? err->message : "?";
        if (err) g_error_free(err);
        die("umockdev_testbed_add_from_string failed: " + m + "\n" + s);
    }
}

void setAttr(UMockdevTestbed* tb, const std::string& dev, const std::string& name, const std::string& v) {
    umockdev_testbed_set_attribute_binary(tb, dev.c_str(), name.c_str(),
                                          reinterpret_cast<guint8*>(const_cast<char*>(v.data())), int(v.size()));
}

void setImmutable(const std::string& path, bool on) {
    int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) return;
    int flags = 0;
    if (ioctl(fd, FS_IOC_GETFLAGS, &flags) == 0) {
        flags = on ? (flags | FS_IMMUTABLE_FL) : (flags & ~FS_IMMUTABLE_FL);
        ioctl(fd, FS_IOC_SETFLAGS, &flags);
    }
    close(fd);
}

const char* kHub = "/devices/pci0000:00/0000:00:14.0";

// Which device each connected client opened. Process-wide and never freed:
// umockdev drops its clients on its worker thread, possibly after the
// testbed is gone.
struct Clients {
    std::mutex m;
    std::vector<std::pair<void*, std::weak_ptr<ReaderState>>> v;
};
Clients& clients() {
    static Clients* c = new Clients;
    return *c;
}

// The file was closed: umockdev drops the client some time after close() returned.
void clientGone(gpointer, GObject* where) {
    std::shared_ptr<ReaderState> s;
    {
        Clients& c = clients();
        std::lock_guard<std::mutex> g(c.m);
        auto it = std::find_if(c.v.begin(), c.v.end(), [&](auto& p) { return p.first == where; });
        if (it == c.v.end()) return;
        s = it->second.lock();
        c.v.erase(it);
    }
    if (!s) return;
    std::lock_guard<std::mutex> g(s->m);
    s->fileClosedLocked(where);
}

}  // namespace

std::shared_ptr<ReaderState> TestbedImpl::stateForClient(UMockdevIoctlClient* c) {
    {
        Clients& cl = clients();
        std::lock_guard<std::mutex> g(cl.m);
        for (auto& p : cl.v)
            if (p.first == c) return p.second.lock();
    }
    std::lock_guard<std::mutex> g(m);
    const char* dn = umockdev_ioctl_client_get_devnode(c);
    if (!dn) return nullptr;
    for (auto& n : nodes) {
        if (n.first == dn && n.second.current) {
            // Remember which device this client opened: a device plugged in
            // later at the same node must not answer an old descriptor.
            Clients& cl = clients();
            std::lock_guard<std::mutex> g2(cl.m);
            cl.v.emplace_back(c, n.second.current);
            g_object_weak_ref(G_OBJECT(c), clientGone, nullptr);
            return n.second.current;
        }
    }
    return nullptr;
}

void TestbedImpl::removeSysfs(ReaderState& s) {
    std::lock_guard<std::mutex> g(m);
    if (s.sysPath.empty() || !tb) return;
    std::string root = TestbedRoot(tb);
    umockdev_testbed_remove_device(tb, s.sysPath.c_str());
    // The node goes with the device.
    std::string node = root + s.node;
    setImmutable(node, false);
    unlink(node.c_str());
    s.sysPath.clear();
}

namespace {

// umockdev serves every emulated file from one worker thread per testbed, a
// GLib main loop. Destroying a testbed only asks that loop to quit: nothing
// joins the thread, and a quit sent before the loop first runs is lost.
// Released from this thread, the testbed's GLib objects would race with a
// worker that still runs or is only starting, and a short test could exit
// the process under it. So the simulator joins the worker itself: it finds
// the worker's context through a probe connection, releases the testbed on
// the worker, inside its loop (the quit is seen and nothing GLib owns
// changes threads), and waits for the thread to end.
struct Worker {
    std::mutex m;
    std::condition_variable cv;
    GMainContext* ctx = nullptr;  // the worker's loop, known once the probe connected
    bool exited = false;
    int probeFd = -1;
};

// Lives in the worker thread; its destructor runs when that thread ends.
struct WorkerExit {
    Worker* w = nullptr;
    ~WorkerExit() {
        if (!w) return;
        std::lock_guard<std::mutex> g(w->m);
        w->exited = true;
        w->cv.notify_all();
    }
};
thread_local WorkerExit tWorkerExit;

const char* kProbeNode = "/dev/sim-worker";

void probeConnected(UMockdevIoctlBase*, UMockdevIoctlClient*, gpointer user) {
    auto* w = static_cast<Worker*>(user);
    tWorkerExit.w = w;
    std::lock_guard<std::mutex> g(w->m);
    w->ctx = g_main_context_get_thread_default();
    w->cv.notify_all();
}

// Bounded waits, for a worker that never answers. Releasing a thousand
// devices takes minutes on a loaded machine, so the bound is generous; a test
// fixture's watchdog fires first.
constexpr auto kWorkerWait = std::chrono::seconds(600);

}  // namespace

struct Testbed::Impl : TestbedImpl {
    std::vector<std::string> immutable;
    Worker worker;
    UMockdevIoctlBase* probe = nullptr;
};

bool underUmockdevPreload() {
    const char* p = getenv("LD_PRELOAD");
    return p && strstr(p, "libumockdev-preload");
}

Testbed::Testbed() : impl_(std::make_unique<Impl>()) {
    if (!underUmockdevPreload())
        die("not running under umockdev's preload (LD_PRELOAD lacks libumockdev-preload); run the test through umockdev-wrapper");
    if (gCurrent) die("only one sim::Testbed may exist per process");
    auto& I = *impl_;
    I.tb = umockdev_testbed_new();

    // Connect to a handler of our own: its client-connected signal runs on
    // the worker, once its loop runs.
    I.probe = umockdev_ioctl_base_new();
    g_signal_connect(I.probe, "client-connected", G_CALLBACK(probeConnected), &I.worker);
    GError* err = nullptr;
    if (!umockdev_testbed_attach_ioctl(I.tb, kProbeNode, I.probe, &err))
        die(std::string("umockdev_testbed_attach_ioctl(probe) failed: ") + (err ? err->message : "?"));
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    const std::string sock = TestbedRoot(I.tb) + "/ioctl" + kProbeNode;
    if (sock.size() >= sizeof addr.sun_path) die("testbed path too long for a socket: " + sock);
    memcpy(addr.sun_path, sock.c_str(), sock.size() + 1);
    I.worker.probeFd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (I.worker.probeFd < 0 || connect(I.worker.probeFd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0)
        die("cannot connect to " + sock + ": " + strerror(errno));
    std::unique_lock<std::mutex> l(I.worker.m);
    if (!I.worker.cv.wait_for(l, kWorkerWait, [&] { return I.worker.ctx != nullptr; }))
        die("umockdev's worker thread did not start");
    l.unlock();
    gCurrent = this;
}

Testbed::~Testbed() {
    std::vector<std::shared_ptr<ReaderState>> states;
    {
        std::lock_guard<std::mutex> g(impl_->m);
        states = impl_->states;
    }
    for (auto& r : impl_->readers) r->stopPaced();
    for (auto& p : impl_->immutable) setImmutable(p, false);
    Worker& w = impl_->worker;
    // Detach and release every handler, then the testbed, whose destructor
    // quits the worker's loop: all on the worker, inside that loop.
    g_main_context_invoke(w.ctx, [](gpointer p) -> gboolean {
        auto& I = *static_cast<Impl*>(p);
        UMockdevTestbed* tb;
        {
            std::lock_guard<std::mutex> g(I.m);
            tb = I.tb;
            I.tb = nullptr;
        }
        for (auto& n : I.nodes) {
            umockdev_testbed_detach_ioctl(tb, n.first.c_str(), nullptr);
            g_object_unref(n.second.handler);
        }
        umockdev_testbed_detach_ioctl(tb, kProbeNode, nullptr);
        g_object_unref(I.probe);
        g_object_unref(tb);
        return G_SOURCE_REMOVE;
    }, impl_.get());
    {
        std::unique_lock<std::mutex> l(w.m);
        if (!w.cv.wait_for(l, kWorkerWait, [&] { return w.exited; }))
            die("umockdev's worker thread did not end after the testbed was released");
    }
    close(w.probeFd);
    // URBs never reaped still hold client data copies.
    for (auto& s : states) {
        std::lock_guard<std::mutex> g(s->m);
        for (auto* u : s->inflight) {
            if (u->buf) umockdev_ioctl_data_unref(u->buf);
            umockdev_ioctl_data_unref(u->data);
            delete u;
        }
        for (auto* u : s->completed) {
            if (u->buf) umockdev_ioctl_data_unref(u->buf);
            umockdev_ioctl_data_unref(u->data);
            delete u;
        }
        s->inflight.clear();
        s->completed.clear();
    }
    gCurrent = nullptr;
}

Testbed* Testbed::current() { return gCurrent; }

std::string Testbed::rootDir() const { return TestbedRoot(impl_->tb); }

Reader& Testbed::addReader(Model m) {
    DeviceOptions o;
    o.model = m;
    return addDevice(o);
}
Reader& Testbed::addReader(Model m, DeviceOptions o) {
    o.model = m;
    return addDevice(std::move(o));
}
Reader& Testbed::addUnsupported(uint16_t vid, uint16_t pid) {
    DeviceOptions o;
    o.vendorId = vid;
    o.productId = pid;
    o.descriptors = otherDeviceDescriptors(vid, pid);
    o.manufacturer = std::string("Generic");
    o.product = std::string("USB Optical Mouse");
    o.serial = std::nullopt;
    return addDevice(o);
}

Reader& Testbed::addDevice(DeviceOptions o) {
    auto& I = *impl_;
    std::lock_guard<std::mutex> g(I.m);
    auto s = std::make_shared<ReaderState>();
    s->tb = &I;
    s->opt = o;
    s->customDescriptors = o.descriptors.has_value();
    s->info = modelInfo(o.model);
    s->vid = o.vendorId;
    s->pid = o.productId.value_or(s->info.productId);
    s->bcd = o.bcdDevice;
    s->bus = o.busnum ? o.busnum % 256 : 1;
    auto used = [&](unsigned dev) {
        for (auto& x : I.states)
            if (x->bus == s->bus && x->dev == dev && x->plugged) return true;
        return false;
    };
    if (o.devnum) {
        s->dev = o.devnum;
    } else {
        unsigned d = std::max(2u, I.nextDev[s->bus]);
        while (used(d)) ++d;
        s->dev = d;
        I.nextDev[s->bus] = d + 1;
    }
    s->sysName = o.sysfsName.empty() ? fmt("%u-%u", s->bus, ++I.nextPort[s->bus]) : o.sysfsName;
    s->node = fmt("/dev/bus/usb/%03u/%03u", s->bus, s->dev % 1000);
    s->descriptors = o.descriptors ? *o.descriptors : readerDescriptors(o.model, s->vid, s->pid, s->bcd);
    s->manufacturer = o.manufacturer.value_or("");
    s->product = o.product ? (o.product->empty() ? std::string(s->info.name) : *o.product) : "";
    s->serial = o.serial ? (o.serial->empty() ? fmt("SIM%08u", unsigned(I.states.size() + 1)) : *o.serial) : "";
    s->regs.resize(65536);
    for (unsigned a = 0; a < 65536; ++a) s->regs[a] = defaultRegister(uint16_t(a));
    s->probe = expectedCommit(o.model);

    // Root hub of the bus, once.
    if (std::find(I.rootHubs.begin(), I.rootHubs.end(), s->bus) == I.rootHubs.end()) {
        I.rootHubs.push_back(s->bus);
        std::vector<uint8_t> hub = {18, 1, 0, 2, 9, 0, 1, 64, 0x6b, 0x1d, 2, 0, 0x18, 6, 3, 2, 1, 1,
                                    9, 2, 25, 0, 1, 1, 0, 0xE0, 0,
                                    9, 4, 0, 0, 1, 9, 0, 0, 0,
                                    7, 5, 0x81, 3, 4, 0, 12};
        addFromString(I.tb, fmt("P: %s/usb%u\nN: bus/usb/%03u/001\nE: SUBSYSTEM=usb\nE: DEVTYPE=usb_device\n"
                                "E: BUSNUM=%03u\nE: DEVNUM=001\nA: busnum=%u\\n\nA: devnum=1\\n\nA: speed=480\\n\n"
                                "A: idVendor=1d6b\\n\nA: idProduct=0002\\n\nA: bConfigurationValue=1\\n\n"
                                "A: product=EHCI Host Controller\\n\nH: descriptors=%s\n",
                                kHub, s->bus, s->bus, s->bus, s->bus, hex(hub).c_str()));
    }

    // The ioctl handler for the node (one per path, kept across replugs).
    auto node = std::find_if(I.nodes.begin(), I.nodes.end(), [&](auto& n) { return n.first == s->node; });
    if (node == I.nodes.end()) {
        TestbedImpl::Node n;
        n.handler = umockdev_ioctl_base_new();
        g_signal_connect(n.handler, "handle-ioctl", G_CALLBACK(simHandleIoctl), &I);
        GError* err = nullptr;
        if (!umockdev_testbed_attach_ioctl(I.tb, s->node.c_str(), n.handler, &err)) {
            std::string m = err ? err->message : "?";
            if (err) g_error_free(err);
            die("umockdev_testbed_attach_ioctl(" + s->node + ") failed: " + m);
        }
        I.nodes.emplace_back(s->node, n);
        node = I.nodes.end() - 1;
    }
    node->second.current = s;

    const std::string rel = fmt("%s/usb%u/%s", kHub, s->bus, s->sysName.c_str());
    s->sysPath = "/sys" + rel;
    const unsigned minor = ((s->bus - 1) * 128 + (s->dev - 1)) & 0xFFFFF;
    const uint8_t nCfg = s->descriptors.size() >= 18 ? s->descriptors[17] : 1;
    addFromString(I.tb, fmt("P: %s\nN: bus/usb/%03u/%03u\nE: SUBSYSTEM=usb\nE: DEVTYPE=usb_device\n"
                            "E: DEVNAME=%s\nE: BUSNUM=%03u\nE: DEVNUM=%03u\nE: PRODUCT=%x/%x/%x\n"
                            "E: MAJOR=189\nE: MINOR=%u\n"
                            "A: dev=189:%u\\n\nA: busnum=%u\\n\nA: devnum=%u\\n\nA: speed=480\\n\n"
                            "A: idVendor=%04x\\n\nA: idProduct=%04x\\n\nA: bcdDevice=%04x\\n\n"
                            "A: bConfigurationValue=1\\n\nA: bNumConfigurations=%u\\n\nA: maxchild=0\\n\n"
                            "A: devpath=%s\\n\nH: descriptors=%s\n",
                            rel.c_str(), s->bus, s->dev % 1000, s->node.c_str(), s->bus, s->dev, s->vid, s->pid,
                            s->bcd, minor, minor, s->bus, s->dev, s->vid, s->pid, s->bcd, nCfg,
                            s->sysName.substr(s->sysName.find('-') + 1).c_str(), hex(s->descriptors).c_str()));
    if (o.manufacturer) setAttr(I.tb, s->sysPath, "manufacturer", s->manufacturer + "\n");
    if (o.product) setAttr(I.tb, s->sysPath, "product", s->product + "\n");
    if (o.serial) setAttr(I.tb, s->sysPath, "serial", s->serial + "\n");
    // Interface directories, as the kernel creates them; discovery must skip them.
    if (!o.descriptors) {
        for (int i = 0; i < 2; ++i)
            addFromString(I.tb, fmt("P: %s/%s:1.%d\nE: SUBSYSTEM=usb\nE: DEVTYPE=usb_interface\n"
                                    "A: bInterfaceNumber=%02x\\n\nA: bInterfaceClass=0e\\n\nA: bInterfaceSubClass=%02x\\n\n"
                                    "A: bAlternateSetting= 0\\n\n",
                                    rel.c_str(), s->sysName.c_str(), i, i, i + 1));
    }
    for (auto& [name, val] : o.rawAttributes) setAttr(I.tb, s->sysPath, name, val);
    const std::string root = TestbedRoot(I.tb);
    for (auto& name : o.missingAttributes) unlink((root + s->sysPath + "/" + name).c_str());
    for (auto& name : o.unreadableAttributes) {
        // Root reads any file whatever its mode: a directory is what fails read().
        const std::string p = root + s->sysPath + "/" + name;
        unlink(p.c_str());
        mkdir(p.c_str(), 0755);
    }

    I.states.push_back(s);
    I.readers.emplace_back(new Reader(s));
    return *I.readers.back();
}

void Testbed::unplug(Reader& r) { r.unplug(); }

std::vector<Reader*> Testbed::devices() {
    std::lock_guard<std::mutex> g(impl_->m);
    std::vector<Reader*> v;
    for (auto& r : impl_->readers) v.push_back(r.get());
    return v;
}

// ---------------------------------------------------------- lock holders

LockHolder::LockHolder(LockHolder&& o) noexcept : fd_(o.fd_), pid_(o.pid_), pipe_(o.pipe_) {
    o.fd_ = o.pid_ = o.pipe_ = -1;
}
LockHolder& LockHolder::operator=(LockHolder&& o) noexcept {
    if (this != &o) {
        release();
        fd_ = o.fd_;
        pid_ = o.pid_;
        pipe_ = o.pipe_;
        o.fd_ = o.pid_ = o.pipe_ = -1;
    }
    return *this;
}
LockHolder::~LockHolder() { release(); }
void LockHolder::release() {
    if (fd_ >= 0) {
        flock(fd_, LOCK_UN);
        close(fd_);
        fd_ = -1;
    }
    if (pipe_ >= 0) {
        close(pipe_);
        pipe_ = -1;
    }
    if (pid_ > 0) {
        int st;
        waitpid(pid_, &st, 0);
        pid_ = -1;
    }
}

LockHolder Testbed::holdLock(const Reader& r) {
    LockHolder h;
    int fd = open(r.nodePath().c_str(), O_RDWR);
    if (fd < 0) return h;
    if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
        close(fd);
        return h;
    }
    h.fd_ = fd;
    return h;
}

LockHolder Testbed::holdLockInChild(const Reader& r) {
    LockHolder h;
    int ready[2], release[2];
    if (pipe(ready) != 0) return h;
    if (pipe(release) != 0) {
        close(ready[0]);
        close(ready[1]);
        return h;
    }
    const std::string node = r.nodePath();
    pid_t pid = fork();
    if (pid == 0) {
        close(ready[0]);
        close(release[1]);
        int fd = open(node.c_str(), O_RDWR);
        char ok = (fd >= 0 && flock(fd, LOCK_EX | LOCK_NB) == 0) ? 1 : 0;
        if (write(ready[1], &ok, 1) != 1) _exit(2);
        char b;
        while (read(release[0], &b, 1) > 0) {
        }
        _exit(0);
    }
    close(ready[1]);
    close(release[0]);
    if (pid < 0) {
        close(ready[0]);
        close(release[1]);
        return h;
    }
    char ok = 0;
    if (read(ready[0], &ok, 1) != 1) ok = 0;
    close(ready[0]);
    h.pid_ = pid;
    h.pipe_ = release[1];
    if (!ok) h.release();
    return h;
}

int Testbed::denyOpen(const Reader& r) {
    const std::string p = rootDir() + r.nodePath();
    setImmutable(p, true);
    impl_->immutable.push_back(p);
    int fd = open(r.nodePath().c_str(), O_RDWR);
    if (fd >= 0) {
        close(fd);
        return 0;
    }
    return errno;
}

void Testbed::allowOpen(const Reader& r) {
    const std::string p = rootDir() + r.nodePath();
    setImmutable(p, false);
}

}  // namespace sim
