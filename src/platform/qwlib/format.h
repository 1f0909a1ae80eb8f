// printf-style formatting into std::string, shared by errors and messages.
#pragma once

#include <cstdarg>
#include <string>

namespace qw {

std::string FormatV(const char *format, va_list args);
std::string Format(const char *format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace qw
