#include "bus/usbfs_node.h"

#include <linux/usbdevice_fs.h>
#include <sys/ioctl.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <exception>
#include <mutex>
#include <stdexcept>
#include <utility>

#include "bus/clock.h"

namespace jovusim {

namespace {

/// A piece of a client's memory, mirrored here; written back when the ioctl completes.
using ClientMemory = std::shared_ptr<UMockdevIoctlData>;

constexpr char kSessionKey[] = "jovu-sim-session";

/// Counts the nodes that have been handed to the testbed. The testbed passes them to its worker
/// thread under locks that ThreadSanitizer does not see; this orders the two visibly.
std::atomic<unsigned> nodes_handed_over{0};

/// To be called first in what the worker thread does with a node.
void see_nodes_handed_over() {
    nodes_handed_over.load(std::memory_order_acquire);
}

std::atomic<unsigned> open_sessions{0};

constexpr std::uint32_t kCapabilities =
    USBDEVFS_CAP_ZERO_PACKET | USBDEVFS_CAP_BULK_CONTINUATION | USBDEVFS_CAP_NO_PACKET_SIZE_LIM |
    USBDEVFS_CAP_BULK_SCATTER_GATHER | USBDEVFS_CAP_REAP_AFTER_DISCONNECT;

/// Follows a pointer at an offset of a client's memory. Blocks until the client, which waits inside
/// its ioctl, has sent the bytes, so no lock may be held. Null when the client has died.
ClientMemory follow(UMockdevIoctlData* from, std::size_t offset, std::size_t size) {
    GError* error = nullptr;
    UMockdevIoctlData* data = umockdev_ioctl_data_resolve(from, offset, size, &error);
    g_clear_error(&error);
    return ClientMemory(data, [](UMockdevIoctlData* memory) {
        if (memory != nullptr) g_object_unref(memory);
    });
}

template <typename T>
T* view(const ClientMemory& memory) {
    return reinterpret_cast<T*>(memory->data);
}

/// A transfer's structure and buffer in the client's memory.
struct UrbMemory {
    ClientMemory urb;
    ClientMemory buffer;
};

/// How long an interface has to be held by another open file until that is believed.
constexpr Millis kContentionLimit = 100;
constexpr guint kContentionPauseMs = 1;

/// What an ioctl returns: 0, an errno, or kContended.
using Outcome = int;

/// One open file of the node. Lives as long as the testbed's object for that file, which goes when
/// the program closes the file or dies.
struct Session {
    explicit Session(std::shared_ptr<SimDevice> opened) : device(std::move(opened)) {
        if (device) client = device->open();
        ++open_sessions;
    }
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;
    ~Session() {
        if (device) device->close(client);
        --open_sessions;
    }

    /// Can be run again with the same request after kContended.
    Outcome run(gulong request, UMockdevIoctlData* arg);

    Outcome capabilities(UMockdevIoctlData* arg);
    Outcome with_interface(UMockdevIoctlData* arg, int (SimDevice::*work)(ClientId, unsigned));
    Outcome disconnect_claim(UMockdevIoctlData* arg);
    Outcome submit(UMockdevIoctlData* arg);
    Outcome reap(UMockdevIoctlData* arg);

