// Where warnings and errors go: the host's sink, and a short memory.
#pragma once

#include <cstdarg>
#include <cstdint>

namespace platform {

// Formats a message, keeps it and hands it to the sink.
void Report(std::int32_t level, const char* source, const char* format, std::va_list arguments)
    __attribute__((format(printf, 3, 0)));

// Milliseconds since 1970-01-01 UTC.
std::uint64_t UtcMs();

}  // namespace platform
