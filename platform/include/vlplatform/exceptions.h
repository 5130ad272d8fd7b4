// Exception types through which the platform and the library report failures.
#pragma once

#include <sstream>
#include <string>
#include <system_error>

// A failed system call: an error number in the system category and a short text.
// what() is the text, ": " and the system's message for the error number, so
// IOException(2, "cannot opendir /x").what() is "cannot opendir /x: No such file or directory".
class IOException : public std::system_error {
public:
    IOException(int err, char const* text);
    IOException(int err, std::string const& text);
};

// A failure without an error number. The text can be extended with operator<<,
// which appends any streamable value and returns the exception itself:
//     throw VLException("line ") << 3 << ": missing '='";
// what() returns the whole text as it stands at that moment.
class VLException : public std::exception {
public:
    explicit VLException(char const* text);
    explicit VLException(std::string const& text);
    VLException(VLException const& other);
    VLException& operator=(VLException const& other);

    template <class T>
    VLException& operator<<(T const& value) {
        std::ostringstream os;
        os << value;
        text_ += os.str();
        return *this;
    }

    char const* what() const noexcept override;

private:
    std::string text_;
};

// Prints the exception's whole text.
std::ostream& operator<<(std::ostream& os, VLException const& e);
