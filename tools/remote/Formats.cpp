#include "tools/remote/Formats.h"

#include <sys/random.h>

#include <algorithm>
#include <cstring>
#include <regex>
#include <sstream>
#include <tuple>

#include "pack/format/Format.h"
#include "tools/base/Error.h"
#include "tools/base/Json.h"
#include "tools/remote/Bucket.h"

namespace tool::remote {
namespace {

constexpr int64_t kMaxSeconds = int64_t{1000000} * 86400;
constexpr size_t kPlaceSize = 28;
constexpr size_t kNonceDigits = 16;
constexpr size_t kNameSize = 2 * blobring::Hash::kSize + 1 + kNonceDigits;
constexpr std::string_view kIndexMagic = "blobring index 1 ";

bool IsHex(std::string_view text) {
  return text.find_first_not_of("0123456789abcdef") == std::string_view::npos;
}

bool IsName(std::string_view name) {
  return name.size() == kNameSize && name[32] == '-' && IsHex(name.substr(0, 32)) &&
         IsHex(name.substr(33));
}

Json Parsed(std::string_view text, const std::string& name) {
  Json json = Json::parse(text, nullptr, false);
  if (!json.is_object()) throw Fault("{} is damaged: it is not JSON", name);
  return json;
}

// A whole number below 2^53, up to which every reader of JSON agrees (RFC 8259, 6). The library
// would make one of any other number.
int64_t Number(const Json& json, const char* key, const std::string& name) {
  const Json& value = json.at(key);
  if (!value.is_number_unsigned() || value >= uint64_t{1} << 53)
    throw Fault("{} is damaged: {}", name, key);
  return value;
}

}  // namespace

std::string Nonce() {
  unsigned char bytes[kNonceDigits / 2];
  if (::getrandom(bytes, sizeof bytes, 0) != sizeof bytes) ThrowErrno("get random bytes");
  std::string text;
  for (const unsigned char byte : bytes) text += fmt::format("{:02x}", byte);
  return text;
}

bool IsStoreId(std::string_view text) {
  return text.size() == kNonceDigits && IsHex(text);
}

std::string PackKey(const std::string& name) {
  return "packs/" + name.substr(0, 2) + "/" + name + ".pak";
}

std::string IndexKey(const std::string& name) {
  return "index/" + name + ".idx";
}

std::string NameIn(const std::string& key) {
  if (key.size() < kNameSize + 4) return "";
  std::string name = key.substr(key.size() - kNameSize - 4, kNameSize);
  if (!IsName(name) || (key != PackKey(name) && key != IndexKey(name))) return "";
  return name;
}

blobring::Hash DigestIn(const std::string& name) {
  return blobring::Hash::parse(name.substr(0, 32)).value_or(blobring::Hash());
}

std::string RemoteConfig::Encode() const {
  return JsonLine({{"type", "blobring remote"},
                   {"format", 1},
                   {"id", id},
                   {"push_seconds", pushSeconds},
                   {"grace_seconds", graceSeconds},
                   {"etag_is_md5", etagIsMd5}});
}

RemoteConfig RemoteConfig::Decode(const std::string& text) {
  const Json json = Parsed(text, "blobring.json");
  try {
    if (json.at("format") != 1)
      throw Fault("blobring.json has a format of a later version of blobring");
    RemoteConfig config;
    config.id = json.at("id");
    config.pushSeconds = Number(json, "push_seconds", "blobring.json");
    config.graceSeconds = Number(json, "grace_seconds", "blobring.json");
    config.etagIsMd5 = json.at("etag_is_md5");
    if (!IsHex(config.id) || config.id.empty() || config.pushSeconds < 1 ||
        config.graceSeconds <= config.pushSeconds || config.graceSeconds > kMaxSeconds)
      throw Fault("blobring.json is damaged");
    return config;
  } catch (const Json::exception&) {
    throw Fault("blobring.json is damaged");
  }
}

void Index::Add(const Index& other) {
  const auto base = static_cast<uint32_t>(packs.size());
  packs.insert(packs.end(), other.packs.begin(), other.packs.end());
  for (Place place : other.places) {
    place.pack += base;
    places.push_back(place);
  }
}

void Index::Sort() {
  if (!std::is_sorted(places.begin(), places.end())) std::sort(places.begin(), places.end());
}

std::string Index::Encode() const {
  std::string bytes = fmt::format("{}{} {}\n", kIndexMagic, packs.size(), places.size());
  for (const std::string& pack : packs) bytes += pack + "\n";
  bytes.reserve(bytes.size() + places.size() * kPlaceSize);
  for (const Place& place : places) {
    unsigned char out[kPlaceSize];
    std::memcpy(out, place.hash.data(), blobring::Hash::kSize);
    format::Put32(out + 16, place.pack);
    format::Put32(out + 20, place.offset);
    format::Put32(out + 24, place.size);
    bytes.append(reinterpret_cast<const char*>(out), kPlaceSize);
  }
  return bytes;
}

Index Index::Decode(std::string_view bytes, const std::string& name) {
  const auto damaged = [&name](const char* what) { return Fault("{} is damaged: {}", name, what); };
  if (!bytes.starts_with(kIndexMagic)) throw damaged("it is not an index of this version");
  size_t packCount = 0;
  size_t placeCount = 0;
  const auto lineEnd = bytes.find('\n');
  std::istringstream counts(
      std::string(bytes.substr(kIndexMagic.size(), lineEnd - kIndexMagic.size())));
  if (lineEnd == std::string_view::npos || !(counts >> packCount >> placeCount) ||
      counts.str() != fmt::format("{} {}", packCount, placeCount))
    throw damaged("the first line");
  bytes.remove_prefix(lineEnd + 1);
  if (packCount > bytes.size() / (kNameSize + 1)) throw damaged("the names of packs");
  Index index;
  for (size_t i = 0; i < packCount; ++i) {
    index.packs.emplace_back(bytes.substr(0, kNameSize));
    if (!IsName(index.packs.back()) || bytes[kNameSize] != '\n')
      throw damaged("the names of packs");
    bytes.remove_prefix(kNameSize + 1);
  }
  if (bytes.size() % kPlaceSize != 0 || bytes.size() / kPlaceSize != placeCount)
    throw damaged("its length");
  index.places.resize(placeCount);
  const auto* in = reinterpret_cast<const unsigned char*>(bytes.data());
  for (Place& place : index.places) {
    std::memcpy(place.hash.data(), in, blobring::Hash::kSize);
    place.pack = format::Get32(in + 16);
    place.offset = format::Get32(in + 20);
    place.size = format::Get32(in + 24);
    if (place.pack >= packCount || place.offset > format::kMaxFileSize ||
        place.size > format::kMaxFileSize - format::kStoreHeaderSize ||
        place.offset > format::kMaxFileSize - format::kStoreHeaderSize - place.size)
      throw damaged("a place");
    in += kPlaceSize;
  }
  if (!std::is_sorted(index.places.begin(), index.places.end())) throw damaged("its order");
  return index;
}

std::vector<uint64_t> Index::PackSizes() const {
  if (!sizes.empty()) return sizes;
  std::vector<uint64_t> found(packs.size());
  for (const Place& place : places)
    found[place.pack] = std::max<uint64_t>(found[place.pack], place.end() + format::kEndSize);
  return found;
}

std::string Snapshot::Encode() const {
  std::string text = JsonLine({{"type", "blobring snapshot"},
                               {"time", time},
                               {"host", host},
                               {"message", message},
                               {"partial", isPartial},
                               {"blobs", hashes.size()},
                               {"bytes", bytes}});
  text.reserve(text.size() + hashes.size() * blobring::Hash::kSize);
  for (const blobring::Hash& hash : hashes)
    text.append(reinterpret_cast<const char*>(hash.data()), blobring::Hash::kSize);
  return text;
}

Snapshot Snapshot::Decode(std::string_view bytes, const std::string& name, bool headerOnly) {
  const auto lineEnd = bytes.find('\n');
  if (lineEnd == std::string_view::npos) throw Fault("{} is damaged: it has no first line", name);
  const Json json = Parsed(bytes.substr(0, lineEnd), name);
  Snapshot snapshot;
  try {
    snapshot.time = json.at("time");
    snapshot.host = json.value("host", "");
    snapshot.message = json.at("message");
    snapshot.isPartial = json.at("partial");
    snapshot.bytes = static_cast<uint64_t>(Number(json, "bytes", name));
    snapshot.count = static_cast<uint64_t>(Number(json, "blobs", name));
  } catch (const Json::exception&) {
    throw Fault("{} is damaged: the first line", name);
  }
  if (headerOnly) return snapshot;
  bytes.remove_prefix(lineEnd + 1);
  if (bytes.size() % blobring::Hash::kSize != 0 ||
      bytes.size() / blobring::Hash::kSize != snapshot.count)
    throw Fault("{} is damaged: its length", name);
  snapshot.hashes.resize(snapshot.count);
  for (blobring::Hash& hash : snapshot.hashes) {
    std::memcpy(hash.data(), bytes.data(), blobring::Hash::kSize);
    bytes.remove_prefix(blobring::Hash::kSize);
  }
  if (!std::is_sorted(snapshot.hashes.begin(), snapshot.hashes.end()))
    throw Fault("{} is damaged: its order", name);
  return snapshot;
}

std::string SnapshotName::Short() const {
  return fmt::format("{}/{:012}-{}", store, number, digest.text());
}

std::optional<SnapshotName> SnapshotName::Parse(const std::string& key) {
  static const std::regex kForm("snapshots/([0-9a-f]{16})/([0-9]{12,18})-([0-9a-f]{32})\\.snap");
  std::smatch parts;
  if (!std::regex_match(key, parts, kForm)) return std::nullopt;
  return SnapshotName{parts[1], std::stoull(parts[2]), DigestIn(parts[3])};
}

std::string EncodeTomb(const std::vector<std::string>& keys) {
  std::string lines;
  for (const std::string& key : keys) lines += key + "\n";
  return DigestOf(lines).text() + "\n" + lines;
}

std::vector<std::string> DecodeTomb(const std::string& text, const std::string& name) {
  constexpr size_t kFirstLine = 2 * blobring::Hash::kSize + 1;
  if (text.size() < kFirstLine ||
      text.substr(0, kFirstLine) !=
          DigestOf(std::string_view(text).substr(kFirstLine)).text() + "\n")
    throw Fault("{} is damaged", name);
  std::vector<std::string> keys;
  std::istringstream lines(text.substr(kFirstLine));
  for (std::string line; std::getline(lines, line);) {
    if (NameIn(line).empty())
      throw Fault("{} names {}, which is neither a pack nor an index", name, line);
    keys.push_back(line);
  }
  return keys;
}

}  // namespace tool::remote
