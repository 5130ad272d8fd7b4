#include "line_patterns.h"

#include <cstdlib>

namespace e2e {

namespace {

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

bool matchFrom(std::string const& line, std::size_t at, std::string const& pattern, std::size_t p) {
    if (p == pattern.size()) return at == line.size();
    char const want = pattern[p];
    if (want == '?') return at < line.size() && isDigit(line[at]) && matchFrom(line, at + 1, pattern, p + 1);
    if (want != '#') return at < line.size() && line[at] == want && matchFrom(line, at + 1, pattern, p + 1);
    std::size_t end = at;
    while (end < line.size() && isDigit(line[end])) {
        ++end;
        if (matchFrom(line, end, pattern, p + 1)) return true;
    }
    return false;
}

}  // namespace

bool matchesLine(std::string const& line, std::string const& pattern) {
    return matchFrom(line, 0, pattern, 0);
}

int countMatchingLines(std::string const& text, std::string const& pattern) {
    int count = 0;
    std::size_t start = 0;
    for (std::size_t end; (end = text.find('\n', start)) != std::string::npos; start = end + 1) {
        count += matchesLine(text.substr(start, end - start), pattern);
    }
    return count;
}

std::string leadingStartingLine(std::string const& text, std::string const& name) {
    std::size_t const end = text.find('\n');
    if (end == std::string::npos) return {};
    std::string const line = text.substr(0, end);
    if (!matchesLine(line, "[INFO] NXAModule::exec() pid=#: starting module \"" + name + "\", childpid=#"))
        return {};
    std::string const first = line.substr(line.find("pid=") + 4);
    std::string const second = line.substr(line.rfind("childpid=") + 9);
    if (first.substr(0, first.find(':')) != second) return {};
    return line + "\n";
}

int pidOfStartingLine(std::string const& line) {
    std::size_t const at = line.find("pid=");
    return at == std::string::npos ? 0 : std::atoi(line.c_str() + at + 4);
}

}  // namespace e2e
