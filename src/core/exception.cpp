#include "jovu/exception.h"

#include <utility>

JovuException::JovuException() : message_("Unknown JoVu Error") {}

JovuException::JovuException(std::string message) : message_(std::move(message)) {}

JovuException::~JovuException() = default;

const char* JovuException::what() const noexcept {
    return message_.c_str();
}
