#include "tools/remote/Fetch.h"

#include <algorithm>
#include <future>
#include <utility>

#include "pack/format/Format.h"
#include "tools/base/Console.h"
#include "tools/view/FileWalk.h"

namespace tool::remote {
namespace {

// A gap between two blobs is read as well if it is smaller than this, and if what is read stays
// below three times what is wanted.
constexpr uint64_t kMaxGap = uint64_t{256} * 1024;
constexpr uint64_t kMostTimes = 3;
// What arrives before it is digested side by side.
constexpr uint64_t kBatchBytes = uint64_t{40} << 20;

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

// A piece that was read: the pack, from `base` on.
struct Arrived {
  const Piece* piece;
  std::shared_ptr<Spool> file;
  uint64_t base;
};

// Blobs that match their hashes, and what they lie in.
struct Verified {
  std::vector<Arrived> pieces;
  std::vector<Spool::Bytes> mapped;
  std::vector<FetchedBlob> blobs;
};

// Digests the blobs of pieces side by side.
Verified Verify(std::vector<Arrived> pieces, std::set<std::string>& badPacks) {
  std::vector<Spool::Bytes> mapped;
  std::vector<std::string_view> texts;
  std::vector<std::pair<const Piece*, FetchedBlob>> blobs;
  for (const auto& [piece, file, base] : pieces) {
    const std::string_view bytes = mapped.emplace_back(file->Map()).text;
    for (const Place& place : piece->places) {
      const uint64_t end = place.end() - base;
      format::RecordHeader header = {};
      if (end <= bytes.size())
        header = format::RecordHeader::Decode(
            reinterpret_cast<const unsigned char*>(&bytes[end - RecordSize(place)]));
      if (end > bytes.size() || header.op.op != format::kOpStore || header.size != place.size) {
        badPacks.insert(piece->pack);
        continue;
      }
      texts.push_back(bytes.substr(end - place.size, place.size));
      blobs.push_back({piece, {place, header.op.transactionId, texts.back()}});
    }
  }
  const std::vector<blobring::Hash> digests = DigestsOf(texts);
  Verified verified{std::move(pieces), std::move(mapped), {}};
  for (size_t i = 0; i < blobs.size(); ++i) {
    const auto& [piece, blob] = blobs[i];
    if (digests[i] == blob.place.hash)
      verified.blobs.push_back(blob);
    else
      badPacks.insert(piece->pack);
  }
  return verified;
}

}  // namespace

void Fetch(Remote& remote, const Index& index, std::vector<Place> places,
           const std::function<void(const FetchedBlob&)>& take, std::set<std::string>& badPacks) {
  std::ranges::sort(places, {}, &Place::InPacks);
  const std::vector<uint64_t> packSizes = index.PackSizes();
  std::vector<Piece> pieces;
  for (auto begin = places.begin(); begin != places.end();) {
    const auto end = std::find_if(begin, places.end(),
                                  [&](const Place& place) { return place.pack != begin->pack; });
    AddPieces(pieces, index.packs[begin->pack], packSizes[begin->pack], {begin, end});
    begin = end;
  }
  std::vector<Arrived> arrived;
  uint64_t arrivedBytes = 0;
  std::future<void> taking;  // the last: its end waits for the thread
  const auto takeArrived = [&] {
    Verified verified = Verify(std::exchange(arrived, {}), badPacks);
    arrivedBytes = 0;
    if (taking.valid()) taking.get();
    // Not std::launch::async: where no thread can be had, the next call takes them.
    taking = std::async(
        [&take](Verified&& those) {
          const Verified these = std::move(those);  // freed as soon as they are taken
          for (const FetchedBlob& blob : these.blobs) take(blob);
        },
        std::move(verified));
  };
  for (const Piece& piece : pieces) {
    const auto file = std::make_shared<Spool>(piece.range ? piece.range->size : piece.packSize);
    const auto done = [&, file](Reply& reply) {
      // 206 is a range; a service may also send the whole object. The file is empty if it is gone.
      const uint64_t base = piece.range && reply.status == 206 ? piece.range->offset : 0;
      arrived.push_back({&piece, file, base});
      arrivedBytes += file->size();
      if (arrivedBytes >= kBatchBytes) takeArrived();
    };
    remote.bucket.StartGet(PackKey(piece.pack), piece.packSize, piece.range, file, done);
  }
  remote.bucket.http().Finish();
  takeArrived();
  taking.get();
}

PackContents ReadPack(const std::string& key, const Spool& file) {
  PackContents pack;
  const auto find = [&pack, &key](const std::string& what) {
    pack.findings.push_back(key + " " + what);
  };
  pack.index.packs = {NameIn(key)};
  const Spool::Bytes bytes = file.Map();
  const FileStatus status = ReadStatus(file.path());
  SalvageFile salvage(file.path());
  uint64_t damagedCount = 0;
  WalkOptions options;
  options.record = [&](const format::Record& record) {
    if (!record.IsStore()) return;
    if (DigestOf(bytes.text.substr(record.DataOffset(), record.size)) != HashOf(record))
      ++damagedCount;
    else
      pack.index.places.push_back(
          {HashOf(record), 0, static_cast<uint32_t>(record.offset), record.size});
  };
  const Walked walked = Walk(salvage, status, options);
  pack.index.Sort();
  if (walked.damage)
    find(fmt::format("is damaged at {}: {}", walked.damage->offset, walked.damage->what));
  if (damagedCount != 0) find(fmt::format("has {} damaged", Count(damagedCount, "blob")));
  if (walked.end != file.size())
    find(fmt::format("has {} bytes, {} of them sound", file.size(), walked.end));
  if (DigestOf(bytes.text) != DigestIn(NameIn(key))) find("does not match the digest in its name");
  return pack;
}

}  // namespace tool::remote
