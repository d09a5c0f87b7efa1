#include "pack/BlobPair.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <string_view>

#include "md5/MD5.h"
#include "pack/format/Format.h"
#include "platform/Trace.h"

namespace {

constexpr int kSizeRereads = 5;
constexpr DWORD kRereadDelayMs = 200;

std::uint32_t ReadSizeAt(const File& f, unsigned pos) {
  unsigned char bytes[4];
  f.readAt(pos, bytes, sizeof bytes);
  return format::Get32(bytes);
}

}  // namespace

BlobPair::BlobPair() = default;
BlobPair::~BlobPair() = default;

bool BlobPair::isValid() const {
  MD5 md5;
  md5.update(buffer.data, buffer.size);
  const Hash computed = Finish(md5);
  if (computed == hash) return true;
  trace::engine.WriteWarnV("Blob::isValid() is false : hash=%s expected=%s", computed.toString(),
                           hash.toString());
  DumpBlob(&buffer);
  return false;
}

void BlobPair::Read(File& f, bool skipData) {
  const unsigned pos = f.tell();
  unsigned char raw[format::kHashSize];
  f.readAt(pos, raw, sizeof raw);
  hash.setHash(raw);
  const std::uint32_t stored = ReadSizeAt(f, pos + format::kHashSize);

  if (skipData) {
    try {
      f.seek(pos + format::kBodyHeadSize + stored);
    } catch (const std::exception& e) {
      trace::pack.WriteErrorV("BlobPair::f.seek(f.tell() + size)::failed::size(%d), e.what(%s)",
                              stored, e.what());
      throw;
    }
    buffer.size = stored;
    return;
  }

  ReadData(f, pos, stored, BytesRead{}, Patience::Rereads);
  f.seek(pos + format::kBodyHeadSize + buffer.size);
}

void BlobPair::ReadData(const File& f, unsigned bodyOffset, std::uint32_t stored,
                        const BytesRead& data, Patience patience) {
  if (buffer.size != stored)
    trace::pack.WriteErrorV("BlobPair::buffer.size(%d) != size(%d)", buffer.size, stored);
  if (buffer.size < stored && patience == Patience::Rereads) RereadSize(f, bodyOffset, stored);
  if (buffer.size < stored) throw Failure(FailureCode::Damaged, "BlobPair::Read : too large size");

  if (data.held.size() >= stored) {
    if (stored > 0 && data.held.data() != buffer.data)
      std::memcpy(buffer.data, data.held.data(), stored);
  } else if (data.asked >= stored) {
    throw File::ShortRead(stored, static_cast<unsigned>(data.held.size()), data.code);
  } else {
    f.readAt(bodyOffset + format::kBodyHeadSize, buffer.data, stored);
  }
  if (!isValid()) {
    trace::pack.WriteErrorV(
        "BlobPair::Read Validation Failed: path=%s offset=%d fileLen=%d, bsize=%d hash=%s, "
        "buffersize=%d",
        f.Path(), bodyOffset, f.size(), stored, hash.toString(), buffer.size);
    throw Failure(FailureCode::Damaged, "BlobPair Read failed");
  }
  buffer.size = stored;
}

// Stops early only on equal sizes: one that has become smaller is read again, too.
void BlobPair::RereadSize(const File& f, unsigned bodyOffset, std::uint32_t& stored) const {
  try {
    for (int i = 0; i < kSizeRereads && buffer.size != stored; ++i) {
      Sleep(kRereadDelayMs);
      stored = ReadSizeAt(f, bodyOffset + format::kHashSize);
      trace::pack.WriteErrorV("BlobPair::Read path=%s offset=%d bsize=%d hash=%s", f.Path(),
                              bodyOffset, stored, hash.toString());
    }
  } catch (const std::exception& e) {
    trace::pack.WriteErrorV("BlobPair::Read : fail to read size again:%s", e.what());
  }
}

void DumpBlob(RawBuffer const* b) {
  constexpr std::uint32_t kDumpLevel = 60000;
  constexpr std::string_view kTitle = " BlobPair::Read DATA was: ";
  if (TraceGetEffectiveLevel() < kDumpLevel) return;
  const std::atomic_ref<std::uint32_t> found(g_TraceDeviceRaw);
  std::uint32_t device = found;
  if (device == 0) TraceDeviceFind(u"LogFile", &device);
  if (device == 0) return;
  found = device;

  // One for each dump: two threads may dump at a time.
  const std::uint64_t needed = 2 * (std::uint64_t{b->size} + 128) + 129;
  const auto capacity = static_cast<std::size_t>(needed);
  const std::unique_ptr<char, void (*)(void*)> buffer(
      capacity == needed ? static_cast<char*>(std::calloc(capacity, 1)) : nullptr, std::free);
  char* const line = buffer.get();
  if (line == nullptr) return;

  constexpr std::uint64_t kMostCapacity = std::numeric_limits<std::uint32_t>::max();
  const int header = TraceFormatHeader(
      line, static_cast<std::uint32_t>(std::min(needed, kMostCapacity)), 3, 0, "BlobController");
  const std::size_t body = kTitle.size() + 2 * std::size_t{b->size};
  if (header < 1 || static_cast<std::size_t>(header) + body > capacity) return;

  static constexpr char kDigits[] = "0123456789ABCDEF";
  char* at = std::copy(kTitle.begin(), kTitle.end(), line + header);
  for (std::uint32_t i = 0; i < b->size; ++i) {
    *at++ = kDigits[b->data[i] >> 4];
    *at++ = kDigits[b->data[i] & 0x0F];
  }
  // In one write, but for a line whose length an int cannot hold.
  for (const char* from = line; from < at;) {
    const auto size =
        static_cast<int>(std::min<std::ptrdiff_t>(at - from, std::numeric_limits<int>::max()));
    TraceDeviceWriteRaw(device, from, size);
    from += size;
  }
}
