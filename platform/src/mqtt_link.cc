#include "mqtt_link.h"

#include <mosquitto.h>
#include <mqtt_protocol.h>
#include <poll.h>

#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <new>

#include "vlplatform/descriptors.h"
#include "vlplatform/exceptions.h"

namespace VLPBus {

namespace {

// libmosquitto's global state, set up once for the process and released at exit.
struct Library {
    Library() { mosquitto_lib_init(); }
    ~Library() { mosquitto_lib_cleanup(); }
};

void useLibrary() {
    static Library library;
}

// An owned list of MQTT v5 properties.
struct PropertyList {
    mosquitto_property* list = nullptr;
    PropertyList() = default;
    PropertyList(PropertyList const&) = delete;
    PropertyList& operator=(PropertyList const&) = delete;
    ~PropertyList() { mosquitto_property_free_all(&list); }
};

void throwIfNoMemory(int rc) {
    if (rc == MOSQ_ERR_NOMEM) throw std::bad_alloc();
}

// libmosquitto 2.0 has no non-blocking connect that takes CONNECT properties, and
// its blocking one waits for TCP's own time-out when a host does not answer.
// mosquitto_connect_bind_v5 keeps the properties before it checks its
// arguments: called without a host it stores them and returns MOSQ_ERR_INVAL
// without connecting, and the asynchronous connect that follows sends them.
bool storeConnectProperties(mosquitto* handle, unsigned maxPacketBytes) {
    PropertyList props;
    throwIfNoMemory(mosquitto_property_add_int32(&props.list, MQTT_PROP_MAXIMUM_PACKET_SIZE, maxPacketBytes));
    int rc = mosquitto_connect_bind_v5(handle, nullptr, 0, 0, nullptr, props.list);
    throwIfNoMemory(rc);
    return rc == MOSQ_ERR_INVAL;
}

Properties userProperties(mosquitto_property const* props) {
    Properties result;
    for (auto const* p = props; p; p = mosquitto_property_next(p)) {
        if (mosquitto_property_identifier(p) != MQTT_PROP_USER_PROPERTY) continue;
        char* name = nullptr;
        char* value = nullptr;
        if (!mosquitto_property_read_string_pair(p, MQTT_PROP_USER_PROPERTY, &name, &value, false)) continue;
        std::unique_ptr<char, decltype(&std::free)> ownName(name, &std::free);
        std::unique_ptr<char, decltype(&std::free)> ownValue(value, &std::free);
        result.emplace_back(name ? name : "", value ? value : "");
    }
    return result;
}

bool isConnectionLoss(int rc) {
    return rc == MOSQ_ERR_NO_CONN || rc == MOSQ_ERR_CONN_LOST || rc == MOSQ_ERR_ERRNO ||
           rc == MOSQ_ERR_PROTOCOL || rc == MOSQ_ERR_MALFORMED_PACKET;
}

}  // namespace

void MqttLink::HandleDeleter::operator()(mosquitto* handle) const {
    mosquitto_destroy(handle);
}

MqttLink::MqttLink(Options const& options, Receiver receiver)
    : receiver_(std::move(receiver)), topic_(options.topic) {
    useLibrary();
    // The id is copied; a null id makes libmosquitto choose one (an empty one is refused).
    handle_.reset(mosquitto_new(options.clientId.empty() ? nullptr : options.clientId.c_str(), true, this));
    if (!handle_) throw IOException(errno, "cannot create bus client");
    mosquitto_int_option(handle_.get(), MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5);
    mosquitto_int_option(handle_.get(), MOSQ_OPT_TCP_NODELAY, 1);
    setCallbacks();
    start(options);
    if (state_ != State::failed) awaitSubscription(options.waitMs);
    if (state_ != State::connected) lose();
}

MqttLink::~MqttLink() {
    forgetSocket();
}

// Records a socket libmosquitto opened, or closed on its own (a lost connection).
void MqttLink::syncSocket() {
    int const now = handle_ ? mosquitto_socket(handle_.get()) : -1;
    if (now == socket_) return;
    forgetSocket();
    socket_ = now;
    noteDescriptorOpened(socket_);
}

// Called before the socket is closed, while its number still means it.
void MqttLink::forgetSocket() {
    forgetDescriptor(socket_);
    socket_ = -1;
}

void MqttLink::setCallbacks() {
    mosquitto_connect_v5_callback_set(handle_.get(), &MqttLink::onConnect);
    mosquitto_subscribe_v5_callback_set(handle_.get(), &MqttLink::onSubscribe);
    mosquitto_message_v5_callback_set(handle_.get(), &MqttLink::onMessage);
}

// Keep-alive 0: the bus has no timers; a dead broker shows as a lost connection.
void MqttLink::start(Options const& options) {
    if (!storeConnectProperties(handle_.get(), options.maxPacketBytes)) {
        state_ = State::failed;
        return;
    }
    int rc = mosquitto_connect_bind_async(handle_.get(), options.host.c_str(), options.port, 0, nullptr);
    syncSocket();
    throwIfNoMemory(rc);
    if (rc != MOSQ_ERR_SUCCESS) state_ = State::failed;
}

void MqttLink::awaitSubscription(int waitMs) {
    using Clock = std::chrono::steady_clock;
    auto deadline = Clock::now() + std::chrono::milliseconds(waitMs);
    while (state_ == State::connecting || state_ == State::subscribing) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
        if (left <= 0 || !step(static_cast<int>(left))) state_ = State::failed;
    }
}

