#include <algorithm>
#include <cstring>

#include "md5/MD5Engines.h"

namespace md5 {
namespace {

// Keeps the lanes filled: a lane whose message is done gets the next one; when
// none is left, the last lane moves into the gap. Lanes 0 to inUse - 1 have
// blocks to do: those of each piece in place, then those of the tail.
class Scheduler {
 public:
  Scheduler(const MD5Message* messages, std::size_t count, const LaneEngine* laneEngine)
      : engine(laneEngine), waiting(messages), end(messages + count) {
    const std::size_t laneCount = engine ? engine->laneCount : 2;
    for (std::size_t lane = 0; lane < laneCount; ++lane) jobs[lane].tail = tails[lane];
    while (inUse < laneCount && waiting != end) Start(inUse++);
  }

  void Run() {
    while (inUse != 0) {
      const std::size_t working =
          engine && inUse >= engine->fewestLanes ? inUse : std::min<std::size_t>(inUse, 2);
      std::size_t blockCount = jobs[0].blocksLeft;
      for (std::size_t lane = 1; lane < working; ++lane)
        blockCount = std::min(blockCount, jobs[lane].blocksLeft);
      CompressFirst(working, blockCount);
      // From the last lane down, so that a lane that moves into a gap has either
      // advanced already or was not working.
      for (std::size_t lane = working; lane-- > 0;) Advance(lane, blockCount);
    }
  }

 private:
  struct Job {
    std::size_t blocksLeft;  // at lanes.next
    std::size_t tailBlocks;  // after them
    std::uint64_t size;      // bytes of the message so far
    MD5Source* rest;         // null after the last piece
    std::uint8_t* tail;      // room for two blocks
    std::uint8_t* digest;
  };

  void Start(std::size_t lane) {
    const MD5Message& message = *waiting++;
    Job& job = jobs[lane];
    for (std::size_t i = 0; i < 4; ++i) lanes.state[i][lane] = kInitialState[i];
    job.size = 0;
    job.rest = message.rest;
    job.digest = message.digest;
    Take(lane, {message.data, message.size}, message.rest == nullptr);
    if (job.blocksLeft == 0) GoOn(lane);
  }

  // Takes the next piece of a lane's message. It is the last one unless it is
  // made of whole blocks and more may follow.
  void Take(std::size_t lane, std::span<const std::uint8_t> piece, bool isLast) {
    Job& job = jobs[lane];
    const std::size_t tailSize = piece.size() % kBlockSize;
    lanes.next[lane] = piece.data();
    job.blocksLeft = piece.size() / kBlockSize;
    job.size += piece.size();
    job.tailBlocks = 0;
    if (!isLast && tailSize == 0) return;
    const std::uint64_t bits = job.size << 3;
    const std::uint32_t bitCount[2] = {static_cast<std::uint32_t>(bits),
                                       static_cast<std::uint32_t>(bits >> 32)};
    if (tailSize != 0) std::memcpy(job.tail, piece.data() + (piece.size() - tailSize), tailSize);
    job.tailBlocks = PadTail(job.tail, tailSize, bitCount);
    job.rest = nullptr;
  }

  // Gives a lane whose blocks are done the following ones. False at the end of
  // its message.
  bool GoOn(std::size_t lane) {
    Job& job = jobs[lane];
    if (job.tailBlocks == 0) {
      if (job.rest == nullptr) return false;
      const std::span<const std::uint8_t> piece = job.rest->Next();
      Take(lane, piece, piece.empty());
      if (job.blocksLeft != 0) return true;
    }
    lanes.next[lane] = job.tail;
    job.blocksLeft = job.tailBlocks;
    job.tailBlocks = 0;
    return true;
  }

  void CompressFirst(std::size_t working, std::size_t blockCount) {
    if (working > 2) {
      // Idle lanes read, too.
      std::fill(lanes.next + working, lanes.next + engine->laneCount, lanes.next[0]);
      engine->compress(lanes, working, blockCount);
      return;
    }
    std::uint32_t states[2][4];
    for (std::size_t lane = 0; lane < working; ++lane) CopyState(lane, states[lane]);
    if (working == 2) {
      CompressTwo(states[0], lanes.next[0], states[1], lanes.next[1], blockCount);
    } else {
      CompressOne(states[0], lanes.next[0], blockCount);
    }
    for (std::size_t lane = 0; lane < working; ++lane) {
      for (std::size_t i = 0; i < 4; ++i) lanes.state[i][lane] = states[lane][i];
    }
  }

  void Advance(std::size_t lane, std::size_t blockCount) {
    Job& job = jobs[lane];
    lanes.next[lane] += blockCount * kBlockSize;
    job.blocksLeft -= blockCount;
    if (job.blocksLeft != 0 || GoOn(lane)) return;
    std::uint32_t state[4];
    CopyState(lane, state);
    Encode(job.digest, state, 4);
    if (waiting != end) {
      Start(lane);
    } else if (lane != --inUse) {
      MoveLast(lane);
    }
  }

  // Moves the work of lane inUse into an idle lane.
  void MoveLast(std::size_t lane) {
    for (std::size_t i = 0; i < 4; ++i) lanes.state[i][lane] = lanes.state[i][inUse];
    lanes.next[lane] = lanes.next[inUse];
    std::swap(jobs[lane], jobs[inUse]);
  }

  void CopyState(std::size_t lane, std::uint32_t* state) const {
    for (std::size_t i = 0; i < 4; ++i) state[i] = lanes.state[i][lane];
  }

  LaneState lanes{};
  std::uint8_t tails[kMaxLanes][2 * kBlockSize];
  Job jobs[kMaxLanes];
  const LaneEngine* const engine;
  const MD5Message* waiting;
  const MD5Message* const end;
  std::size_t inUse = 0;
};

}  // namespace

const LaneEngine* FindLaneEngine() {
#if defined(__x86_64__)
  return __builtin_cpu_supports("avx2") ? &kAvx2Engine : nullptr;
#elif defined(__AARCH64EL__)
  return &kNeonEngine;
#else
  return nullptr;
#endif
}

void DigestMany(const MD5Message* messages, std::size_t count, const LaneEngine* engine) {
  Scheduler(messages, count, engine).Run();
}

}  // namespace md5

void DigestMany(const MD5Message* messages, std::size_t count) {
  md5::DigestMany(messages, count, md5::FindLaneEngine());
}
