// What a load takes from a reader of records (pack/format/RecordReader.h): the entries of whole
// transactions, and a message about what ends the reading.
//
// Entries and buffers are of the store's pool; memory grows only with records that are there.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "pack/BlobFile.h"
#include "pack/FileWindow.h"
#include "pack/format/RecordReader.h"

class Replay final : private format::ReadListener {
 public:
  // length is the file's.
  Replay(File& source, const format::FileHeader& fileHeader, std::uint32_t fileLength,
         const ProgressCall* progressCall)
      : file(source), header(fileHeader), window(source, fileLength), progress(progressCall) {}

  // Appends to out. `rest` gets a verdict on what is not whole if the file is a journal. Throws
  // what File throws when it cannot be read.
  format::ReadResult Run(BlobFile::Entries& out, BlobFile::BlobFileMode mode, torn::Verdict& rest);

 private:
  void OnRecord(std::size_t lane, const format::Record& record) override;
  void OnTransaction(std::size_t lane, const format::Transaction& transaction) override;
  void OnSingle(const format::Record& record) override;
  void OnDigested(std::uint64_t end) override;
  unsigned char* Lend(std::size_t size) override;

  void Say(const format::ReadResult& result) const;

  File& file;
  const format::FileHeader header;
  FileWindow window;
  const ProgressCall* const progress;
  std::uint64_t reported = 0;  // where progress was last told of
  BlobFile::Entries* entries = nullptr;
  std::array<BlobFile::Entries, format::RecordReader::kMost> lanes;
  std::vector<unsigned char,
              BlobAllocator<unsigned char, TesselMemoryManager::kContainerPool, kTagBytes>>
      lent;
};
