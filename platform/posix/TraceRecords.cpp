// The two record traces: call events (the ring buffer) and numeric records.
// Both are part of every call on a store.
#include <algorithm>
#include <mutex>

#include "blobring/host.h"
#include "platform/Diagnostics.h"
#include "platform/Win32.h"

namespace {

// The most recent records of a trace. A record's number counts from 0 and
// wraps at 2^32. Constant-initialised and never destroyed.
template <typename Record>
class Ring {
 public:
  void Append(Record record) {
    const std::lock_guard lock(mutex_);
    record.sequence = next_++;
    records_[record.sequence % BLOBRING_HOST_RECORD_COUNT] = record;
  }

  // See BlobringHostReadEvents.
  std::uint32_t ReadOn(std::uint32_t* position, Record* out, std::uint32_t capacity,
                       std::uint32_t* missed) {
    const std::lock_guard lock(mutex_);
    const std::uint32_t kept =
        std::min(next_ - *position, std::uint32_t{BLOBRING_HOST_RECORD_COUNT});
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

// There is one ring buffer, whatever the number; the handle tells in each
// event which one its writer asked for.
constexpr std::uint32_t kRingHandleBase = 0x100;

int AppendNumeric(std::uint32_t id, std::uint32_t valueCount, std::uint32_t a, std::uint32_t b,
                  std::uint32_t c, std::uint32_t d) {
  numericRecords.Append({0, GetCurrentThreadId(), id, valueCount, {a, b, c, d}});
  return 0;
}

}  // namespace

int GetTraceRingBuffer(int number, std::uint32_t* out) {
  *out = kRingHandleBase + static_cast<std::uint32_t>(number);
  return 0;
}

int WriteEventToRingBuffer(std::uint32_t ring, std::uint32_t threadId, std::uint32_t kind,
                           std::uint32_t a, std::uint32_t b, std::uint32_t c, std::uint32_t d) {
  events.Append({0, threadId, ring, kind, {a, b, c, d}});
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

int RTTrace_4(std::uint32_t id, std::uint32_t a, std::uint32_t b, std::uint32_t c,
              std::uint32_t d) {
  return AppendNumeric(id, 4, a, b, c, d);
}

uint32_t BlobringHostReadEvents(uint32_t* position, BlobringHostEvent* out, uint32_t capacity,
                                uint32_t* missed) {
  return events.ReadOn(position, out, capacity, missed);
}

uint32_t BlobringHostReadNumericTrace(uint32_t* position, BlobringHostNumericRecord* out,
                                      uint32_t capacity, uint32_t* missed) {
  return numericRecords.ReadOn(position, out, capacity, missed);
}
