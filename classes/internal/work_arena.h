// SPDX-License-Identifier: MIT
// vorta: memory for one large piece of work (a media scan), taken from the kernel in big chunks
// and given back whole when the work ends.
//
// A scan of a full medium holds several megabytes of records for a few tens of milliseconds.
// Taken from the heap, every page of that is faulted in one by one and, once the heap is
// trimmed, faulted in again by the next scan. The arena maps chunks of its own instead, asks
// for transparent huge pages where the kernel offers them, fills each 2 MB block's page
// tables in one call before it is used, and can hand blocks back behind a consumer that
// walks the records in the order they were allocated.
#ifndef VORTA_INTERNAL_WORK_ARENA_H
#define VORTA_INTERNAL_WORK_ARENA_H

#include <cstddef>
#include <new>
#include <vector>

namespace zev {
namespace detail {

class WorkArena {
 public:
  /// Block size: the unit of page filling and of release (a huge page on x86-64).
  static constexpr std::size_t kBlock = std::size_t(2) << 20;

  /// Page tables are filled this far at a time where huge pages are not asked for.
  static constexpr std::size_t kFillStep = std::size_t(64) << 10;

  /// An arena that maps chunks of at least `chunkBytes` (rounded up to whole blocks). With
  /// `hugePages` false it asks for no huge pages, so that a small arena costs no more memory
  /// than it hands out (a huge page is resident whole as soon as any of it is touched).
  explicit WorkArena(std::size_t chunkBytes = 2 * kBlock, bool hugePages = true);
  /// Unmaps every chunk.
  ~WorkArena();
  WorkArena(const WorkArena&) = delete;
  WorkArena& operator=(const WorkArena&) = delete;

  /// `bytes` bytes aligned to `align` (a power of two no larger than a page), zero unless
  /// they were taken back with deallocate and handed out again. Throws std::bad_alloc when
  /// the kernel refuses a new chunk.
  void* allocate(std::size_t bytes, std::size_t align);
  /// Takes back the most recent allocation so that its memory is used again; any other
  /// block is kept until the arena ends.
  void deallocate(void* p, std::size_t bytes) noexcept;
  /// Gives back to the kernel, in whole blocks, the memory allocated before `p`: every chunk
  /// mapped before the one holding `p`, and the blocks of that chunk that end at or before `p`.
  /// Memory given back must not be used again; later allocations are unaffected.
  void releaseBefore(const void* p) noexcept;

  /// Where `p` lies in the order of allocation: records sorted by it are walked in the
  /// order releaseBefore expects. Only for memory of this arena.
  std::size_t position(const void* p) const noexcept;

  /// Chunks mapped so far.
  std::size_t chunks() const { return chunks_.size(); }
  /// Bytes mapped and not yet given back.
  std::size_t mappedBytes() const;
  /// Bytes mapped by every arena of this process and not yet given back.
  static std::size_t mappedInProcess() noexcept;

 private:
  struct Chunk {
    unsigned char* base;   // block-aligned start of the mapping
    std::size_t size;      // its length, whole blocks
    std::size_t released;  // bytes given back from the start
  };
  void newChunk(std::size_t atLeast);
  void fillBlocksUpTo(unsigned char* end) noexcept;
  void unmap(Chunk& chunk) noexcept;

  std::size_t chunkBytes_;
  bool hugePages_;
  std::vector<Chunk> chunks_;
  unsigned char* top_ = nullptr;     // next free byte of the last chunk
  unsigned char* end_ = nullptr;     // end of the last chunk
  unsigned char* filled_ = nullptr;  // page tables of the last chunk are filled up to here
  void* last_ = nullptr;             // the most recent allocation
};

/// A standard allocator over a WorkArena, for containers that live no longer than the arena.
template <class T>
class WorkArenaAllocator {
 public:
  using value_type = T;
  explicit WorkArenaAllocator(WorkArena& arena) noexcept : arena_(&arena) {}
  template <class U>
  WorkArenaAllocator(const WorkArenaAllocator<U>& other) noexcept : arena_(other.arena()) {}

  T* allocate(std::size_t n) {
    if (n > static_cast<std::size_t>(-1) / sizeof(T)) throw std::bad_alloc();
    return static_cast<T*>(arena_->allocate(n * sizeof(T), alignof(T)));
  }
  void deallocate(T* p, std::size_t n) noexcept { arena_->deallocate(p, n * sizeof(T)); }
  WorkArena* arena() const noexcept { return arena_; }

  template <class U>
  bool operator==(const WorkArenaAllocator<U>& other) const noexcept {
    return arena_ == other.arena();
  }
  template <class U>
  bool operator!=(const WorkArenaAllocator<U>& other) const noexcept {
    return arena_ != other.arena();
  }

 private:
  WorkArena* arena_;
};

}  // namespace detail
}  // namespace zev

#endif
