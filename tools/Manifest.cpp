#include "tools/Manifest.h"

#include <fmt/format.h>

#include <optional>

#include "tools/Buffer.h"
#include "tools/Error.h"

namespace tool {
namespace {

constexpr size_t kHashTextSize = 2 * blobring::Hash::kSize;

struct Escape {
  char raw, letter;
};
constexpr Escape kEscapes[] = {{'\\', '\\'}, {'\n', 'n'}, {'\r', 'r'}};

std::string Escaped(const std::string& name) {
  std::string text;
  for (const char c : name) {
    char letter = 0;
    for (const Escape& escape : kEscapes)
      if (c == escape.raw) letter = escape.letter;
    if (letter != 0) text += '\\';
    text += letter != 0 ? letter : c;
  }
  return text;
}

std::optional<std::string> Unescaped(std::string_view text) {
  std::string name;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '\\') {
      name += text[i];
      continue;
    }
    if (++i == text.size()) return std::nullopt;
    char raw = 0;
    for (const Escape& escape : kEscapes)
      if (text[i] == escape.letter) raw = escape.raw;
    if (raw == 0) return std::nullopt;
    name += raw;
  }
  return name;
}

std::optional<ManifestEntry> ParseLine(std::string_view line) {
  if (line.ends_with('\r')) line.remove_suffix(1);
  const bool isEscaped = line.starts_with('\\');
  if (isEscaped) line.remove_prefix(1);
  if (line.size() < kHashTextSize + 3) return std::nullopt;
  const std::optional<blobring::Hash> hash = blobring::Hash::parse(line.substr(0, kHashTextSize));
  const char mark = line[kHashTextSize + 1];
  if (!hash || line[kHashTextSize] != ' ' || (mark != ' ' && mark != '*')) return std::nullopt;
  const std::string_view text = line.substr(kHashTextSize + 2);
  const std::optional<std::string> name = isEscaped ? Unescaped(text) : std::string(text);
  // No file has a zero byte in its name, and no system call would see what follows it.
  if (!name || name->find('\0') != std::string::npos) return std::nullopt;
  return ManifestEntry{*hash, *name};
}

}  // namespace

std::string ManifestLine(const ManifestEntry& entry) {
  const std::string name = Escaped(entry.name);
  return fmt::format("{}{}  {}\n", name == entry.name ? "" : "\\", entry.hash.text(), name);
}

std::vector<ManifestEntry> ReadManifest(const std::string& path) {
  Buffer buffer;
  const Bytes bytes = ReadStream(path, buffer);
  std::string_view rest(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  std::vector<ManifestEntry> entries;
  for (size_t number = 1; !rest.empty(); ++number) {
    const std::string_view line = rest.substr(0, rest.find('\n'));
    rest.remove_prefix(std::min(line.size() + 1, rest.size()));
    if (line.starts_with('#')) continue;
    std::optional<ManifestEntry> entry = ParseLine(line);
    if (!entry)
      throw UsageError(fmt::format("{} line {}: wanted a hash of 32 digits, two spaces and a name",
                                   path, number));
    entries.push_back(*std::move(entry));
  }
  return entries;
}

}  // namespace tool
