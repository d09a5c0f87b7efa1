#include "tools/report/Document.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdint>
#include <map>
#include <stdexcept>
#include <string_view>

#include "tools/base/Error.h"
#include "tools/base/Files.h"

namespace tool {
namespace {

enum class Kind { kText, kCount, kInteger, kFlag, kTexts, kObjects };

struct Key {
  const char* name;
  Kind kind;
  bool orNull = false;
  std::vector<std::string> values = {};  // of a text, any if empty; of objects, their type
};

// Counts stay exact in the page's script, which has doubles.
constexpr uint64_t kMostCount = uint64_t{1} << 53;

// The keys that a page needs; others are let through.
const std::map<std::string, std::vector<Key>>& Types() {
  static const std::map<std::string, std::vector<Key>> types = {
      {"report", {{"version", Kind::kText}, {"time", Kind::kText}}},
      {"stat",
       {{"store", Kind::kText},
        {"slots", Kind::kCount},
        {"current", Kind::kCount, true},
        {"blobs", Kind::kCount},
        {"live_bytes", Kind::kCount},
        {"dead_bytes", Kind::kCount},
        {"disk_bytes", Kind::kCount},
        {"journal_bytes", Kind::kCount},
        {"repacked_bytes", Kind::kCount},
        {"repack_fits", Kind::kFlag},
        {"findings", Kind::kTexts},
        {"open_in", Kind::kObjects, false, {"holder"}},
        {"set_aside", Kind::kTexts},
        {"sizes", Kind::kObjects, false, {"size"}}}},
      {"holder", {{"pid", Kind::kInteger}, {"command", Kind::kText}}},
      {"size",
       {{"from", Kind::kCount},
        {"to", Kind::kCount},
        {"blobs", Kind::kCount},
        {"bytes", Kind::kCount}}},
      {"file",
       {{"path", Kind::kText},
        {"slot", Kind::kCount, true},
        {"kind", Kind::kText, false, {"pack", "journal"}},
        {"current", Kind::kFlag},
        {"not_shown", Kind::kFlag},
        {"size", Kind::kCount},
        {"header", Kind::kText, false, {"sound", "new", "damaged", "missing"}},
        {"sequence", Kind::kInteger},
        {"end_offset", Kind::kCount}}},
      {"fault",
       {{"file", Kind::kText},
        {"offset", Kind::kCount},
        {"hash", Kind::kText, true},
        {"size", Kind::kCount},
        {"what", Kind::kText}}},
      {"check", {{"blobs_read", Kind::kFlag}, {"sound", Kind::kFlag}}},
      {"region",
       {{"file", Kind::kText},
        {"begin", Kind::kCount},
        {"end", Kind::kCount},
        {"state",
         Kind::kText,
         false,
         {"live", "dead", "mixed", "older", "uncommitted", "unloaded", "damaged", "free"}},
        {"live_bytes", Kind::kCount}}},
      {"transaction_bin",
       {{"first_id", Kind::kInteger},
        {"last_id", Kind::kInteger},
        {"first_time", Kind::kText, true},
        {"last_time", Kind::kText, true},
        {"transactions", Kind::kCount},
        {"stores", Kind::kCount},
        {"stored_bytes", Kind::kCount},
        {"deletes", Kind::kCount},
        {"deleted_bytes", Kind::kCount}}},
  };
  return types;
}

bool IsCount(const Json& value) {
  return value.is_number_unsigned() && value.get<uint64_t>() <= kMostCount;
}

void CheckKeys(const Json& object, const std::string& type);

bool IsOneOf(const std::string& text, const std::vector<std::string>& values) {
  return values.empty() || std::find(values.begin(), values.end(), text) != values.end();
}

// Throws std::runtime_error.
void CheckValue(const Json& value, const Key& key) {
  const auto require = [&key](bool holds, std::string_view what) {
    if (!holds) throw std::runtime_error(fmt::format("\"{}\" is {}", key.name, what));
  };
  if (key.orNull && value.is_null()) return;
  switch (key.kind) {
    case Kind::kText:
      require(value.is_string(), "not a text");
      return require(IsOneOf(value, key.values), "no word that is known here");
    case Kind::kCount:
      return require(IsCount(value), "not a count");
    case Kind::kInteger:
      return require(value.is_number_integer(), "not an integer");
    case Kind::kFlag:
      return require(value.is_boolean(), "neither true nor false");
    case Kind::kTexts:
    case Kind::kObjects:
      break;
  }
  require(value.is_array(), "not a list");
  for (const Json& item : value) {
    if (key.kind == Kind::kTexts)
      require(item.is_string(), "not a list of texts");
    else
      CheckKeys(item, key.values.front());
  }
}

void CheckKeys(const Json& object, const std::string& type) {
  if (!object.is_object()) throw std::runtime_error("no JSON object");
  for (const Key& key : Types().at(type)) {
    const auto value = object.find(key.name);
    if (value == object.end()) throw std::runtime_error(fmt::format("\"{}\" is missing", key.name));
    CheckValue(*value, key);
  }
}

std::string TypeOf(const Json& object) {
  if (!object.is_object()) throw std::runtime_error("no JSON object");
  const auto type = object.find("type");
  if (type == object.end() || !type->is_string()) throw std::runtime_error("no \"type\"");
  if (!Types().contains(*type))
    throw std::runtime_error(
        fmt::format("a report has no object of type \"{}\"", type->get<std::string>()));
  return *type;
}

class Reader {
 public:
  // Throws std::runtime_error.
  void Add(std::string_view line) {
    Json object = Json::parse(line, nullptr, false);
    const std::string type = TypeOf(object);
    CheckKeys(object, type);
    if ((type == "report") != document_.empty())
      throw std::runtime_error("\"report\" must be the first object, and the only one of its type");
    if (++counts_[type] > 1 && (type == "stat" || type == "check"))
      throw std::runtime_error(fmt::format("a second object of type \"{}\"", type));
    if (type == "file") sizes_[object.at("path")] = object.at("size");
    if (type == "region") CheckRegion(object);
    document_.push_back(std::move(object));
  }

