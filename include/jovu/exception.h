/// @file
/// The library's one exception type.
#pragma once

#include <exception>
#include <string>

#include "jovu/export.h"

/// The only exception type that the library throws of its own accord. Carries one fixed English
/// sentence, followed by the offending value where there is one.
class JOVU_API JovuException : public std::exception {
public:
    /// An exception with the message "Unknown JoVu Error".
    JovuException();

    /// @param message what what() will return.
    explicit JovuException(std::string message);

    JovuException(const JovuException&) = default;
    JovuException& operator=(const JovuException&) = default;
    ~JovuException() override;

    /// @return the message; valid as long as this object lives.
    const char* what() const noexcept override;

private:
    std::string message_;
};
