// What the browser console reads from a request: headers, the module a path
// names, whether the request may be trusted.
#pragma once

#include <optional>
#include <string>

struct lws;

namespace nxahost {

// The value of the request header `token` (an lws_token_indexes); empty when
// absent or longer than the console takes.
std::string requestHeader(lws* wsi, int token);

// Whether the Host header names the console by an address or as localhost
// (with or without a port). Any other name may be a site's own name resolving
// to the device (DNS rebinding): such requests are refused.
bool trustedHost(lws* wsi);

// Whether the request comes from a page of the console itself: no Origin
// header (a program, not a browser), or an Origin of "http://" + Host.
bool sameOrigin(lws* wsi);

// The module named by "/module/NAME" + `suffix`, or nothing when `path` is not
// of that form (NAME must be a non-empty module name: no "/", not "." or "..").
std::optional<std::string> moduleInPath(std::string const& path, std::string const& suffix);

// Whether `path` ("renderer/dom/DomRenderer") may name a file of the terminal
// library: letters, digits, "_", "-", "." and "/" only, no empty, "." or ".."
// component.
bool safeLibraryPath(std::string const& path);

}  // namespace nxahost
