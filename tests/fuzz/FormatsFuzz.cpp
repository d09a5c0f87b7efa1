// The objects of a remote, with bytes changed: what is accepted says the same once it is encoded
// again, within the bounds that its readers rely on, and all else is a Fault.
#include <algorithm>
#include <cstdio>
#include <random>

#include "tools/base/Error.h"
#include "tools/remote/Formats.h"

namespace tool::remote {

blobring::Hash DigestOf(std::string_view bytes) {  // the tool's comes with an HTTP client
  return blobring::Hash::of(std::as_bytes(std::span(bytes)));
}

namespace {

constexpr int64_t kMost = int64_t{1} << 53;

bool IsTakenAsItIs(size_t kind, const std::string& text) {
  bool isRight = true;
  if (kind == 0) {
    const Index index = Index::Decode(text, "it");
    for (const std::string& pack : index.packs) isRight &= !NameIn(PackKey(pack)).empty();
    for (const Place& place : index.places)
      isRight &= place.pack < index.packs.size() && place.end() <= 0x80000000;
    return isRight && index.Encode() == text;
  }
  if (kind == 1) {
    const std::vector<std::string> keys = DecodeTomb(text, "it");
    for (const std::string& key : keys) isRight &= !NameIn(key).empty();
    return isRight && EncodeTomb(keys) == text;
  }
  if (kind == 2) {
    const RemoteConfig config = RemoteConfig::Decode(text);
    return config.pushSeconds < config.graceSeconds && config.graceSeconds < kMost;
  }
  const Snapshot header = Snapshot::Decode(text, "it", true), whole = Snapshot::Decode(text, "it");
  const std::string again = whole.Encode();
  return header.count < kMost && header.bytes < kMost && std::ranges::is_sorted(whole.hashes) &&
         again.substr(again.find('\n')) == text.substr(text.find('\n'));
}

}  // namespace

}  // namespace tool::remote

int main() {
  using namespace tool::remote;
  std::mt19937 random(1);
  const auto next = [&random](size_t below) { return random() % below; };
  const std::string name = std::string(32, 'a') + "-" + std::string(16, 'b');
  const std::string texts[] = {
      Index{{name, name}, {{{}, 0, 100, 7}, {{}, 1, 0x7fffff00, 100}}, {}}.Encode(),
      EncodeTomb({PackKey(name), IndexKey(name)}), RemoteConfig{"0a"}.Encode(),
      Snapshot{"now", "", "", true, 5, 2, std::vector<blobring::Hash>(2)}.Encode()};
  const std::string pieces[] = {"-1", "1", "3",  "9223372036854775807", "1e30", " ",
                                "/",  "[", "\n", "\xff\xff\xff\xff"};
  for (int n = 0; n < 100'000; ++n) {
    const size_t kind = next(std::size(texts));
    std::string text = texts[kind];
    for (size_t changes = next(3); changes > 0; --changes) {
      size_t at = next(text.size());
      if (next(2) == 0) at = std::min(text.find_first_of("0123456789", at), text.size());
      text.replace(at, next(6), pieces[next(std::size(pieces))]);
    }
    if (kind == 1 && text.size() > 33 && next(2) == 0)  // with a digest that fits
      text = DigestOf(text.substr(33)).text() + text.substr(32);
    try {
      if (IsTakenAsItIs(kind, text)) continue;
      std::printf("NOT TAKEN AS IT IS:\n%s\n", text.c_str());
      return 1;
    } catch (const tool::Fault&) {  // any other exception ends the program
    }
  }
}
