#include <fcntl.h>
#include <mosquitto.h>
#include <nxahost/fleet_link.h>
#include <nxahost/log.h>
#include <poll.h>
#include <vlplatform/descriptors.h>

#include <mutex>
#include <stdexcept>

namespace nxahost {

namespace {

constexpr std::chrono::seconds kAttemptEvery{1};

void initialiseMosquittoOnce() {
    static std::once_flag once;
    std::call_once(once, [] { mosquitto_lib_init(); });
}

}  // namespace

void FleetLink::HandleDeleter::operator()(mosquitto* handle) const {
    mosquitto_destroy(handle);
}

FleetLink::FleetLink(Setup setup, Receiver receiver)
    : setup_(std::move(setup)), receiver_(std::move(receiver)) {
    initialiseMosquittoOnce();
    retained_[setup_.presenceTopic] = setup_.presence;
    connect();
}

FleetLink::~FleetLink() {
    if (socket_ >= 0) forgetDescriptor(socket_);
}

// A new client for each attempt, so that nothing of a lost connection's state
// is carried over; the will is left with the broker as it connects.
void FleetLink::connect() {
    if (socket_ >= 0) forgetDescriptor(socket_);
    socket_ = -1;
    connected_ = false;
    refused_ = false;
    nextAttempt_ = SteadyClock::now() + kAttemptEvery;
    handle_.reset(mosquitto_new(setup_.clientId.c_str(), true, this));
    if (!handle_) throw std::runtime_error("cannot make an MQTT client");
    mosquitto_int_option(handle_.get(), MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5);
    mosquitto_connect_callback_set(handle_.get(), &FleetLink::onConnect);
    mosquitto_message_callback_set(handle_.get(), &FleetLink::onMessage);
    mosquitto_will_set(handle_.get(), setup_.presenceTopic.c_str(), static_cast<int>(setup_.will.size()),
                       setup_.will.data(), 1, true);
    // No keep-alive: the broker is on this device, and a host that dies
    // closes its connection.
    if (mosquitto_connect_async(handle_.get(), setup_.host.c_str(), setup_.port, 0) != MOSQ_ERR_SUCCESS)
        return lose();
    syncSocket();
}

// libmosquitto opens and closes its socket inside its own calls; the loop's
// descriptor record hears of both, and module programs inherit none.
void FleetLink::syncSocket() {
    int const now = handle_ ? mosquitto_socket(handle_.get()) : -1;
    if (now == socket_) return;
    if (socket_ >= 0) forgetDescriptor(socket_);
    socket_ = now;
    if (socket_ < 0) return;
    fcntl(socket_, F_SETFD, FD_CLOEXEC);
    noteDescriptorOpened(socket_);
}

void FleetLink::lose() {
    connected_ = false;
    if (socket_ >= 0) forgetDescriptor(socket_);
    socket_ = -1;
    handle_.reset();
}

int FleetLink::addFds(FdSet& rd, FdSet& wr, int timeoutMs) const {
    if (closed_) return timeoutMs;
    if (socket_ >= 0) {
        rd.add(socket_);
        if (mosquitto_want_write(handle_.get())) wr.add(socket_);
        return timeoutMs;
    }
    auto const left = std::chrono::ceil<std::chrono::milliseconds>(nextAttempt_ - SteadyClock::now()).count();
    int const ours = static_cast<int>(std::max<long long>(0, left));
    return timeoutMs < 0 ? ours : std::min(timeoutMs, ours);
}

void FleetLink::serve(FdSet const& rd, FdSet const& wr) {
    if (closed_) return;
    if (socket_ < 0) {
        if (SteadyClock::now() >= nextAttempt_) connect();
        return;
    }
    mosquitto* const handle = handle_.get();
    bool const readable = rd.isSet(socket_);
    bool const writable = wr.isSet(socket_) || mosquitto_want_write(handle);
    // Most turns serve module output only: an idle link (no keep-alive to
    // keep) costs them nothing more.
    if (!readable && !writable) return;
    int rc = MOSQ_ERR_SUCCESS;
    if (writable) rc = mosquitto_loop_write(handle, 1);
    if (rc == MOSQ_ERR_SUCCESS && readable) rc = mosquitto_loop_read(handle, 1);
    if (rc == MOSQ_ERR_SUCCESS) rc = mosquitto_loop_misc(handle);
    if (rc != MOSQ_ERR_SUCCESS || refused_) return lose();
    syncSocket();
    if (socket_ < 0) lose();
}

void FleetLink::publishRetained(std::string const& topic, std::string const& payload) {
    retained_[topic] = payload;
    if (connected_) publish(topic, payload);
}

void FleetLink::publish(std::string const& topic, std::string const& payload) {
    mosquitto_publish(handle_.get(), nullptr, topic.c_str(), static_cast<int>(payload.size()), payload.data(),
                      1, true);
}

void FleetLink::close(std::chrono::milliseconds patience) {
    if (closed_) return;
    closed_ = true;
    if (!connected_) return lose();
    mosquitto_disconnect(handle_.get());
    auto const end = SteadyClock::now() + patience;
    while (mosquitto_want_write(handle_.get()) && SteadyClock::now() < end) {
        pollfd p{socket_, POLLOUT, 0};
        if (poll(&p, 1, 50) < 0 || mosquitto_loop_write(handle_.get(), 1) != MOSQ_ERR_SUCCESS) break;
    }
    lose();
}

void FleetLink::onConnect(mosquitto*, void* self, int rc) {
    auto& link = *static_cast<FleetLink*>(self);
    if (rc != 0) {
        // Dropped after the libmosquitto call that reported it.
        link.refused_ = true;
        return;
    }
    link.connected_ = true;
    for (std::string const& topic : link.setup_.subscriptions)
        mosquitto_subscribe(link.handle_.get(), nullptr, topic.c_str(), 1);
    for (auto const& [topic, payload] : link.retained_) link.publish(topic, payload);
}

void FleetLink::onMessage(mosquitto*, void* self, mosquitto_message const* message) {
    auto& link = *static_cast<FleetLink*>(self);
    std::string payload;
    if (message->payloadlen > 0)
        payload.assign(static_cast<char const*>(message->payload),
                       static_cast<std::size_t>(message->payloadlen));
    // Nothing may be thrown through libmosquitto's C frames.
    try {
        link.receiver_(message->topic, payload);
    } catch (std::exception const& e) {
        hostLog(kHostError, "fleet: a message on ", message->topic, " could not be handled: ", e.what());
    }
}

}  // namespace nxahost
