#include "pack/BlobPair.h"

#include <algorithm>
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

std::uint32_t ReadSize(File& f) {
  unsigned char bytes[4];
  f.read(reinterpret_cast<char*>(bytes), sizeof bytes);
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
  f.read(reinterpret_cast<char*>(raw), sizeof raw);
  hash.setHash(raw);
  std::uint32_t stored = ReadSize(f);

  if (skipData) {
    try {
      f.seek(f.tell() + stored);
    } catch (const std::exception& e) {
      trace::pack.WriteErrorV("BlobPair::f.seek(f.tell() + size)::failed::size(%d), e.what(%s)",
                              stored, e.what());
      throw;
    }
    buffer.size = stored;
    return;
  }

  ReadData(f, pos, stored, Data{}, Patience::Rereads);
}

void BlobPair::ReadData(File& f, unsigned bodyOffset, std::uint32_t stored, const Data& data,
                        Patience patience) {
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
    f.seek(bodyOffset + format::kBodyHeadSize);
    f.read(reinterpret_cast<char*>(buffer.data), stored);
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

// Stops early only on equal sizes: one that has become smaller is read again, too. Leaves the
// position behind the size or, after a failure, anywhere.
void BlobPair::RereadSize(File& f, unsigned bodyOffset, std::uint32_t& stored) const {
  try {
    for (int i = 0; i < kSizeRereads && buffer.size != stored; ++i) {
      Sleep(kRereadDelayMs);
      f.seek(bodyOffset + format::kHashSize);
      stored = ReadSize(f);
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
  if (g_TraceDeviceRaw == 0) TraceDeviceFind(u"LogFile", &g_TraceDeviceRaw);
  if (g_TraceDeviceRaw == 0) return;

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
    TraceDeviceWriteRaw(g_TraceDeviceRaw, from, size);
    from += size;
  }
}
