// Reading an operator's control request from the text of its bus message.
#pragma once

#include <cstddef>
#include <nlohmann/json.hpp>
#include <string>

// How deeply objects and arrays may nest in a control request. Requests are
// flat; a deeper text is refused before it is parsed, so no hostile request
// makes the parser or the answer recurse deeply.
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
