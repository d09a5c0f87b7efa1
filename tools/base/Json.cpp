#include "tools/base/Json.h"

namespace tool {

std::string JsonLine(const Json& object) {
  return object.dump(-1, ' ', false, Json::error_handler_t::replace) + '\n';
}

}  // namespace tool
