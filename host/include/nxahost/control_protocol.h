// The operator's controls of a host over the bus, one definition for the
// host's side (ControlServer) and the operator's (ControlClient, nxactl).
//
// A request is a system message of kind kRequestKind sent to the host's bus
// name, its text a JSON object: "command" (one of the commands below), the
// command's fields ("module", "client") and, if the requester wants it back,
// an "id" (a text or a number). The answer goes back to the requester's own
// bus name as kind kReplyKind, a JSON object with "ok", the request's "id",
// and "error" (a sentence) when "ok" is false.
#pragma once

#include <cstddef>
#include <nlohmann/json.hpp>
#include <string>

namespace nxahost::control {

inline constexpr unsigned char kRequestKind = 64;
inline constexpr unsigned char kReplyKind = 65;

// The bus name a host answers on unless told otherwise.
inline constexpr char kDefaultHostName[] = "NXAHost";

// The commands.
inline constexpr char kStatus[] = "status";
inline constexpr char kClients[] = "clients";
inline constexpr char kKick[] = "kick";
inline constexpr char kRestart[] = "restart";
inline constexpr char kReload[] = "reload";
inline constexpr char kPackage[] = "package";

// The kind of the host's package events to the bus server ("VLPBusServer"):
// a JSON object with "event" ("rolled back"), "reason", "from" and "to".
inline constexpr unsigned char kPackageEventKind = 66;

// The keys of requests and answers.
namespace key {
inline constexpr char kCommand[] = "command";
inline constexpr char kModule[] = "module";
inline constexpr char kClient[] = "client";
inline constexpr char kId[] = "id";
inline constexpr char kOk[] = "ok";
inline constexpr char kError[] = "error";
// status: "modules", one object per module.
inline constexpr char kModules[] = "modules";
inline constexpr char kName[] = "name";
inline constexpr char kPort[] = "port";
inline constexpr char kState[] = "state";
inline constexpr char kPid[] = "pid";
inline constexpr char kUptime[] = "uptime";
inline constexpr char kRestarts[] = "restarts";
inline constexpr char kLastEnd[] = "last_end";
inline constexpr char kClientCount[] = "clients";
inline constexpr char kSubscribers[] = "subscribers";
inline constexpr char kBytesOut[] = "bytes_out";
inline constexpr char kChunksLost[] = "chunks_lost";
inline constexpr char kBus[] = "bus";
inline constexpr char kRestartIn[] = "restart_in";
// clients: "module", and "clients", one object per consumer.
inline constexpr char kConsumers[] = "clients";
inline constexpr char kKind[] = "kind";
inline constexpr char kAddress[] = "address";
inline constexpr char kAttached[] = "attached";
inline constexpr char kPushed[] = "pushed";
inline constexpr char kDelivered[] = "delivered";
inline constexpr char kQueuedChunks[] = "queued_chunks";
inline constexpr char kQueuedBytes[] = "queued_bytes";
inline constexpr char kLostChunks[] = "lost_chunks";
inline constexpr char kLostBytes[] = "lost_bytes";
// reload: whether a module's version may go back this once.
inline constexpr char kAllowDowngrade[] = "allow_downgrade";
// package: what the host knows of its packages.
inline constexpr char kPackage[] = "package";
}  // namespace key

// How deeply objects and arrays may nest in a request. Requests are flat; a
// deeper text is refused before it is parsed, so no hostile request makes the
// parser or the answer recurse deeply.
inline constexpr std::size_t kMaxRequestNesting = 32;

// The request in `text`: a JSON object with a text "command" and, if it has
// one, an "id" that is a text or a number. Null for anything else (not JSON,
// nested deeper than kMaxRequestNesting, no command, an id of another kind).
// Never throws.
nlohmann::json parseRequest(std::string const& text);

// Whether no object or array in the JSON text `text` nests deeper than
// `limit`. Brackets inside strings do not count. One pass, no recursion; the
// text need not be valid JSON.
bool nestingWithin(std::string const& text, std::size_t limit);

// A JSON text of `value` for a bus message: text that is not UTF-8 (a name
// from outside) has each such byte replaced by U+FFFD instead of failing.
std::string messageText(nlohmann::json const& value);

}  // namespace nxahost::control
