// Reader of key/value text files such as a module's Manifest.
#pragma once

#include <string>
#include <unordered_map>

// Reads the whole file at construction. Each line is a comment (first non-blank
// character '#'), blank, or "key = value"; blanks and tabs around the key and the
// value are trimmed, as is a carriage return at the line's end. A later entry of
// the same key replaces the earlier one. Values may contain '='; the first one
// separates. Throws std::ios_base::failure when the file cannot be read and
// VLException ("<path>:<line>: <reason>") when a line has no '=' or an empty key.
class IniParser {
public:
    IniParser(std::string const& path, unsigned debug);

    std::unordered_map<std::string, std::string> const& values() const { return values_; }

private:
    void parseLine(std::string const& path, std::string const& line, unsigned long number);

    std::unordered_map<std::string, std::string> values_;
    unsigned debug_;
};
