// SPDX-License-Identifier: MIT
// Tests of the arena that holds a scan's records.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "alloc_failure.h"
#include "clip.h"
#include "fail_alloc.h"
#include "internal/work_arena.h"
#include "test_support.h"

namespace {

using zev::detail::WorkArena;

constexpr std::size_t kChunk = 2 * WorkArena::kBlock;
constexpr std::size_t kClipsPerChunk = kChunk / sizeof(Clip);  // 641 records of 6536 bytes

// Whether any mapping of the process covers p, from /proc/self/maps.
bool isMapped(const void* p) {
  std::ifstream maps("/proc/self/maps");
  const std::uintptr_t at = reinterpret_cast<std::uintptr_t>(p);
  for (std::string line; std::getline(maps, line);) {
    unsigned long long from = 0, to = 0;
    if (std::sscanf(line.c_str(), "%llx-%llx", &from, &to) == 2 && from <= at && at < to) return true;
  }
  return false;
}

// Resident kilobytes of the mapping that holds p, from /proc/self/smaps.
long residentKb(const void* p) {
  std::ifstream smaps("/proc/self/smaps");
  const std::uintptr_t at = reinterpret_cast<std::uintptr_t>(p);
  bool inside = false;
  for (std::string line; std::getline(smaps, line);) {
    unsigned long long from = 0, to = 0;
    if (std::sscanf(line.c_str(), "%llx-%llx ", &from, &to) == 2 &&
        line.find(' ') == line.find_first_of(' ')) {
      if (line.find('-') < line.find(' ')) inside = from <= at && at < to;
      continue;
    }
    if (inside && line.compare(0, 4, "Rss:") == 0) return std::strtol(line.c_str() + 4, nullptr, 10);
  }
  return -1;
}

// Bytes of every mapping of the process, from /proc/self/maps.
unsigned long long mappedTotal() {
  std::ifstream maps("/proc/self/maps");
  unsigned long long total = 0;
  for (std::string line; std::getline(maps, line);) {
    unsigned long long from = 0, to = 0;
    if (std::sscanf(line.c_str(), "%llx-%llx", &from, &to) == 2) total += to - from;
  }
  return total;
}

bool aligned(const void* p, std::size_t align) { return reinterpret_cast<std::uintptr_t>(p) % align == 0; }

TEST(WorkArena, HandsOutAlignedZeroedMemoryInAllocationOrder) {
  WorkArena arena;
  EXPECT_EQ(arena.chunks(), 0u);
  EXPECT_EQ(arena.mappedBytes(), 0u);
  unsigned char* a = static_cast<unsigned char*>(arena.allocate(3, 1));
  unsigned char* b = static_cast<unsigned char*>(arena.allocate(16, 8));
  unsigned char* c = static_cast<unsigned char*>(arena.allocate(1, 4096));
  EXPECT_TRUE(aligned(a, WorkArena::kBlock));  // a chunk starts on a block boundary
  EXPECT_EQ(b, a + 8);
  EXPECT_TRUE(aligned(c, 4096));
  EXPECT_EQ(c, a + 4096);
  for (int i = 0; i < 16; ++i) EXPECT_EQ(b[i], 0);
  std::memset(b, 0xAB, 16);
  EXPECT_EQ(arena.chunks(), 1u);
  EXPECT_EQ(arena.mappedBytes(), kChunk);
}

TEST(WorkArena, OpensANewChunkWhenARecordNoLongerFits) {
  WorkArena arena;
  std::vector<Clip*> clips;
  for (std::size_t i = 0; i <= kClipsPerChunk; ++i) {
    clips.push_back(new (arena.allocate(sizeof(Clip), alignof(Clip))) Clip());
    clips.back()->modTime = static_cast<int32_t>(i);
  }
  EXPECT_EQ(arena.chunks(), 2u);
  EXPECT_EQ(arena.mappedBytes(), 2 * kChunk);
  // The record that did not fit starts the second chunk, whole.
  EXPECT_TRUE(aligned(clips.back(), WorkArena::kBlock));
  EXPECT_NE(clips.back(), clips[kClipsPerChunk - 1] + 1);  // not right after the last one of the first
  for (std::size_t i = 0; i < clips.size(); ++i) EXPECT_EQ(clips[i]->modTime, static_cast<int32_t>(i));
}

TEST(WorkArena, TakesBackOnlyTheLatestAllocation) {
  WorkArena arena;
  void* first = arena.allocate(sizeof(Clip), alignof(Clip));
  void* second = arena.allocate(sizeof(Clip), alignof(Clip));
  arena.deallocate(second, sizeof(Clip));
  EXPECT_EQ(arena.allocate(sizeof(Clip), alignof(Clip)), second);  // used again
  arena.deallocate(first, sizeof(Clip));                           // not the latest: kept
  void* third = arena.allocate(sizeof(Clip), alignof(Clip));
  EXPECT_EQ(static_cast<unsigned char*>(third), static_cast<unsigned char*>(second) + sizeof(Clip));
}

TEST(WorkArena, ALargeAllocationGetsAChunkOfItsOwn) {
  WorkArena arena;
  arena.allocate(10, 1);
  const std::size_t big = 3 * kChunk + 1;
  unsigned char* p = static_cast<unsigned char*>(arena.allocate(big, 8));
  EXPECT_EQ(arena.chunks(), 2u);
  EXPECT_EQ(arena.mappedBytes(), kChunk + 3 * kChunk + WorkArena::kBlock);  // rounded up to whole blocks
  p[0] = 1;
  p[big - 1] = 2;
  EXPECT_EQ(p[big - 1], 2);
}

// The arena's list of chunks has room for a new one before the chunk is
// mapped: without heap memory, allocate throws std::bad_alloc with nothing
// mapped, and the arena goes on working once there is memory again.
TEST(WorkArena, WithoutHeapMemoryAChunkIsNeverMapped) {
  if (const char* why = vorta_test::allocationFailureUnavailable()) GTEST_SKIP() << why;
  WorkArena arena;
  mappedTotal();  // whatever reading the list of mappings sets up is set up
  const unsigned long long before = mappedTotal();
  bool threw = false;
  {
    vorta_test::FailAlloc failing;
    try {
      arena.allocate(64, 8);
    } catch (const std::bad_alloc&) {
      threw = true;
    }
  }
  EXPECT_TRUE(threw);
  EXPECT_EQ(mappedTotal(), before);
  EXPECT_EQ(arena.chunks(), 0u);
  EXPECT_EQ(arena.mappedBytes(), 0u);
  EXPECT_NE(arena.allocate(64, 8), nullptr);
  EXPECT_EQ(arena.chunks(), 1u);
}

TEST(WorkArena, UnmapsEverythingWhenItEnds) {
  const std::size_t before = WorkArena::mappedInProcess();
  std::vector<unsigned char*> firsts;  // the first record of each chunk starts it
  {
    WorkArena arena;
    for (std::size_t i = 0; i < 3 * kClipsPerChunk; ++i) {
      unsigned char* at = static_cast<unsigned char*>(arena.allocate(sizeof(Clip), alignof(Clip)));
      if (i % kClipsPerChunk == 0) firsts.push_back(at);
    }
    unsigned char* large = static_cast<unsigned char*>(arena.allocate(5 * kChunk, 8));
    firsts.push_back(large);
    firsts.push_back(large + 5 * kChunk - 1);
    EXPECT_EQ(arena.chunks(), 4u);
    EXPECT_EQ(WorkArena::mappedInProcess(), before + 8 * kChunk);
    for (unsigned char* p : firsts) EXPECT_TRUE(isMapped(p));
  }
  EXPECT_EQ(WorkArena::mappedInProcess(), before);
  for (unsigned char* p : firsts) EXPECT_FALSE(isMapped(p));
}

// A chunk is mapped one block larger than asked and trimmed to a block
// boundary: what lies past its end is given back at once (the mapping always
// has some bytes there, a whole block when it came aligned), so a chunk
// keeps exactly its size mapped.
TEST(WorkArena, KeepsNothingMappedPastAChunksEnd) {
  for (int round = 0; round < 4; ++round) {
    WorkArena arena(kChunk, false);
    unsigned char* base = static_cast<unsigned char*>(arena.allocate(64, 8));
    ASSERT_TRUE(aligned(base, WorkArena::kBlock));
    EXPECT_EQ(arena.mappedBytes(), kChunk);
    EXPECT_TRUE(isMapped(base + kChunk - 1)) << round;
    EXPECT_FALSE(isMapped(base + kChunk)) << round;
  }
}

// A chunk keeps exactly its size mapped, whatever the alignment of what the
// kernel gave for it: the process's mappings grow by the chunk's size and
// no more, the block's worth mapped to align it given back before and after.
TEST(WorkArena, AChunkAddsExactlyItsSizeToTheProcesssMappings) {
  mappedTotal();  // whatever reading the list of mappings sets up is set up
  for (int round = 0; round < 4; ++round) {
    const unsigned long long before = mappedTotal();
    WorkArena arena(kChunk, false);
    arena.allocate(64, 8);
    EXPECT_EQ(mappedTotal() - before, kChunk) << round;
  }
}

// With no arena alive the process has nothing mapped for arenas; a chunk
// size of 0 means one block, also for an allocation of nothing; an
// alignment of 0 packs like an alignment of 1.
TEST(WorkArena, CountsFromNothingAndTakesZeroAsOneBlock) {
  EXPECT_EQ(WorkArena::mappedInProcess(), 0u);
  {
    WorkArena arena(0, false);
    EXPECT_NE(arena.allocate(0, 1), nullptr);
    EXPECT_EQ(arena.chunks(), 1u);
    EXPECT_EQ(arena.mappedBytes(), WorkArena::kBlock);
    EXPECT_EQ(WorkArena::mappedInProcess(), WorkArena::kBlock);
    arena.allocate(WorkArena::kBlock, 1);  // the rest of that block
    EXPECT_EQ(arena.chunks(), 1u);
    arena.allocate(0, 1);  // nothing still fits at the very end
    EXPECT_EQ(arena.chunks(), 1u);
    unsigned char* one = static_cast<unsigned char*>(arena.allocate(1, 0));  // alignment 0 means none
    EXPECT_EQ(arena.chunks(), 2u);
    EXPECT_EQ(arena.mappedBytes(), 2 * WorkArena::kBlock);
    EXPECT_EQ(static_cast<unsigned char*>(arena.allocate(3, 0)), one + 1);
  }
  EXPECT_EQ(WorkArena::mappedInProcess(), 0u);
}

TEST(WorkArena, FillsWholeBlocksOrSmallStepsAhead) {
  if (vorta_test::underEmulation()) GTEST_SKIP() << "user-mode emulation does not fill page tables on advice";
  WorkArena big;
  void* a = big.allocate(100, 8);
  EXPECT_EQ(residentKb(a), 2048);  // the first block, whole
  WorkArena small(WorkArena::kBlock, false);
  void* b = small.allocate(100, 8);
  EXPECT_EQ(residentKb(b), 64);
  small.allocate(64 << 10, 8);  // runs into the second step
  EXPECT_EQ(residentKb(b), 128);
}

}  // namespace