    const std::shared_ptr<SimDevice> device;
    ClientId client = 0;
};

Outcome Session::run(gulong request, UMockdevIoctlData* arg) {
    if (!device) return ENODEV;
    if (request == USBDEVFS_REAPURBNDELAY) return reap(arg);
    if (const Outcome gone = device->check_present()) return gone;
    switch (request) {
        case USBDEVFS_GET_CAPABILITIES:
            return capabilities(arg);
        case USBDEVFS_CLAIMINTERFACE:
            return with_interface(arg, &SimDevice::claim);
        case USBDEVFS_RELEASEINTERFACE:
            return with_interface(arg, &SimDevice::release);
        case USBDEVFS_DISCONNECT_CLAIM:
            return disconnect_claim(arg);
        case USBDEVFS_SUBMITURB:
            return submit(arg);
        case USBDEVFS_DISCARDURB:
            return device->discard(client, *reinterpret_cast<gulong*>(arg->data));
        case USBDEVFS_GETDRIVER:
        case USBDEVFS_IOCTL:
            return ENODATA;  // no kernel driver is bound to this device
        case USBDEVFS_SETINTERFACE:
        case USBDEVFS_SETCONFIGURATION:
        case USBDEVFS_CLEAR_HALT:
        case USBDEVFS_RESETEP:
        case USBDEVFS_RESET:
            return 0;
        default:
            std::fprintf(stderr, "jovu-sim: device %s: ioctl 0x%lx is not simulated\n",
                         device->address().to_string().c_str(), request);
            return ENOTTY;
    }
}

Outcome Session::capabilities(UMockdevIoctlData* arg) {
    const ClientMemory answer = follow(arg, 0, sizeof kCapabilities);
    if (!answer) return EFAULT;
    *view<std::uint32_t>(answer) = kCapabilities;
    return 0;
}

Outcome Session::with_interface(UMockdevIoctlData* arg,
                                int (SimDevice::*work)(ClientId, unsigned)) {
    const ClientMemory number = follow(arg, 0, sizeof(unsigned));
    if (!number) return EFAULT;
    return (device.get()->*work)(client, *view<unsigned>(number));
}

Outcome Session::disconnect_claim(UMockdevIoctlData* arg) {
    const ClientMemory request = follow(arg, 0, sizeof(usbdevfs_disconnect_claim));
    if (!request) return EFAULT;
    return device->claim(client, view<usbdevfs_disconnect_claim>(request)->interface);
}

Outcome Session::submit(UMockdevIoctlData* arg) {
    auto memory = std::make_shared<UrbMemory>();
    memory->urb = follow(arg, 0, sizeof(usbdevfs_urb));
    if (!memory->urb) return EFAULT;
    const auto* request = view<usbdevfs_urb>(memory->urb);
    if (request->type != USBDEVFS_URB_TYPE_BULK && request->type != USBDEVFS_URB_TYPE_CONTROL) {
        return EINVAL;
    }
    if (request->buffer_length < 0) return EINVAL;
    Urb urb;
    urb.client = client;
    urb.handle = memory->urb->client_addr;
    urb.control = request->type == USBDEVFS_URB_TYPE_CONTROL;
    urb.endpoint = request->endpoint;
    urb.length = static_cast<std::size_t>(request->buffer_length);
    if (urb.length > 0) {
        memory->buffer =
            follow(memory->urb.get(), G_STRUCT_OFFSET(usbdevfs_urb, buffer), urb.length);
        if (!memory->buffer) return EFAULT;
        urb.buffer = memory->buffer->data;
    }
    urb.memory = std::move(memory);
    const Outcome outcome = device->submit(std::move(urb));
    device->print_complaints();
    return outcome;
}

Outcome Session::reap(UMockdevIoctlData* arg) {
    const ClientMemory slot = follow(arg, 0, sizeof(gpointer));
    if (!slot) return EFAULT;
    std::optional<Urb> urb;
    if (const Outcome nothing = device->reap(client, urb)) return nothing;
    const auto memory = std::static_pointer_cast<UrbMemory>(urb->memory);
    auto* result = view<usbdevfs_urb>(memory->urb);
    result->status = urb->status;
    result->actual_length = static_cast<int>(urb->actual);
    umockdev_ioctl_data_set_ptr(slot.get(), 0, memory->urb.get());
    return 0;
}

template <typename T>
void destroy(gpointer data) {
    const std::unique_ptr<T> owner(static_cast<T*>(data));
}

Outcome run_once(Session& session, UMockdevIoctlClient* client) {
    return session.run(umockdev_ioctl_client_get_request(client),
                       umockdev_ioctl_client_get_arg(client));
}

void complete(UMockdevIoctlClient* client, Outcome outcome) {
    umockdev_ioctl_client_complete(client, outcome == 0 ? 0 : -1, outcome);
}

/// An ioctl that waits for another open file to be gone, on the worker thread's main loop. Its
/// client waits with it: it can neither go on nor close its file before the ioctl completes.
class Contention {
public:
    static void wait(Session& session, UMockdevIoctlClient* client) {
        auto self = std::make_unique<Contention>(session, client);
        const std::unique_ptr<GSource, decltype(&g_source_unref)> timer(
            g_timeout_source_new(kContentionPauseMs), g_source_unref);
        g_source_set_callback(timer.get(), on_time, self.release(), destroy<Contention>);
        g_source_attach(timer.get(), g_main_context_get_thread_default());
    }

