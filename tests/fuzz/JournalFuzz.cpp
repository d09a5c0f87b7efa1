// A journal of any bytes beside a sound pack. The first byte of the input are
// options, the rest is 0.jrn.
#include "tests/fuzz/Bytes.h"
#include "tests/fuzz/StoreLife.h"
#include "tests/fuzz/Target.h"
#include "tests/support/JournalBytes.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  static const std::string pack =
      test::JournalBytes(1, 7).Transaction(0, {test::StoreRecord(1, "a"), test::StoreRecord(2, "bb")}).Bytes();
  fuzz::LiveThrough({{pack, std::string(fuzz::View(data + 1, size - 1))}}, fuzz::OptionsOf(data[0]));
  return 0;
}
