#include "jovu/exception.h"

#include <utility>

JovuException::JovuException() : message_("Unknown JoVu Error") {}

JovuException::JovuException(std::string message, JovuError code)
    : message_(std::move(message)), code_(code) {}

JovuException::~JovuException() = default;

const char* JovuException::what() const noexcept {
    return message_.c_str();
}