  Document Finish() {
    for (const char* type : {"report", "stat", "check"})
      if (counts_[type] == 0)
        throw std::runtime_error(fmt::format("the end, and no object of type \"{}\"", type));
    return std::move(document_);
  }

 private:
  void CheckRegion(const Json& region) const {
    const uint64_t begin = region.at("begin");
    const uint64_t end = region.at("end");
    const uint64_t live = region.at("live_bytes");
    const auto size = sizes_.find(region.at("file"));
    if (size == sizes_.end()) throw std::runtime_error("a region of a file that is not listed");
    if (begin >= end || end > size->second || live > end - begin)
      throw std::runtime_error("a region that does not lie in its file");
  }

  Document document_;
  std::map<std::string, uint64_t> sizes_;   // of files, by path
  std::map<std::string, uint64_t> counts_;  // of objects, by type
};

}  // namespace

Document ReadDocument(const std::string& path) {
  Buffer buffer;
  const std::string_view text = ReadStream(path, buffer);
  Reader reader;
  uint64_t number = 0;
  try {
    for (size_t begin = 0; begin < text.size();) {
      const size_t end = std::min(text.find('\n', begin), text.size());
      ++number;
      reader.Add(text.substr(begin, end - begin));
      begin = end + 1;
    }
    return reader.Finish();
  } catch (const std::runtime_error& e) {
    throw UsageError("{} line {}: {}", path, number, e.what());
  }
}

const Json& ObjectOf(const Document& document, std::string_view type) {
  return *std::find_if(document.begin(), document.end(),
                       [type](const Json& object) { return object.at("type") == type; });
}

}  // namespace tool
