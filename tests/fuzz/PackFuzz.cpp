// A pack of any bytes, alone or in one of two slots. The first byte of the
// input are options, the rest is the pack.
#include "tests/fuzz/Bytes.h"
#include "tests/fuzz/StoreLife.h"
#include "tests/fuzz/Target.h"
#include "tests/support/JournalBytes.h"

namespace {

using test::DeleteRecord;
using test::JournalBytes;
using test::StoreRecord;

std::string OtherPack(unsigned which) {
  static constexpr std::int32_t kSequences[] = {0, 1, -1, -3};
  return JournalBytes(1, kSequences[which]).Transaction(0, {StoreRecord(1, "a"), StoreRecord(2, "bb")}).Bytes();
}

std::string Journal(std::string_view blob) {
  return JournalBytes(0, 0).Transaction(3, {StoreRecord(3, blob), DeleteRecord(3, "a")}).Bytes();
}

}  // namespace

// Bits 0 to 3 are those of LifeOptions; 4 adds a second slot, in which 5 puts
// the input; 6 and 7 choose the sequence of the other pack.
int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const std::string file(fuzz::View(data + 1, size - 1));
  std::vector<fuzz::Slot> slots = {{file, Journal("first")}};
  if ((data[0] & 0x10) != 0)
    slots.insert((data[0] & 0x20) != 0 ? slots.begin() : slots.end(), {OtherPack(data[0] >> 6), Journal("second")});
  fuzz::LiveThrough(slots, fuzz::OptionsOf(data[0]));
  return 0;
}
