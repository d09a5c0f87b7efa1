#include <algorithm>
#include <cstring>

#include "md5/MD5Blocks.h"

namespace md5 {
namespace {

// Keeps the lanes filled: a lane whose message is done gets the next one; when none is left, the
// last lane moves into the gap. Lanes 0 to inUse - 1 have blocks to do.
class Scheduler {
 public:
  Scheduler(const MD5Message* messages, std::size_t count, std::size_t laneCount)
      : waiting(messages), end(messages + count) {
    for (std::size_t lane = 0; lane < laneCount; ++lane) jobs[lane].tail = tails[lane];
    while (inUse < laneCount && waiting != end) Start(inUse++);
  }

  void Run() {
    while (inUse != 0) {
      std::size_t blockCount = jobs[0].blocksLeft;
      for (std::size_t lane = 1; lane < inUse; ++lane)
        blockCount = std::min(blockCount, jobs[lane].blocksLeft);
      Compress(blockCount);
      // From the last lane down, so that a lane that moves into a gap has already advanced.
      for (std::size_t lane = inUse; lane-- > 0;) Advance(lane, blockCount);
    }
  }

 private:
  // Of the message's current piece, blocksLeft blocks and then partSize bytes are at lanes.next.
  struct Job {
    std::size_t blocksLeft;
    std::size_t partSize;  // less than a block
    std::uint64_t size;    // bytes of the message so far
    MD5Source* rest;
    bool isPadded;       // the blocks are the last ones
    std::uint8_t* tail;  // room for two blocks
    std::uint8_t* digest;
  };

  void Start(std::size_t lane) {
    const MD5Message& message = *waiting++;
    for (std::size_t i = 0; i < 4; ++i) lanes.state[i][lane] = kInitialState[i];
    jobs[lane] = {0, 0, 0, message.rest, false, jobs[lane].tail, message.digest};
    Take(lane, {message.data, message.size});
    if (jobs[lane].blocksLeft == 0) Refill(lane);
  }

  void Take(std::size_t lane, std::span<const std::uint8_t> piece) {
    Job& job = jobs[lane];
    lanes.next[lane] = piece.data();
    job.blocksLeft = piece.size() / kBlockSize;
    job.partSize = piece.size() % kBlockSize;
    job.size += piece.size();
  }

  // Gives a lane whose blocks are done the following ones. False at the end of its message.
  bool Refill(std::size_t lane) {
    Job& job = jobs[lane];
    if (job.isPadded) return false;
    if (job.rest != nullptr && job.partSize == 0) {
      Take(lane, job.rest->Next());
      if (job.blocksLeft != 0) return true;
    }
    if (job.partSize != 0) std::memcpy(job.tail, lanes.next[lane], job.partSize);
    job.blocksLeft = PadTail(job.tail, job.partSize, job.size << 3);
    job.isPadded = true;
    lanes.next[lane] = job.tail;
    return true;
  }

  void Compress(std::size_t blockCount) {
    if (inUse > 2) {
      std::fill(lanes.next + inUse, lanes.next + kLanes, lanes.next[0]);  // they are read, too
      CompressLanes(lanes, inUse, blockCount);
      return;
    }
    std::uint32_t states[2][4];
    for (std::size_t lane = 0; lane < inUse; ++lane) CopyState(lane, states[lane]);
    if (inUse == 2) {
      CompressTwo(states[0], lanes.next[0], states[1], lanes.next[1], blockCount);
    } else {
      CompressOne(states[0], lanes.next[0], blockCount);
    }
    for (std::size_t lane = 0; lane < inUse; ++lane) {
      for (std::size_t i = 0; i < 4; ++i) lanes.state[i][lane] = states[lane][i];
    }
  }

  void Advance(std::size_t lane, std::size_t blockCount) {
    Job& job = jobs[lane];
    lanes.next[lane] += blockCount * kBlockSize;
    job.blocksLeft -= blockCount;
    if (job.blocksLeft != 0 || Refill(lane)) return;
    std::uint32_t state[4];
    CopyState(lane, state);
    Encode(job.digest, state, 4);
    if (waiting != end) {
      Start(lane);
    } else if (lane != --inUse) {
      for (std::size_t i = 0; i < 4; ++i) lanes.state[i][lane] = lanes.state[i][inUse];
      lanes.next[lane] = lanes.next[inUse];
      jobs[lane] = jobs[inUse];
    }
  }

  void CopyState(std::size_t lane, std::uint32_t* state) const {
    for (std::size_t i = 0; i < 4; ++i) state[i] = lanes.state[i][lane];
  }

  LaneState lanes{};
  std::uint8_t tails[kLanes][2 * kBlockSize];
  Job jobs[kLanes];
  const MD5Message* waiting;
  const MD5Message* const end;
  std::size_t inUse = 0;
};

}  // namespace

void DigestMany(const MD5Message* messages, std::size_t count, bool inLanes) {
  Scheduler(messages, count, inLanes ? kLanes : 2).Run();
}

}  // namespace md5

void DigestMany(const MD5Message* messages, std::size_t count) {
  md5::DigestMany(messages, count, md5::HasLanes());
}
