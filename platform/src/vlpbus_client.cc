#include "vlplatform/vlpbus_client.h"

#include <deque>

#include "bus_names.h"
#include "bus_wire.h"
#include "mqtt_link.h"

namespace {

std::string topicOf(std::string const& name) {
    return "vlpbus/" + VLPBus::encodeName(name);
}

std::size_t wireSize(VLPBus::Properties const& properties, std::string const& payload) {
    std::size_t size = payload.size();
    for (auto const& property : properties) size += property.first.size() + property.second.size();
    return size;
}

}  // namespace

struct VLPBusClient::Impl {
    struct Queued {
        std::unique_ptr<MessageBase> message;
        std::size_t bytes;
    };

    VLPBus::MqttLink::Options options;
    std::unique_ptr<VLPBus::MqttLink> link;
    std::deque<Queued> queue;
    std::size_t queuedBytes = 0;
    unsigned long dropped = 0;

    void attempt();
    void receive(std::string const& topic, VLPBus::Properties properties, std::string payload);
    bool connected() const { return link && link->connected(); }
};

void VLPBusClient::Impl::attempt() {
    if (connected()) return;
    link.reset();
    link = std::make_unique<VLPBus::MqttLink>(
        options, [this](std::string const& topic, VLPBus::Properties properties, std::string payload) {
            receive(topic, std::move(properties), std::move(payload));
        });
    if (!link->connected()) link.reset();
}

void VLPBusClient::Impl::receive(std::string const& topic, VLPBus::Properties properties,
                                 std::string payload) {
    if (topic != options.topic) return;
    std::size_t bytes = wireSize(properties, payload);
    if (queue.size() >= maxQueuedMessages || queuedBytes + bytes > maxQueuedBytes) {
        ++dropped;
        return;
    }
    queue.push_back({VLPBus::fromWire(properties, std::move(payload)), bytes});
    queuedBytes += bytes;
}

VLPBusClient::VLPBusClient(std::string const& host, unsigned short port, std::string const& name)
    : name_(name), impl_(std::make_unique<Impl>()) {
    impl_->options.host = host.empty() ? "127.0.0.1" : host;
    impl_->options.port = port;
    impl_->options.clientId = VLPBus::encodeName(name);
    impl_->options.topic = topicOf(name);
    impl_->options.maxPacketBytes = maxPacketBytes;
    impl_->options.waitMs = connectWaitMs;
}

VLPBusClient::~VLPBusClient() {
    disconnectFromServer();
}

class VLPBusClient::FdRefresh {
public:
    explicit FdRefresh(VLPBusClient& client) : client_(client) {}
    ~FdRefresh() { client_.fd_ = client_.impl_->link ? client_.impl_->link->socket() : -1; }
    FdRefresh(FdRefresh const&) = delete;
    FdRefresh& operator=(FdRefresh const&) = delete;

private:
    VLPBusClient& client_;
};

void VLPBusClient::setMaxPacketBytes(unsigned bytes) {
    impl_->options.maxPacketBytes = bytes;
}

void VLPBusClient::setup() {
    FdRefresh refresh(*this);
    impl_->attempt();
}

void VLPBusClient::connectToServer() {
    FdRefresh refresh(*this);
    impl_->attempt();
}

bool VLPBusClient::isConnected() const {
    return impl_->connected();
}

bool VLPBusClient::read() {
    FdRefresh refresh(*this);
    if (!impl_->connected()) return false;
    if (impl_->link->service(maxPacketsPerRead)) return true;
    impl_->link.reset();
    return false;
}

std::unique_ptr<MessageBase> VLPBusClient::getMessage() {
    if (impl_->queue.empty()) return nullptr;
    Impl::Queued front = std::move(impl_->queue.front());
    impl_->queue.pop_front();
    impl_->queuedBytes -= front.bytes;
    return std::move(front.message);
}

void VLPBusClient::sendTo(std::string const& from, std::string const& to, std::unique_ptr<MessageBase> msg) {
    if (!msg || !impl_->connected()) return;
    FdRefresh refresh(*this);
    auto wire = VLPBus::toWire(from, *msg);
    if (!wire) return;
    if (!impl_->link->publish(topicOf(to), *wire)) impl_->link.reset();
}

void VLPBusClient::disconnectFromServer() {
    if (!impl_->link) return;
    FdRefresh refresh(*this);
    impl_->link->disconnect();
    impl_->link.reset();
}

unsigned long VLPBusClient::droppedMessages() const {
    return impl_->dropped;
}
