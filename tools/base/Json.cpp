#include "tools/base/Json.h"

#include "tools/base/Console.h"
#include "tools/base/Files.h"

namespace tool {

std::string JsonLine(const Json& object) {
  return object.dump(-1, ' ', false, Json::error_handler_t::replace) + '\n';
}

void PrintObject(const Json& object) {
  if (consoleOptions.json) PrintText(JsonLine(object));
}

}  // namespace tool
