// The two record traces: call events (the ring buffer) and numeric records. Both are part of every
// call on a store.
#include <algorithm>
#include <mutex>

#include "blobring/host.h"
#include "platform/Diagnostics.h"
#include "platform/Win32.h"

namespace {

// The most recent records of a trace. A record's number counts from 0 and wraps at 2^32.
// Constant-initialised and never destroyed.
template <typename Record>
class Ring {
 public:
  int Append(Record record) {
    const std::lock_guard lock(mutex_);
    record.sequence = next_++;
    records_[record.sequence % BLOBRING_HOST_RECORD_COUNT] = record;
    return 0;
  }

  // See BlobringHostReadEvents.
  std::uint32_t ReadOn(std::uint32_t* position, Record* out, std::uint32_t capacity,
                       std::uint32_t* missed) {
    const std::lock_guard lock(mutex_);
    const auto kept = std::min<std::uint32_t>(next_ - *position, BLOBRING_HOST_RECORD_COUNT);
    const std::uint32_t first = next_ - kept;
    const std::uint32_t count = std::min(kept, capacity);
    for (std::uint32_t i = 0; i < count; ++i)
      out[i] = records_[(first + i) % BLOBRING_HOST_RECORD_COUNT];
    if (missed != nullptr) *missed = first - *position;
    *position = first + count;
    return count;
  }

 private:
  std::mutex mutex_;
  std::uint32_t next_ = 0;
  Record records_[BLOBRING_HOST_RECORD_COUNT] = {};
};

constinit Ring<BlobringHostEvent> events;
constinit Ring<BlobringHostNumericRecord> numericRecords;

}  // namespace

// There is one ring buffer, whatever the number; the handle tells in each event which one its
// writer asked for.
int GetTraceRingBuffer(int number, std::uint32_t* out) {
  *out = 0x100 + static_cast<std::uint32_t>(number);
  return 0;
}

int WriteEventToRingBuffer(std::uint32_t ring, std::uint32_t threadId, std::uint32_t kind,
                           std::uint32_t a, std::uint32_t b, std::uint32_t c, std::uint32_t d) {
  return events.Append({0, threadId, ring, kind, {a, b, c, d}});
}

int RTTrace(std::uint32_t id) {
  return numericRecords.Append({0, GetCurrentThreadId(), id, 0, {}});
}

int RTTrace_1(std::uint32_t id, std::uint32_t a) {
  return numericRecords.Append({0, GetCurrentThreadId(), id, 1, {a}});
}

int RTTrace_2(std::uint32_t id, std::uint32_t a, std::uint32_t b) {
  return numericRecords.Append({0, GetCurrentThreadId(), id, 2, {a, b}});
}

int RTTrace_3(std::uint32_t id, std::uint32_t a, std::uint32_t b, std::uint32_t c) {
  return numericRecords.Append({0, GetCurrentThreadId(), id, 3, {a, b, c}});
}

int RTTrace_4(std::uint32_t id, std::uint32_t a, std::uint32_t b, std::uint32_t c,
              std::uint32_t d) {
  return numericRecords.Append({0, GetCurrentThreadId(), id, 4, {a, b, c, d}});
}

uint32_t BlobringHostReadEvents(uint32_t* position, BlobringHostEvent* out, uint32_t capacity,
                                uint32_t* missed) {
  return events.ReadOn(position, out, capacity, missed);
}

uint32_t BlobringHostReadNumericTrace(uint32_t* position, BlobringHostNumericRecord* out,
                                      uint32_t capacity, uint32_t* missed) {
  return numericRecords.ReadOn(position, out, capacity, missed);
}