// One wait for the socket (at most timeoutMs) and the network work it allows.
// False when the connection failed.
bool MqttLink::step(int timeoutMs) {
    int fd = mosquitto_socket(handle_.get());
    if (fd < 0) return false;
    pollfd p{fd, static_cast<short>(POLLIN | (mosquitto_want_write(handle_.get()) ? POLLOUT : 0)), 0};
    int n = poll(&p, 1, timeoutMs);
    if (n < 0) return errno == EINTR;
    if (n == 0) return true;
    if ((p.revents & POLLOUT) && check(mosquitto_loop_write(handle_.get(), 1)) != MOSQ_ERR_SUCCESS) {
        return false;
    }
    if ((p.revents & (POLLIN | POLLHUP | POLLERR)) &&
        check(mosquitto_loop_read(handle_.get(), 1)) != MOSQ_ERR_SUCCESS) {
        return false;
    }
    return check(mosquitto_loop_misc(handle_.get())) == MOSQ_ERR_SUCCESS;
}

bool MqttLink::readable() const {
    pollfd p{mosquitto_socket(handle_.get()), POLLIN, 0};
    return p.fd >= 0 && poll(&p, 1, 0) > 0 && (p.revents & (POLLIN | POLLHUP | POLLERR));
}

bool MqttLink::service(unsigned maxPackets) {
    if (!connected()) return false;
    for (unsigned i = 0; i < maxPackets && readable(); ++i) {
        if (check(mosquitto_loop_read(handle_.get(), 1)) != MOSQ_ERR_SUCCESS) {
            lose();
            return false;
        }
    }
    if (!flush()) return false;
    // A DISCONNECT from the broker closes the socket without an error code.
    if (check(mosquitto_loop_misc(handle_.get())) != MOSQ_ERR_SUCCESS ||
        mosquitto_socket(handle_.get()) < 0) {
        lose();
        return false;
    }
    return true;
}

bool MqttLink::flush() {
    if (!mosquitto_want_write(handle_.get())) return true;
    if (check(mosquitto_loop_write(handle_.get(), 1)) == MOSQ_ERR_SUCCESS) return true;
    lose();
    return false;
}

bool MqttLink::publish(std::string const& topic, WireMessage const& message) {
    if (!connected()) return false;
    if (message.payload.size() > INT_MAX) return true;
    PropertyList props;
    for (auto const& property : message.properties) {
        throwIfNoMemory(mosquitto_property_add_string_pair(&props.list, MQTT_PROP_USER_PROPERTY,
                                                           property.first.c_str(), property.second.c_str()));
    }
    int rc =
        mosquitto_publish_v5(handle_.get(), nullptr, topic.c_str(), static_cast<int>(message.payload.size()),
                             message.payload.data(), 0, false, props.list);
    throwIfNoMemory(rc);
    if (isConnectionLoss(rc)) {
        lose();
        return false;
    }
    return flush();
}

void MqttLink::disconnect() {
    if (connected()) mosquitto_disconnect_v5(handle_.get(), MQTT_RC_NORMAL_DISCONNECTION, nullptr);
    lose();
}

// Rethrows what a callback caught during the libmosquitto call that returned rc.
int MqttLink::check(int rc) {
    syncSocket();
    if (pending_) {
        std::exception_ptr e = pending_;
        pending_ = nullptr;
        std::rethrow_exception(e);
    }
    return rc;
}

void MqttLink::lose() {
    state_ = State::failed;
    forgetSocket();
    handle_.reset();
}

void MqttLink::onConnect(mosquitto*, void* self, int rc, int, mosquitto_property const*) {
    auto* link = static_cast<MqttLink*>(self);
    if (rc != 0) {
        link->state_ = State::failed;
        return;
    }
    link->subscribe();
}

void MqttLink::subscribe() {
    int rc = mosquitto_subscribe_v5(handle_.get(), &subscribeMid_, topic_.c_str(), 0, 0, nullptr);
    state_ = rc == MOSQ_ERR_SUCCESS ? State::subscribing : State::failed;
}

void MqttLink::onSubscribe(mosquitto*, void* self, int mid, int count, int const* granted,
                           mosquitto_property const*) {
    auto* link = static_cast<MqttLink*>(self);
    if (mid != link->subscribeMid_) return;
    bool granted0 = count >= 1 && granted[0] == 0;
    link->state_ = granted0 ? State::connected : State::failed;
}

// Nothing may unwind through libmosquitto: what is thrown here waits in
// pending_ until the libmosquitto call returns.
void MqttLink::onMessage(mosquitto*, void* self, mosquitto_message const* msg,
                         mosquitto_property const* props) {
    auto* link = static_cast<MqttLink*>(self);
    try {
        link->receive(*msg, props);
    } catch (...) {
        if (!link->pending_) link->pending_ = std::current_exception();
    }
}

void MqttLink::receive(mosquitto_message const& msg, mosquitto_property const* props) {
    std::string payload;
    if (msg.payloadlen > 0) payload.assign(static_cast<char const*>(msg.payload), msg.payloadlen);
    receiver_(msg.topic ? msg.topic : "", userProperties(props), std::move(payload));
}

}  // namespace VLPBus
