#include "tools/work/Manifest.h"

#include <algorithm>
#include <optional>

#include "tools/base/Error.h"
#include "tools/base/Files.h"

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

// Rewrites "MD5 (name) = hash", the form of BSD's md5(1) and md5sum --tag, to the GNU form.
std::string Reordered(std::string_view line) {
  constexpr std::string_view kBegin = "MD5 (";
  constexpr std::string_view kMiddle = ") = ";
  const size_t middle = line.rfind(kMiddle);
  if (!line.starts_with(kBegin) || middle == std::string_view::npos) return std::string(line);
  return fmt::format("{}  {}", line.substr(middle + kMiddle.size()),
                     line.substr(kBegin.size(), middle - kBegin.size()));
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

// Appends what the lines list. Returns the number of the first one that has another form, or 0.
size_t ParseLines(std::string_view rest, std::vector<ManifestEntry>& entries) {
  for (size_t number = 1; !rest.empty(); ++number) {
    const std::string_view line = rest.substr(0, rest.find('\n'));
    rest.remove_prefix(std::min(line.size() + 1, rest.size()));
    if (line.starts_with('#')) continue;
    std::optional<ManifestEntry> entry = ParseLine(line);
    if (!entry) return number;
    entries.push_back(*std::move(entry));
  }
  return 0;
}

blobring::Hash DigestOf(std::string_view bytes) {
  return blobring::Hash::of(std::as_bytes(std::span(bytes)));
}

std::string_view BytesOf(const blobring::Hash& digest) {
  return {reinterpret_cast<const char*>(digest.data()), blobring::Hash::kSize};
}

// True for almost every digest (all but one in two million).
bool BeginsWithBinary(std::string_view file) {
  const std::string_view begin = file.substr(0, blobring::Hash::kSize);
  return std::any_of(begin.begin(), begin.end(),
                     [](char c) { return c < ' ' && c != '\t' && c != '\n' && c != '\r'; });
}

std::vector<ManifestEntry> Read(const std::string& path, bool isBlobTaken) {
  Buffer buffer;
  const std::string_view file = ReadStream(path, buffer);
  std::string_view text = file;
  const blobring::Hash digest = DigestOf(file.substr(std::min(file.size(), blobring::Hash::kSize)));
  const bool isProtected = file.starts_with(BytesOf(digest));
  if (isProtected) text.remove_prefix(blobring::Hash::kSize);
  std::vector<ManifestEntry> entries;
  const size_t badLine = ParseLines(text, entries);
  if (isProtected && isBlobTaken && (badLine != 0 || entries.empty())) return {{digest, path}};
  if (badLine == 1 && BeginsWithBinary(file))
    throw Fault("{} is neither a list of checksums nor an intact checksum file of one", path);
  if (badLine != 0)
    throw UsageError("{} line {}: wanted a hash of 32 digits, two spaces and a name", path,
                     badLine);
  return entries;
}

}  // namespace

std::string ManifestLine(const ManifestEntry& entry) {
  const std::string name = Escaped(entry.name);
  return fmt::format("{}{}  {}\n", name == entry.name ? "" : "\\", entry.hash.text(), name);
}

std::vector<ManifestEntry> ReadManifest(const std::string& path) {
  return Read(path, false);
}

std::vector<ManifestEntry> ReadChecksums(const std::string& path) {
  return Read(path, true);
}

std::string ChecksumFile(const std::vector<ManifestEntry>& entries) {
  std::string lines;
  for (const ManifestEntry& entry : entries) lines += ManifestLine(entry);
  return std::string(BytesOf(DigestOf(lines))) + lines;
}

}  // namespace tool
