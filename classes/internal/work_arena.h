// SPDX-License-Identifier: MIT
// vorta: memory for one large piece of work (a media scan), taken from the kernel in big chunks
// and given back whole when the work ends.
//
// A parse or a scan can hold megabytes of small records for a few milliseconds. Taken from
// the heap, every page of that is faulted in one by one and, once the heap is trimmed,
// faulted in again by the next piece of work. The arena maps chunks of its own instead, asks
// for transparent huge pages where the kernel offers them, and fills each 2 MB block's page
// tables in one call before it is used.
#ifndef VORTA_INTERNAL_WORK_ARENA_H
#define VORTA_INTERNAL_WORK_ARENA_H

#include <cstddef>
#include <new>
#include <vector>

namespace zev {
namespace detail {

class WorkArena {
 public:
  /// Block size: the unit of page filling (a huge page on x86-64).
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
  /// Chunks mapped so far.
  std::size_t chunks() const { return chunks_.size(); }
  /// Bytes mapped.
  std::size_t mappedBytes() const;
  /// Bytes mapped by every arena of this process.
  static std::size_t mappedInProcess() noexcept;

 private:
  struct Chunk {
    unsigned char* base;  // block-aligned start of the mapping
    std::size_t size;     // its length, whole blocks
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

}  // namespace detail
}  // namespace zev

#endif
