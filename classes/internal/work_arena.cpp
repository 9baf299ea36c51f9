// SPDX-License-Identifier: MIT
// vorta: memory for one large piece of work, mapped in block-aligned chunks and given back whole.
#include "internal/work_arena.h"

#include <sys/mman.h>

#include <atomic>
#include <cstdint>

// Linux 5.14 and later fill the page tables of a range in one call; an older
// kernel refuses the advice and the pages fault in as they are touched.
#ifndef MADV_POPULATE_WRITE
#define MADV_POPULATE_WRITE 23
#endif

namespace zev {
namespace detail {

namespace {

std::uintptr_t roundUp(std::uintptr_t value, std::uintptr_t unit) { return (value + unit - 1) / unit * unit; }

std::atomic<std::size_t> processMapped{0};  // bytes of every arena's chunks not yet given back

void giveBack(unsigned char* at, std::size_t bytes) noexcept {
  ::munmap(at, bytes);
  processMapped.fetch_sub(bytes, std::memory_order_relaxed);
}

}  // namespace

WorkArena::WorkArena(std::size_t chunkBytes, bool hugePages)
    : chunkBytes_(chunkBytes == 0 ? kBlock : static_cast<std::size_t>(roundUp(chunkBytes, kBlock))),
      hugePages_(hugePages) {}

WorkArena::~WorkArena() {
  for (Chunk& chunk : chunks_) unmap(chunk);
}

void WorkArena::newChunk(std::size_t atLeast) {
  if (atLeast > static_cast<std::size_t>(-1) - 2 * kBlock) throw std::bad_alloc();
  const std::size_t size =
      static_cast<std::size_t>(roundUp(atLeast > chunkBytes_ ? atLeast : chunkBytes_, kBlock));
  // One block more than needed, so that the usable range can start on a
  // block boundary, where the kernel can back it with huge pages.
  const std::size_t mapSize = size + kBlock;
  chunks_.reserve(chunks_.size() + 1);
  void* mapped = ::mmap(nullptr, mapSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (mapped == MAP_FAILED) throw std::bad_alloc();
  unsigned char* map = static_cast<unsigned char*>(mapped);
  unsigned char* base =
      reinterpret_cast<unsigned char*>(roundUp(reinterpret_cast<std::uintptr_t>(map), kBlock));
  // Trim the mapping to the usable range.
  if (base > map) ::munmap(map, static_cast<std::size_t>(base - map));
  if (map + mapSize > base + size)
    ::munmap(base + size, static_cast<std::size_t>(map + mapSize - (base + size)));
#ifdef MADV_HUGEPAGE
  if (hugePages_) ::madvise(base, size, MADV_HUGEPAGE);  // advice only: refused where there are none
#endif
  chunks_.push_back(Chunk{base, size});
  processMapped.fetch_add(size, std::memory_order_relaxed);
  top_ = base;
  end_ = base + size;
  filled_ = base;
  last_ = nullptr;
}

void WorkArena::fillBlocksUpTo(unsigned char* end) noexcept {
  const std::size_t step = hugePages_ ? kBlock : kFillStep;
  while (filled_ < end) {
    unsigned char* blockEnd = static_cast<std::size_t>(end_ - filled_) > step ? filled_ + step : end_;
    ::madvise(filled_, static_cast<std::size_t>(blockEnd - filled_), MADV_POPULATE_WRITE);
    filled_ = blockEnd;
  }
}

void* WorkArena::allocate(std::size_t bytes, std::size_t align) {
  if (align == 0) align = 1;
  unsigned char* at = nullptr;
  if (!chunks_.empty()) {
    at = reinterpret_cast<unsigned char*>(roundUp(reinterpret_cast<std::uintptr_t>(top_), align));
    if (at > end_ || bytes > static_cast<std::size_t>(end_ - at)) at = nullptr;
  }
  if (at == nullptr) {
    newChunk(bytes);
    at = top_;  // a new chunk starts on a block boundary: aligned for any page-sized alignment
  }
  top_ = at + bytes;
  fillBlocksUpTo(top_);
  last_ = at;
  return at;
}

void WorkArena::deallocate(void* p, std::size_t bytes) noexcept {
  if (p != nullptr && p == last_ && static_cast<unsigned char*>(p) + bytes == top_) {
    top_ = static_cast<unsigned char*>(p);
    last_ = nullptr;
  }
}

void WorkArena::unmap(Chunk& chunk) noexcept { giveBack(chunk.base, chunk.size); }

std::size_t WorkArena::mappedInProcess() noexcept { return processMapped.load(std::memory_order_relaxed); }

std::size_t WorkArena::mappedBytes() const {
  std::size_t bytes = 0;
  for (const Chunk& chunk : chunks_) bytes += chunk.size;
  return bytes;
}

}  // namespace detail
}  // namespace zev
