// Reader of key/value text files such as a module's Manifest.
#pragma once

#include <string>
#include <unordered_map>

// Reads the whole file at construction and keeps its entries as a map from key
// to value. Each line is a comment (first non-blank character '#'), blank, or
// "key = value"; blanks and tabs around the key and the value are trimmed, as
// is a carriage return at the line's end. A later entry of the same key
// replaces the earlier one. Values may contain '='; the first one separates.
// Any other byte (NUL included) is ordinary text. Lines are counted from 1; a
// last line without a line feed counts as a line.
//
// Throws std::ios_base::failure, whose code() holds the system's error number,
// when the file cannot be opened or read (errno is left set to that number),
// or is larger than kMaxSize (EFBIG); VLException with the text
// "<path>:<line>: missing '='" or "<path>:<line>: empty key" for the first line
// that cannot be parsed. A file that is not a regular file is read without
// blocking: a FIFO without a writer reads as empty.
class IniParser {
public:
    // The largest file accepted, in bytes.
    static constexpr unsigned long kMaxSize = 64UL * 1024 * 1024;

    // `debug` is the caller's trace level; the parser itself writes no trace
    // lines, its caller reports what it found.
    IniParser(std::string const& path, unsigned debug);

    std::unordered_map<std::string, std::string> const& values() const { return values_; }

private:
    void parseLine(std::string const& path, std::string const& line, unsigned long number);

    std::unordered_map<std::string, std::string> values_;
};
