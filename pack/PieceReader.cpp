#include "pack/PieceReader.h"

#include <algorithm>
#include <cstring>
#include <utility>

PieceReader::PieceReader(const Hash& blobHash, std::uint32_t size, ReadAt readAt)
    : hash(blobHash), read(std::move(readAt)), headLeft(format::kStoreHeaderSize), left(size) {
  buffer.resize(headLeft + std::min(left, kPieceSize));
}

std::span<const unsigned char> PieceReader::Next() {
  const std::uint32_t size = headLeft + std::min(left, kPieceSize);
  if (size == 0) return {};
  const BlobFile::RecordBytes got = read(at, buffer.data(), size);
  if (got.held.size() < size)
    throw File::ShortRead(size, static_cast<unsigned>(got.held.size()), got.code);
  if (headLeft > 0) {
    const auto head = format::RecordHeader::Decode(got.held.data());
    if (head.op.op != format::kOpStore || head.size != left ||
        std::memcmp(head.hash, hash.Bytes(), Hash::kSize) != 0)
      throw Failure(FailureCode::Damaged, "the record is not the blob's");
  }
  const std::span<const unsigned char> piece = got.held.subspan(headLeft);
  at += size;
  left -= size - headLeft;
  headLeft = 0;
  md5.update(piece.data(), static_cast<std::uint32_t>(piece.size()));
  if (left == 0 && !(Finish(md5) == hash))
    throw Failure(FailureCode::Damaged, "the data does not match the hash");
  return piece;
}
