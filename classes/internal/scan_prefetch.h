// SPDX-License-Identifier: MIT
// vorta: reading a medium's clips ahead of the scan, many reads at a time, so that each clip's
// intake finds what the movie reader reads of it in the page cache.
//
// The scan takes the media directory's entries one at a time, in directory order, and the
// movie reader waits for each of its small reads in turn: on a medium nothing of which is
// cached, the scan would wait for one read after another while the storage could serve many
// at once. A ScanPrefetch makes, for each clip candidate, exactly the reads the movie reader
// will make of it (a CQTReadSequence: the top-level atom headers, the 'moov', the 'moof'
// atoms of a fragmented movie, the timecode sample). The scan itself is unchanged: before
// each candidate's intake it calls ready(), which returns once that candidate's reads are in
// the page cache.
//
// At first only the candidate the scan is at is read, each read tried without waiting
// (RWF_NOWAIT): on a medium found cached there is nothing to gain, and fewer and fewer
// candidates are tried. The first read that has to wait for the storage starts the read-ahead
// proper: a directory stream of its own, in step with the scan's, from which up to kMaxFiles
// candidates after the scan's are read at once, their reads in flight together (and one file
// in a few still tried without waiting first, to notice where the medium is cached again).
//
// No thread is started. The reads go through io_uring where the kernel offers it; where it
// does not (an old kernel, io_uring refused by a seccomp filter or by the
// kernel.io_uring_disabled setting, an emulator), each read is announced with
// posix_fadvise(POSIX_FADV_WILLNEED) and made later, when the kernel has had the time to
// fetch it. Where neither helps, ready() does nothing.
//
// Bounded: at most kMaxFiles files are open and being read ahead, never more than the process
// can spare (one descriptor is always left for the intake); at most kMaxBytes of read buffers
// are held (a file whose next read would pass that is only announced to the kernel and left
// to the intake); a medium found already cached is probed one file in up to kMaxStride only.
// The read-ahead never makes the scan fail: whatever goes wrong in it (no memory, no
// descriptor, a read error), it gives up on a file or stops, and the intake meets the file
// as it would have.
#ifndef VORTA_INTERNAL_SCAN_PREFETCH_H
#define VORTA_INTERNAL_SCAN_PREFETCH_H

#include <dirent.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace zev {
namespace detail {

/// Whether the scan takes the entry at path as a clip candidate: the path holds ".mov" or
/// ".MOV" anywhere (a substring test, so a directory named media.mov makes every entry a
/// candidate). Neither mark holds a '/', so the test of directory/name is the test of the
/// directory or of the name.
bool isClipCandidate(const char* path);

class ScanPrefetch {
 public:
  /// How the reads are made.
  enum class Engine {
    Ring,    ///< io_uring: the reads themselves are queued
    Advice,  ///< posix_fadvise(WILLNEED) now, the read itself later
    Off,     ///< no reading ahead
  };

  /// Whether reads may go through io_uring on this processor. Not on 32-bit
  /// PowerPC: there, once a process has used a ring, a later blocking call
  /// of that process (a read of a pipe, say) can fail with ENOSYS instead of
  /// being restarted after the ring's task work interrupted it, which would
  /// break the caller's other work. That processor reads ahead with
  /// posix_fadvise.
#if defined(__powerpc__) && !defined(__powerpc64__)
  static constexpr bool kRingUsable = false;
#else
  static constexpr bool kRingUsable = true;
#endif
  /// Files read ahead at once.
  static constexpr unsigned kMaxFiles = 32;
  /// Read buffers held at once.
  static constexpr std::size_t kMaxBytes = 16u * 1024 * 1024;
  /// A medium found cached is probed one file in this many.
  static constexpr unsigned kMaxStride = 128;

  /// Starts reading ahead of a scan of directory, which the scan reads through `scanning`
  /// (its own stream, left where it is). Never throws; a read-ahead that cannot start is Off.
  ScanPrefetch(const std::string& directory, DIR* scanning) noexcept;
  ~ScanPrefetch();
  ScanPrefetch(const ScanPrefetch&) = delete;
  ScanPrefetch& operator=(const ScanPrefetch&) = delete;

  /// The scan is about to take its next clip candidate, `entry` of its directory stream:
  /// returns when the reads of it are done (or have been given up), with the reads of the
  /// candidates after it under way. Out of step with the scan (the directory changed under
  /// it), the read-ahead stops. Never throws.
  void ready(const struct dirent64& entry) noexcept;

  /// The engine the reads that have to wait go through: Ring until the ring, set up at the
  /// first of them, turns out to be missing; Off once the read-ahead has stopped.
  Engine engine() const;

  /// What the read-ahead has done so far, and what it holds now.
  struct Stats {
    unsigned long filesRead = 0;    ///< files whose reads were started
    unsigned long filesCached = 0;  ///< of those, files found already in the page cache
    unsigned long reads = 0;        ///< reads taken in hand, each a byte range the movie reader wants
    unsigned long long bytes = 0;   ///< bytes of those reads
    unsigned long leftToIntake =
        0;                      ///< reads too large to hold: only announced, their file left to the intake
    unsigned long probes = 0;   ///< reads tried without waiting when first issued
    unsigned long polls = 0;    ///< announced reads tried again without waiting
    unsigned long waits = 0;    ///< announced reads made waiting, the scan being at their file
    unsigned long advised = 0;  ///< reads announced with posix_fadvise(WILLNEED)
    unsigned long queued = 0;   ///< reads queued on the ring
    unsigned long completions = 0;        ///< ring completions taken
    unsigned long descriptorCounts = 0;   ///< times the descriptors the process can spare were counted
    unsigned inHand = 0, mostInHand = 0;  ///< candidates in hand now, and the most at once
    unsigned open = 0, mostOpen = 0;      ///< files open now, and the most at once
    unsigned openable = 1;                ///< files that may be open at once
    std::size_t held = 0, mostHeld = 0;   ///< bytes of read buffers held now, and the most at once
    unsigned inFlight = 0;                ///< ring reads not yet completed
    unsigned stride = 1;                  ///< on a medium found cached, one file in this many is probed
    bool readingAhead = false;            ///< the read-ahead proper (past the scan's file) has started
  };
  /// A snapshot of the figures above.
  Stats stats() const;

 private:
  struct State;
  std::unique_ptr<State> state_;
};

/// Test-only: the most a read-ahead may use. Ring (the default) lets it use io_uring where the
/// kernel offers it; Advice makes it take the fallback of a kernel without io_uring; Off turns
/// reading ahead off. The library never changes it.
extern ScanPrefetch::Engine scanPrefetchEngineHook;
/// Test-only: whether a file's reads are first tried without waiting (true, the default). False
/// sends every read through the engine, as on a medium nothing of which is cached, also where
/// everything is (a file system held in memory). The library never changes it.
extern bool scanPrefetchProbeHook;

}  // namespace detail
}  // namespace zev

#endif  // VORTA_INTERNAL_SCAN_PREFETCH_H
