// The list of an imported tree: one line for each file, its hash and its name, in the form that
// md5sum(1) of GNU coreutils writes and checks.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "blobring/Store.h"

namespace tool {

struct ManifestEntry {
  blobring::Hash hash;
  std::string name;  // bytes, of no particular encoding
};

// "hash  name\n". In a name with a backslash, a newline or a carriage return these are written \\,
// \n and \r, and the line begins with a backslash.
std::string ManifestLine(const ManifestEntry& entry);

// Reads a manifest, "-" for standard input. Accepts what md5sum --check does: either mark before a
// name, lines that end in CR LF, comments that begin with '#', and lines "MD5 (name) = hash". Also
// a checksum file with such lines: one whose first 16 bytes are the MD5 digest of the rest. Throws
// Fault when the file cannot be read or seems to be a checksum file that is damaged, UsageError
// with the line's number for a line of any other form.
std::vector<ManifestEntry> ReadManifest(const std::string& path);

// The same, and a checksum file that protects anything but a manifest: the digest is the key of
// what it protects, so the file stands for that one blob, under the file's own name.
std::vector<ManifestEntry> ReadChecksums(const std::string& path);

// A checksum file that protects a manifest.
std::string ChecksumFile(const std::vector<ManifestEntry>& entries);

}  // namespace tool
