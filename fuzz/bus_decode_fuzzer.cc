// VLPBus::fromWire on arbitrary user properties and payload, as a message
// arrives from the broker, and then what a host does with the result: print
// it, clone it and, for a SystemMessage, strip the NUL bytes of its text. The
// percent-decoding of names is exercised on every property value as well.
// Beyond not crashing, the result must keep the promises of bus_wire.h,
// bus_names.h and messages.h checked below.
//
// The framing of an input, read front to back:
//   1 byte       n, the number of user properties (0..255)
//   n times      a property's name, then its value, each as a field: a length
//                (2 bytes, big-endian) followed by that many bytes
//   the rest     the MQTT payload
// An input that ends early gives a short last field, empty fields after it
// and an empty payload, so every byte string is a valid input.
#include <vlplatform/messages.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <sstream>
#include <string>
#include <typeinfo>

#include "bus_names.h"
#include "bus_wire.h"

namespace {

// The longest printed form a RouterMessage can have: at most three strings
// (sender, state, text), each quoted with every shown byte escaped to four
// characters plus the "...(<total> bytes)" note, and the fixed words around them.
constexpr std::size_t maxPrintedSize = 3 * (2 + 4 * MessageBase::printLimit + 32) + 256;

[[noreturn]] void finding(std::string const& what) {
    std::fprintf(stderr, "bus_decode_fuzzer: %s\n", what.c_str());
    std::abort();
}

// The fuzz input read front to back in the framing described above.
class FramedInput {
public:
    FramedInput(std::uint8_t const* data, std::size_t size) : data_(data), size_(size) {}

    // The next byte; 0 when none is left.
    std::uint8_t byte() { return size_ > 0 ? take(1).front() : 0; }

    // The next field: a big-endian two-byte length, then up to that many bytes.
    std::string field() {
        std::size_t const high = byte();
        std::size_t const low = byte();
        return take(high << 8 | low);
    }

    // Everything not read yet.
    std::string rest() { return take(size_); }

private:
    // The next `count` bytes, or all that are left when fewer.
    std::string take(std::size_t count) {
        count = std::min(count, size_);
        std::string bytes(reinterpret_cast<char const*>(data_), count);
        data_ += count;
        size_ -= count;
        return bytes;
    }

