#include "tools/remote/Fetch.h"

#include <algorithm>
#include <tuple>

#include "pack/format/Format.h"
#include "tools/base/Console.h"
#include "tools/view/FileWalk.h"

namespace tool::remote {
namespace {

// A gap between two blobs is read as well if it is smaller than this, and if what is read stays
// below three times what is wanted.
constexpr uint64_t kMaxGap = uint64_t{256} * 1024;
constexpr uint64_t kMostTimes = 3;

struct Piece {
  std::string pack;
  uint64_t packSize;
  std::optional<ByteRange> range;  // nothing: all of it
  std::vector<Place> places;
};

uint64_t RecordSize(const Place& place) {
  return place.end() - place.offset;
}

// `places` are those wanted of one pack, by offset.
void AddPieces(std::vector<Piece>& pieces, const std::string& pack, uint64_t packSize,
               std::span<const Place> places) {
  uint64_t wanted = 0;
  for (const Place& place : places) wanted += RecordSize(place);
  if (2 * wanted > packSize) {
    pieces.push_back({pack, packSize, std::nullopt, {places.begin(), places.end()}});
    return;
  }
  uint64_t wantedHere = 0;
  for (size_t i = 0; i < places.size(); ++i) {
    const Place& place = places[i];
    Piece* last = i == 0 ? nullptr : &pieces.back();
    const bool joins =
        last != nullptr && place.offset <= last->range->offset + last->range->size + kMaxGap &&
        place.end() - last->range->offset <= kMostTimes * (wantedHere + RecordSize(place));
    if (!joins) {
      pieces.push_back({pack, packSize, ByteRange{place.offset, 0}, {}});
      last = &pieces.back();
      wantedHere = 0;
    }
    wantedHere += RecordSize(place);
    last->places.push_back(place);
    last->range->size = std::max<uint64_t>(last->range->size, place.end() - last->range->offset);
  }
}

// The file has the pack from `base` on. False if one of the blobs is not where it should be.
bool TakeFrom(const Spool& file, uint64_t base, const Piece& piece, Buffer& buffer,
              const std::function<void(const FetchedBlob&)>& take) {
  bool isWhole = true;
  for (const Place& place : piece.places) {
    const size_t size = format::kStoreHeadSize + size_t{place.size};
    Grow(buffer, size);
    if (file.Read(place.offset - base, buffer.data(), size) != size) {
      isWhole = false;
      continue;
    }
    const auto head =
        format::RecordHead::Decode(reinterpret_cast<const unsigned char*>(buffer.data()));
    const std::string_view data(buffer.data() + format::kStoreHeadSize, place.size);
    if (head.op.op == format::kOpStore && head.size == place.size && DigestOf(data) == place.hash)
      take({place, head.op.transactionId, data});
    else
      isWhole = false;
  }
  return isWhole;
}

}  // namespace

void Fetch(Remote& remote, const Index& index, std::vector<Place> places,
           const std::function<void(const FetchedBlob&)>& take, std::set<std::string>& badPacks) {
  std::sort(places.begin(), places.end(), [](const Place& a, const Place& b) {
    return std::tie(a.pack, a.offset) < std::tie(b.pack, b.offset);
  });
  const std::vector<uint64_t> packSizes = index.PackSizes();
  std::vector<Piece> pieces;
  for (auto begin = places.begin(); begin != places.end();) {
    const auto end = std::find_if(begin, places.end(),
                                  [&](const Place& place) { return place.pack != begin->pack; });
    AddPieces(pieces, index.packs[begin->pack], packSizes[begin->pack], {begin, end});
    begin = end;
  }
  Buffer buffer;
  for (const Piece& piece : pieces) {
    const auto file = std::make_shared<Spool>();
    const auto done = [&, file](Reply& reply) {
      // 206 is a range; a service may also send the whole object.
      const uint64_t base = piece.range && reply.status == 206 ? piece.range->offset : 0;
      if (reply.status / 100 != 2 || !TakeFrom(*file, base, piece, buffer, take))
        badPacks.insert(piece.pack);
    };
    remote.objects.StartGet(PackKey(piece.pack), piece.packSize, piece.range, file, done);
  }
  remote.objects.http().Finish();
}

PackContents ReadPack(const std::string& key, const Spool& file) {
  PackContents pack;
  const auto find = [&pack, &key](const std::string& what) {
    pack.findings.push_back(key + " " + what);
  };
  pack.index.packs = {NameIn(key)};
  const FileHead head = ReadHead(file.path());
  SalvageFile salvage(file.path());
  Buffer buffer;
  uint64_t damagedCount = 0;
  WalkOptions options;
  options.record = [&](const format::Record& record) {
    if (!record.IsStore()) return;
    Grow(buffer, record.size);
    const size_t size = file.Read(record.DataOffset(), buffer.data(), record.size);
    if (DigestOf({buffer.data(), size}) != HashOf(record))
      ++damagedCount;
    else
      pack.index.places.push_back(
          {HashOf(record), 0, static_cast<uint32_t>(record.offset), record.size});
  };
  const Walked walked = Walk(salvage, head, options);
  pack.index.Sort();
  if (walked.damage)
    find(fmt::format("is damaged at {}: {}", walked.damage->offset, walked.damage->what));
  if (damagedCount != 0) find(fmt::format("has {} damaged", Count(damagedCount, "blob")));
  if (walked.end != file.size())
    find(fmt::format("has {} bytes, {} of them sound", file.size(), walked.end));
  if (file.Digest() != DigestIn(NameIn(key))) find("does not match the digest in its name");
  return pack;
}

}  // namespace tool::remote
