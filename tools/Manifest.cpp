#include "tools/Manifest.h"

#include <algorithm>
#include <cstring>
#include <optional>

#include "tools/Error.h"
#include "tools/Files.h"

namespace tool {
namespace {

constexpr size_t kHashTextSize = 2 * blobring::Hash::kSize;

// What is escaped, and the letter that stands for it behind a backslash.
constexpr std::string_view kRaw = "\\\n\r";
constexpr std::string_view kLetters = "\\nr";

std::string Escaped(const std::string& name) {
  std::string text;
  for (const char c : name) {
    const size_t escape = kRaw.find(c);
    if (escape == std::string_view::npos)
      text += c;
    else
      text += {'\\', kLetters[escape]};
  }
  return text;
}

std::optional<std::string> Unescaped(std::string_view text) {
  std::string name;
  for (size_t i = 0; i < text.size(); ++i) {
    name += text[i];
    if (text[i] != '\\') continue;
    const size_t escape = ++i == text.size() ? std::string_view::npos : kLetters.find(text[i]);
    if (escape == std::string_view::npos) return std::nullopt;
    name.back() = kRaw[escape];
  }
  return name;
}

// "MD5 (name) = hash", as BSD's md5(1) and md5sum --tag have it: as the other form has it.
std::string Reordered(std::string_view line) {
  constexpr std::string_view kBegin = "MD5 (";
  constexpr std::string_view kMiddle = ") = ";
  const size_t middle = line.rfind(kMiddle);
  if (!line.starts_with(kBegin) || middle == std::string_view::npos) return std::string(line);
  return fmt::format("{}  {}", line.substr(middle + kMiddle.size()),
                     line.substr(kBegin.size(), middle - kBegin.size()));
}

// What a checksum file protects; the whole of any other file.
std::string_view Protected(std::string_view file) {
  if (file.size() < format::kDigestSize) return file;
  const std::string_view rest = file.substr(format::kDigestSize);
  const blobring::Hash digest = blobring::Hash::of(std::as_bytes(std::span(rest)));
  return std::memcmp(digest.data(), file.data(), format::kDigestSize) == 0 ? rest : file;
}

std::optional<ManifestEntry> ParseLine(std::string_view text) {
  if (text.ends_with('\r')) text.remove_suffix(1);
  const bool isEscaped = text.starts_with('\\');
  if (isEscaped) text.remove_prefix(1);
  const std::string reordered = Reordered(text);
  const std::string_view line = reordered;
  if (line.size() < kHashTextSize + 3) return std::nullopt;
  const std::optional<blobring::Hash> hash = blobring::Hash::parse(line.substr(0, kHashTextSize));
  const char mark = line[kHashTextSize + 1];
  if (!hash || line[kHashTextSize] != ' ' || (mark != ' ' && mark != '*')) return std::nullopt;
  const std::string_view given = line.substr(kHashTextSize + 2);
  const std::optional<std::string> name = isEscaped ? Unescaped(given) : std::string(given);
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
  std::string_view rest = Protected(ReadStream(path, buffer));
  std::vector<ManifestEntry> entries;
  for (size_t number = 1; !rest.empty(); ++number) {
    const std::string_view line = rest.substr(0, rest.find('\n'));
    rest.remove_prefix(std::min(line.size() + 1, rest.size()));
    if (line.starts_with('#')) continue;
    std::optional<ManifestEntry> entry = ParseLine(line);
    if (!entry)
      throw UsageError("{} line {}: wanted a hash of 32 digits, two spaces and a name", path,
                       number);
    entries.push_back(*std::move(entry));
  }
  return entries;
}

}  // namespace tool
