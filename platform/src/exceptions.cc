// The platform's exception types.
#include "vlplatform/exceptions.h"

#include <ostream>

// std::system_error already composes what() as text, ": " and the category's
// message, and the system category's message is strerror's text.
IOException::IOException(int err, char const* text) : std::system_error(err, std::system_category(), text) {}

IOException::IOException(int err, std::string const& text)
    : std::system_error(err, std::system_category(), text) {}

VLException::VLException(char const* text) : text_(text) {}

VLException::VLException(std::string const& text) : text_(text) {}

VLException::VLException(VLException const& other) : std::exception(other), text_(other.text_) {}

VLException& VLException::operator=(VLException const& other) {
    std::exception::operator=(other);
    text_ = other.text_;
    return *this;
}

char const* VLException::what() const noexcept {
    return text_.c_str();
}

std::ostream& operator<<(std::ostream& os, VLException const& e) {
    return os << e.what();
}
