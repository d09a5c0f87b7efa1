// What the exported functions do with raw arguments and with failures.
#pragma once

#include <string>

#include "pack/Hash.h"
#include "platform/Trace.h"

namespace api {

// A caller's UTF-16 path, cut to the low byte of each unit.
inline std::string Narrow(const char16_t* path) {
  std::string narrow;
  for (; *path != 0; ++path) narrow.push_back(static_cast<char>(*path & 0xFF));
  return narrow;
}

inline Hash ToHash(const unsigned char* bytes) {
  Hash hash;
  hash.setHash(const_cast<unsigned char*>(bytes));  // only reads them
  return hash;
}

inline std::uint32_t Word(int value) {
  return static_cast<std::uint32_t>(value);
}

// True when what must not be null is; says so, naming the call.
inline bool IsNull(const char* call, const char* argument, const void* pointer) {
  if (pointer != nullptr) return false;
  trace::api.WriteWarnV("%s: %s is null", call, argument);
  return true;
}

// Writes a text that was put together, never as a format.
inline void Warn(const std::string& text) {
  trace::api.WriteWarnV("%s", text.c_str());
}

}  // namespace api