    std::uint8_t const* data_;
    std::size_t size_;
};

struct BusInput {
    VLPBus::Properties properties;
    std::string payload;
};

BusInput unframe(std::uint8_t const* data, std::size_t size) {
    FramedInput input(data, size);
    BusInput bus;
    unsigned const count = input.byte();
    for (unsigned i = 0; i < count; ++i) {
        std::string name = input.field();
        std::string value = input.field();
        bus.properties.emplace_back(std::move(name), std::move(value));
    }
    bus.payload = input.rest();
    return bus;
}

// decodeName() undoes encodeName() for any bytes, and what it decodes is
// encoded again into a form that decodes to the same bytes.
void checkNameDecoding(std::string const& wire) {
    if (VLPBus::decodeName(VLPBus::encodeName(wire)) != wire) finding("encodeName does not decode back");
    auto const name = VLPBus::decodeName(wire);
    if (!name) return;
    if (name->size() > wire.size()) finding("decodeName grew a name");
    if (VLPBus::decodeName(VLPBus::encodeName(*name)) != name) finding("decoded name does not round-trip");
}

// The value of the first property called `name`; null when there is none.
std::string const* firstValue(VLPBus::Properties const& properties, std::string const& name) {
    for (auto const& property : properties) {
        if (property.first == name) return &property.second;
    }
    return nullptr;
}

// The envelope as fromWire() promises it: id 0, flags 0, the decoded first
// vlp-sender, and no payload when that sender cannot be decoded.
void checkEnvelope(BusInput const& input, RouterMessage const& router) {
    if (router.id() != 0 || router.flags() != 0) finding("router message with an id or flags");
    std::string const* wireSender = firstValue(input.properties, "vlp-sender");
    auto const sender = wireSender ? VLPBus::decodeName(*wireSender) : std::string();
    if (!sender && (!router.sender().empty() || router.message())) finding("malformed sender accepted");
    if (sender && router.sender() != *sender) finding("sender is not the decoded vlp-sender");
}

// `text` is the decimal form of `number`, possibly with leading zeros.
bool isDecimal(std::string const* text, unsigned long number) {
    if (!text || text->empty() || text->find_first_not_of("0123456789") != std::string::npos) return false;
    std::size_t const firstNonZero = std::min(text->find_first_not_of('0'), text->size() - 1);
    return text->substr(firstNonZero) == std::to_string(number);
}

// The id is the first vlp-id, or the type's default id when there is none.
void checkId(BusInput const& input, MessageBase const& message, unsigned defaultId) {
    std::string const* id = firstValue(input.properties, "vlp-id");
    if (id ? !isDecimal(id, message.id()) : message.id() != defaultId) finding("id is not vlp-id");
}

void checkSystem(BusInput const& input, SystemMessage const& msg) {
    std::string const* type = firstValue(input.properties, "vlp-type");
    if (!type || *type != "system") finding("system message without vlp-type system");
    if (!isDecimal(firstValue(input.properties, "vlp-kind"), msg.kind())) finding("kind is not vlp-kind");
    checkId(input, msg, 128);
    if (msg.text() != input.payload) finding("system text is not the payload");
}

void checkSetState(BusInput const& input, SystemSetStateVlpBusMessage const& msg) {
    std::string const* type = firstValue(input.properties, "vlp-type");
    if (!type || *type != "setstate") finding("setstate message without vlp-type setstate");
    std::string const* state = firstValue(input.properties, "vlp-state");
    if (!state || VLPBus::decodeName(*state) != msg.state()) finding("state is not the decoded vlp-state");
    if (!isDecimal(firstValue(input.properties, "vlp-value"), msg.value())) finding("value is not vlp-value");
    checkId(input, msg, SystemSetStateVlpBusMessage::defaultId);
    if (msg.text() != input.payload) finding("setstate text is not the payload");
}

// A decoded payload holds what the first properties of its names say and the
// MQTT payload as its text.
void checkPayload(BusInput const& input, MessageBase const* message) {
    if (auto const* system = dynamic_cast<SystemMessage const*>(message)) {
        checkSystem(input, *system);
    } else if (auto const* state = dynamic_cast<SystemSetStateVlpBusMessage const*>(message)) {
        checkSetState(input, *state);
    } else if (message) {
        finding("payload of a type fromWire never makes");
    }
}

// The printed form: one line, of bounded length whatever the input's size.
std::string printed(MessageBase const& msg) {
    std::ostringstream os;
    os << msg;
    std::string const line = os.str();
    if (line.find_first_of("\r\n") != std::string::npos) finding("printed form breaks the line");
    if (line.size() > maxPrintedSize) finding("printed form of " + std::to_string(line.size()) + " bytes");
    return line;
}

// A clone is a message of the same type that prints the same.
void checkClone(MessageBase const& msg, std::string const& line) {
    std::unique_ptr<MessageBase> const copy = msg.clone();
    if (!copy) finding("clone gave nothing");
    MessageBase const& clone = *copy;
    if (typeid(clone) != typeid(msg)) finding("clone of another type");
    if (printed(clone) != line) finding("clone prints differently");
}

// stripNullChar() removes the NUL bytes of the text and keeps the others in order.
void checkStripNullChar(SystemMessage const& msg) {
    SystemMessage stripped(msg);
    stripped.stripNullChar();
    std::string expected;
    for (char c : msg.text()) {
        if (c != '\0') expected += c;
    }
    if (stripped.text() != expected) finding("stripNullChar changed more than the NUL bytes");
    if (stripped.kind() != msg.kind() || stripped.id() != msg.id())
        finding("stripNullChar changed the message");
}

// A decoded message sent on again by its sender arrives as the same message.
void checkResend(RouterMessage const& router, std::string const& line) {
    if (!router.message()) return;
    auto const wire = VLPBus::toWire(router.sender(), *router.message());
    if (!wire) finding("decoded message cannot be sent");
    auto const again = VLPBus::fromWire(wire->properties, wire->payload);
    if (!again || printed(*again) != line) finding("resent message arrives differently");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    BusInput const input = unframe(data, size);
    for (auto const& property : input.properties) checkNameDecoding(property.second);
    std::unique_ptr<RouterMessage> const router = VLPBus::fromWire(input.properties, input.payload);
    if (!router) finding("fromWire gave nothing");
    checkEnvelope(input, *router);
    checkPayload(input, router->message());
    std::string const line = printed(*router);
    checkClone(*router, line);
    if (router->message()) checkClone(*router->message(), printed(*router->message()));
    if (auto const* system = dynamic_cast<SystemMessage const*>(router->message()))
        checkStripNullChar(*system);
    checkResend(*router, line);
    return 0;
}
