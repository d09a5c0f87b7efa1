// Reads the records of a store's file for a load: gathers the entries of whole transactions, and
// writes a message about what ends the reading (pack/format/RecordReader.h).
//
// Entries and buffers are of the store's pool; memory grows only with records that are there. A
// window that the memory manager refuses is tried again smaller.
#pragma once

#include <array>
#include <cstdint>
#include <span>

#include "pack/BlobFile.h"
#include "pack/format/ByteSource.h"
#include "pack/format/RecordReader.h"

class Replay final : private format::ReadListener, private format::ByteSource {
 public:
  // length is the file's.
  Replay(File& source, const format::FileHeader& fileHeader, std::uint32_t fileLength,
         const ProgressCall* progressCall)
      : ByteSource(fileLength), file(source), header(fileHeader), progress(progressCall) {}

  // Appends to out. `rest` gets a verdict on what is not whole if the file is a journal. Throws
  // what File throws when it cannot be read, and Failure without memory for the least window.
  format::ReadResult Run(BlobFile::Entries& out, BlobFile::BlobFileMode mode, torn::Verdict& rest);

 private:
  void OnRecord(std::size_t lane, const format::Record& record) override;
  void OnTransaction(std::size_t lane, const format::Transaction& transaction) override;
  void OnSingle(const format::Record& record) override;
  void OnDigested(std::uint64_t end) override;
  unsigned char* Lend(std::size_t size) override;
  std::span<unsigned char> Allocate(std::size_t size) override;
  void ReadFile(std::uint64_t offset, unsigned char* to, std::size_t size) override;

  void Say(const format::ReadResult& result) const;

  File& file;
  const format::FileHeader header;
  const ProgressCall* const progress;
  std::uint64_t reported = 0;  // where progress was last told of
  BlobFile::Entries* entries = nullptr;
  std::array<BlobFile::Entries, format::RecordReader::kMost> lanes;
  PooledBytes lent, window;
};
