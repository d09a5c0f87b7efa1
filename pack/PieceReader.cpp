#include "pack/PieceReader.h"

#include <algorithm>
#include <cstring>

PieceReader::PieceReader(BlobFile& source, const BlobFile::BlobFileEntry& entry)
    : file(source),
      hash(entry.hash),
      at(entry.offset),
      headLeft(format::kStoreHeaderSize),
      left(entry.size) {
  buffer.resize(headLeft + std::min(left, kPieceSize));
}

std::span<const unsigned char> PieceReader::Next() {
  const std::uint32_t size = headLeft + std::min(left, kPieceSize);
  if (size == 0) return {};
  const BlobFile::RecordBytes read = file.ReadSome(at, buffer.data(), size);
  if (read.held.size() < size)
    throw File::ShortRead(size, static_cast<unsigned>(read.held.size()), read.code);
  if (headLeft > 0) {
    const auto head = format::RecordHeader::Decode(read.held.data());
    if (head.op.op != format::kOpStore || head.size != left ||
        std::memcmp(head.hash, hash.Bytes(), Hash::kSize) != 0)
      throw Failure(FailureCode::Damaged, "the record is not the blob's");
  }
  const std::span<const unsigned char> piece = read.held.subspan(headLeft);
  at += size;
  left -= size - headLeft;
  headLeft = 0;
  md5.update(piece.data(), static_cast<std::uint32_t>(piece.size()));
  if (left == 0 && !(Finish(md5) == hash))
    throw Failure(FailureCode::Damaged, "the data does not match the hash");
  return piece;
}