    Contention(Session& session, UMockdevIoctlClient* client)
        : session_(session),
          client_(UMOCKDEV_IOCTL_CLIENT(g_object_ref(client)), g_object_unref),
          deadline_(now_ms() + kContentionLimit) {}

private:
    static gboolean on_time(gpointer data) {
        auto& self = *static_cast<Contention*>(data);
        Outcome outcome = EIO;
        try {
            outcome = run_once(self.session_, self.client_.get());
            if (outcome == kContended) {
                if (now_ms() < self.deadline_) return G_SOURCE_CONTINUE;
                self.session_.device->count_refused_claim();
                outcome = EBUSY;
            }
        } catch (const std::exception& error) {
            std::fprintf(stderr, "jovu-sim: an ioctl failed: %s\n", error.what());
        }
        complete(self.client_.get(), outcome);
        return G_SOURCE_REMOVE;
    }

    Session& session_;  // lives as long as the client
    const std::unique_ptr<UMockdevIoctlClient, decltype(&g_object_unref)> client_;
    const Millis deadline_;
};

}  // namespace

/// The listening end, shared with the testbed.
struct UsbfsNode::Socket {
    std::shared_ptr<SimDevice> device() {
        const std::lock_guard<std::mutex> lock(mutex);
        return current;
    }

    static Session& session_of(Socket& socket, UMockdevIoctlClient* client);
    static gboolean on_ioctl(UMockdevIoctlBase*, UMockdevIoctlClient* client, gpointer self);

    std::mutex mutex;  // guards current; no other lock is taken under it
    std::shared_ptr<SimDevice> current;
};

Session& UsbfsNode::Socket::session_of(Socket& socket, UMockdevIoctlClient* client) {
    auto* known = static_cast<Session*>(g_object_get_data(G_OBJECT(client), kSessionKey));
    if (known != nullptr) return *known;
    // The testbed tells nobody that a file was closed; its object for the file just goes, and with
    // it what is attached to it.
    auto session = std::make_unique<Session>(socket.device());
    Session& result = *session;
    g_object_set_data_full(G_OBJECT(client), kSessionKey, session.release(), destroy<Session>);
    return result;
}

gboolean UsbfsNode::Socket::on_ioctl(UMockdevIoctlBase*, UMockdevIoctlClient* client,
                                     gpointer self) {
    see_nodes_handed_over();
    Outcome outcome = EIO;
    try {
        Session& session = session_of(**static_cast<std::shared_ptr<Socket>*>(self), client);
        if (session.device) session.device->count_ioctl();
        outcome = run_once(session, client);
        if (outcome == kContended) {
            Contention::wait(session, client);
            return TRUE;
        }
    } catch (const std::exception& error) {
        // The caller is a C library, which must not be unwound.
        std::fprintf(stderr, "jovu-sim: an ioctl failed: %s\n", error.what());
    }
    complete(client, outcome);
    return TRUE;
}

UsbfsNode::UsbfsNode(UMockdevTestbed* testbed, const std::string& node)
    : socket_(std::make_shared<Socket>()) {
    const std::unique_ptr<UMockdevIoctlBase, decltype(&g_object_unref)> handler(
        umockdev_ioctl_base_new(), g_object_unref);
    auto share = std::make_unique<std::shared_ptr<Socket>>(socket_);
    nodes_handed_over.fetch_add(1, std::memory_order_release);
    g_signal_connect_data(
        handler.get(), "handle-ioctl", G_CALLBACK(Socket::on_ioctl), share.release(),
        [](gpointer data, GClosure*) {
            see_nodes_handed_over();
            destroy<std::shared_ptr<Socket>>(data);
        },
        static_cast<GConnectFlags>(0));
    GError* error = nullptr;
    if (umockdev_testbed_attach_ioctl(testbed, node.c_str(), handler.get(), &error) == FALSE) {
        const std::string reason = error != nullptr ? error->message : "no reason given";
        g_clear_error(&error);
        throw std::runtime_error("cannot serve " + node + ": " + reason);
    }
}

unsigned UsbfsNode::open_files() {
    return open_sessions;
}

UsbfsNode::~UsbfsNode() {
    set_device(nullptr);
}

void UsbfsNode::set_device(std::shared_ptr<SimDevice> device) {
    const std::lock_guard<std::mutex> lock(socket_->mutex);
    socket_->current.swap(device);
}

}  // namespace jovusim
