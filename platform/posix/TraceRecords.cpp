// The two record traces: call events (the ring buffer) and numeric records.
// Both are part of every call on a store, so neither takes a lock, allocates
// or enters the kernel.
#include <algorithm>

#include "blobring/host.h"
#include "platform/Diagnostics.h"
#include "platform/Win32.h"
#include "platform/posix/TraceRing.h"

namespace {

using platform::TraceRing;
using Words = TraceRing::Words;

static_assert(TraceRing::kCapacity == BLOBRING_HOST_RECORD_COUNT);

constinit TraceRing events;
constinit TraceRing numericRecords;

// There is one ring buffer, whatever the number; the handle tells in each
// event which one its writer asked for.
constexpr std::uint32_t kRingHandleBase = 0x100;

int AppendNumeric(std::uint32_t id, std::uint32_t valueCount, std::uint32_t a, std::uint32_t b, std::uint32_t c,
                  std::uint32_t d) {
  numericRecords.Append({GetCurrentThreadId(), id, valueCount, a, b, c, d});
  return 0;
}

void Fill(BlobringHostEvent& event, std::uint32_t sequence, const Words& words) {
  event = {sequence, words[0], words[1], words[2], {words[3], words[4], words[5], words[6]}};
}

void Fill(BlobringHostNumericRecord& record, std::uint32_t sequence, const Words& words) {
  record = {sequence, words[0], words[1], words[2], {words[3], words[4], words[5], words[6]}};
}

template <typename Record>
std::uint32_t ReadOn(const TraceRing& ring, std::uint32_t* position, Record* records, std::uint32_t capacity,
                     std::uint32_t* missed) {
  const std::uint32_t start = *position;
  std::uint32_t at = start;
  std::uint32_t count = 0;
  Words words;
  while (count < capacity) {
    const std::uint32_t total = ring.Total();
    if (total - at > TraceRing::kCapacity) at = total - TraceRing::kCapacity;
    if (at == total) break;
    if (ring.Read(at, words)) {
      Fill(records[count++], at++, words);
    } else if (ring.Total() - at <= TraceRing::kCapacity) {
      break;  // still being written
    }
  }
  *position = at;
  if (missed != nullptr) *missed = at - start - count;
  return count;
}

}  // namespace

int GetTraceRingBuffer(int number, std::uint32_t* out) {
  if (out == nullptr) return -1;
  *out = kRingHandleBase + static_cast<std::uint32_t>(number);
  return 0;
}

int WriteEventToRingBuffer(std::uint32_t ring, std::uint32_t threadId, std::uint32_t kind, std::uint32_t a,
                           std::uint32_t b, std::uint32_t c, std::uint32_t d) {
  events.Append({threadId, ring, kind, a, b, c, d});
  return 0;
}

int RTTrace(std::uint32_t id) {
  return AppendNumeric(id, 0, 0, 0, 0, 0);
}

int RTTrace_1(std::uint32_t id, std::uint32_t a) {
  return AppendNumeric(id, 1, a, 0, 0, 0);
}

int RTTrace_2(std::uint32_t id, std::uint32_t a, std::uint32_t b) {
  return AppendNumeric(id, 2, a, b, 0, 0);
}

int RTTrace_3(std::uint32_t id, std::uint32_t a, std::uint32_t b, std::uint32_t c) {
  return AppendNumeric(id, 3, a, b, c, 0);
}

int RTTrace_4(std::uint32_t id, std::uint32_t a, std::uint32_t b, std::uint32_t c, std::uint32_t d) {
  return AppendNumeric(id, 4, a, b, c, d);
}

uint32_t BlobringHostReadEvents(uint32_t* position, BlobringHostEvent* out, uint32_t capacity, uint32_t* missed) {
  return ReadOn(events, position, out, capacity, missed);
}

uint32_t BlobringHostReadNumericTrace(uint32_t* position, BlobringHostNumericRecord* out, uint32_t capacity,
                                      uint32_t* missed) {
  return ReadOn(numericRecords, position, out, capacity, missed);
}
