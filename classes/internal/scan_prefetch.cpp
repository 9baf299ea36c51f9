// SPDX-License-Identifier: MIT
// vorta: the read-ahead of a media scan over io_uring, or posix_fadvise where there is none (see
// scan_prefetch.h).
#include "internal/scan_prefetch.h"

#include <fcntl.h>
#include <liburing.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <vector>

#include "internal/regular_file.h"
#include "qtstreaming.h"

namespace zev {
namespace detail {

ScanPrefetch::Engine scanPrefetchEngineHook = ScanPrefetch::Engine::Ring;
bool scanPrefetchProbeHook = true;

bool isClipCandidate(const char* path) {
  return std::strstr(path, ".mov") != nullptr || std::strstr(path, ".MOV") != nullptr;
}

namespace {

// Probed files found cached in a row before the read-ahead starts skipping
// files; the gap between probed files then grows fourfold each time.
constexpr unsigned kCachedStreak = 4;
// While reading ahead on a medium found not cached, one file in this many is
// probed (the probe of a file that is not cached costs a read of its own).
constexpr unsigned kColdProbeEvery = 16;

/// How many more descriptors the process may open, counted up to most.
unsigned spareDescriptors(int fd, unsigned most) {
  std::vector<UniqueFd> taken;
  taken.reserve(most);
  while (taken.size() < most) {
    UniqueFd copy(::fcntl(fd, F_DUPFD_CLOEXEC, 0));
    if (!copy) break;
    taken.push_back(std::move(copy));
  }
  return static_cast<unsigned>(taken.size());
}

}  // namespace

/// One clip candidate of the directory, in the scan's order.
struct Slot {
  char name[256];  // the entry's name (NAME_MAX bytes at most)
  UniqueFd fd;
  std::unique_ptr<CQTReadSequence> reads;  // set while the file is being read ahead
  // The read under way: length bytes at offset into buffer, got of them so far.
  bool queued = false;  // submitted to the ring, or announced to the kernel
  uint64_t offset = 0;
  std::size_t length = 0, got = 0;
  unsigned char* buffer = nullptr;
  bool probe = true;  // the file's reads are first tried without waiting, which tells a cached file
  bool cold = false;  // a read of the file had to wait for the storage
  std::size_t held = 0;
};

struct ScanPrefetch::State {
  Engine engine = Engine::Off;
  int scanFd = -1;               // the scan's directory: files are opened relative to it
  bool markedDirectory = false;  // the directory's own path makes every entry a candidate
  // Reading ahead, once a file was found not cached, through a directory
  // stream of its own; until then, only the file the scan is at is probed.
  bool ahead = false;
  DIR* dir = nullptr;
  bool exhausted = false;  // that stream has ended
  io_uring ring;
  bool ringUp = false;  // set up at the first read that has to wait
  bool ringTried = false;
  unsigned inFlight = 0;    // ring reads submitted or prepared, not yet completed
  bool probesWork = true;   // reads without waiting (RWF_NOWAIT) are understood
  std::vector<Slot> slots;  // a circle of kMaxFiles slots, the scan's next candidates
  unsigned head = 0, count = 0;
  // Descriptors: files open at once at most (counted when more than one is
  // first wanted), and files open now.
  unsigned openable = 1, open = 0;
  bool openableCounted = false;
  std::size_t held = 0;  // read buffers of all files
  unsigned streak = 0, stride = 1, skip = 0;
  bool looksCached = true;  // the last file probed was cached
  unsigned sinceProbe = 0;
  Stats counted;  // the counters, and the most held at once; the rest is read off the state

  ~State() { stop(); }

  void start(const std::string& dirPath, DIR* scanning);
  void stop();
  void ready(const struct dirent64& entry);

 private:
  Slot& at(unsigned i) { return slots[(head + i) % kMaxFiles]; }
  unsigned spare(unsigned most) {
    ++counted.descriptorCounts;
    return spareDescriptors(scanFd, most);
  }
  unsigned indexOf(const Slot& slot) const { return static_cast<unsigned>(&slot - slots.data()); }

  void take(Slot& slot, const struct dirent64& entry, bool read);
  bool startAhead(const char* name);
  void fill();
  void startFile(Slot& slot, unsigned char type);
  bool mayOpen();
  bool startRead(Slot& slot);
  bool issue(Slot& slot, long& result, bool& probed);
  bool startRing();
  void launch(Slot& slot);
  void progress(Slot& slot, long result, bool probed);
  void finishFile(Slot& slot);
  void waitFor(Slot& slot);
  void harvest(bool wait);
  void poll();
};

void ScanPrefetch::State::start(const std::string& dirPath, DIR* scanning) {
  const Engine most = scanPrefetchEngineHook;
  if (most == Engine::Off || scanning == nullptr) return;
  scanFd = ::dirfd(scanning);
  // A file is probed only while the scan has a descriptor to spare for it.
  if (spare(1) < 1) return;
  markedDirectory = isClipCandidate(dirPath.c_str());
  probesWork = scanPrefetchProbeHook;
  // The ring is set up only once a read has to wait: a cached medium never
  // needs it.
  engine = most == Engine::Ring && kRingUsable ? Engine::Ring : Engine::Advice;
  slots.resize(kMaxFiles);
}

/// Sets up the ring for the reads that have to wait; false (and the
/// fallback from now on) where the kernel has none or refuses it.
bool ScanPrefetch::State::startRing() {
  if (ringUp) return true;
  if (!ringTried) {
    ringTried = true;
    // Its descriptor must not be the intake's.
    if (spare(2) == 2 && io_uring_queue_init(kMaxFiles, &ring, 0) == 0) {
      io_uring_probe* probe = io_uring_get_probe_ring(&ring);
      ringUp = probe != nullptr && io_uring_opcode_supported(probe, IORING_OP_READ);
      if (probe != nullptr) io_uring_free_probe(probe);
      if (!ringUp) io_uring_queue_exit(&ring);
    }
  }
  if (!ringUp) engine = Engine::Advice;
  return ringUp;
}

void ScanPrefetch::State::stop() {
  // Reads still under way write into the files' buffers: they end first
  // (those only prepared are submitted, so that their completions come).
  if (ringUp && inFlight > 0) io_uring_submit(&ring);
  while (inFlight > 0) {
    io_uring_cqe* cqe = nullptr;
    const int waited = io_uring_wait_cqe(&ring, &cqe);
    if (waited == -EINTR) continue;
    if (waited < 0) break;  // cannot happen with reads submitted; nothing more to wait for
    io_uring_cqe_seen(&ring, cqe);
    --inFlight;
    ++counted.completions;
  }
  // The slots stay (a caller may still refer to one); they are emptied.
  for (Slot& slot : slots) {
    slot.fd.reset();
    slot.reads.reset();
    slot.queued = false;
  }
  count = 0;
  held = 0;
  open = 0;
  if (ringUp) io_uring_queue_exit(&ring);
  ringUp = false;
  if (dir != nullptr) ::closedir(dir);
  dir = nullptr;
  engine = Engine::Off;
}

void ScanPrefetch::State::ready(const struct dirent64& entry) {
  if (!ahead) {
    // Only the file the scan is at, and on a cached medium only one in
    // stride of them: when it is cached, the scan goes on without more.
    if (skip > 0) {
      --skip;
      return;
    }
    skip = stride - 1;
    Slot& slot = at(0);
    take(slot, entry, true);
    if (!slot.reads) return;
    // It has to wait for the storage: from here on the files after it are
    // read ahead too, unless that cannot be (then this one is waited for).
    count = 1;
    counted.mostInHand = std::max(counted.mostInHand, count);
    ahead = startAhead(entry.d_name);
    if (ahead) fill();
  } else {
    harvest(false);
    fill();
    if (count == 0 || std::strcmp(at(0).name, entry.d_name) != 0) return stop();  // out of step
  }
  Slot& front = at(0);
  while (engine != Engine::Off && front.reads) waitFor(front);
  if (engine == Engine::Off) return;
  head = (head + 1) % kMaxFiles;
  --count;
  if (!ahead) return;
  fill();
  if (ringUp && io_uring_sq_ready(&ring) >= 8) io_uring_submit(&ring);
}

/// Opens a directory stream of the read-ahead's own, just past the entry
/// the scan is at; false when it cannot (no descriptor to spare, the entry
/// gone).
bool ScanPrefetch::State::startAhead(const char* name) {
  if (spare(2) < 2) return false;  // its descriptor must not be the intake's
  UniqueFd fd(::openat(scanFd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!fd) return false;
  dir = ::fdopendir(fd.get());
  if (dir == nullptr) return false;
  fd.release();  // the stream owns it now
  while (const struct dirent64* entry = ::readdir64(dir))
    if (std::strcmp(entry->d_name, name) == 0) return true;
  ::closedir(dir);
  dir = nullptr;
  return false;
}

/// The slot takes the entry, and starts reading it when asked to and a
/// descriptor is to spare (else the file is left to the intake).
void ScanPrefetch::State::take(Slot& slot, const struct dirent64& entry, bool read) {
  slot.queued = false;
  slot.probe = probesWork && (!ahead || looksCached || ++sinceProbe % kColdProbeEvery == 0);
  std::strncpy(slot.name, entry.d_name, sizeof slot.name - 1);
  slot.name[sizeof slot.name - 1] = '\0';
  if (read && mayOpen()) startFile(slot, entry.d_type);
}

/// Takes the stream's next candidates until kMaxFiles are in hand.
void ScanPrefetch::State::fill() {
  while (engine != Engine::Off && count < kMaxFiles && !exhausted) {
    const struct dirent64* entry = ::readdir64(dir);
    if (entry == nullptr) {
      exhausted = true;
      break;
    }
    if (entry->d_name[0] == '.') continue;
    if (!markedDirectory && !isClipCandidate(entry->d_name)) continue;
    // On a medium found cached, one in stride is read, the others are left
    // to the intake.
    const bool read = skip == 0;
    if (read)
      skip = stride - 1;
    else
      --skip;
    take(at(count++), *entry, read);
    counted.mostInHand = std::max(counted.mostInHand, count);
  }
}

/// Whether one more file may be open now; the first time more than one is
/// wanted, counts what the process can spare (keeping one descriptor for
/// the intake, and one for the ring while it is not set up).
bool ScanPrefetch::State::mayOpen() {
  if (open < openable) return true;
  if (openableCounted) return false;
  openableCounted = true;
  const unsigned keep = 1 + (engine == Engine::Ring && !ringUp ? 1 : 0);
  const unsigned spared = spare(kMaxFiles + keep);
  if (spared > keep) openable = std::min(open + spared - keep, kMaxFiles);
  return open < openable;
}

void ScanPrefetch::State::startFile(Slot& slot, unsigned char type) {
  slot.cold = !slot.probe;  // without a probe a cached file cannot be told
  slot.held = 0;
  // Only regular files are opened; the scan's own stat and the reader
  // refuse everything else without blocking on it.
  if (type != DT_REG) {
    struct stat64 info;
    if (::fstatat64(scanFd, slot.name, &info, 0) != 0 || !S_ISREG(info.st_mode)) return;
  }
  struct stat64 info;
  slot.fd = openRegularFileAt(scanFd, slot.name, O_RDONLY, 0, &info);
  if (!slot.fd) {
    // Short of descriptors: the intake needs them more.
    if (errno == EMFILE || errno == ENFILE) stop();
    return;
  }
  ++open;
  counted.mostOpen = std::max(counted.mostOpen, open);
  slot.reads.reset(new (std::nothrow) CQTReadSequence(static_cast<uint64_t>(info.st_size)));
  if (!slot.reads || slot.reads->Finished()) return finishFile(slot);
  ++counted.filesRead;
  launch(slot);
}

/// Takes the file's next read in hand; false when the file is finished (the
/// reader wants no more, or the read is too large to hold now).
bool ScanPrefetch::State::startRead(Slot& slot) {
  uint64_t offset;
  std::size_t length;
  if (!slot.reads->NextRead(offset, length)) {
    finishFile(slot);
    return false;
  }
  if (length > kMaxBytes - held) {
    // Too large to hold now: the kernel is told to fetch it, the intake reads it.
    ::posix_fadvise64(slot.fd.get(), static_cast<off64_t>(offset), static_cast<off64_t>(length),
                      POSIX_FADV_WILLNEED);
    ++counted.leftToIntake;
    finishFile(slot);
    return false;
  }
  unsigned char* buffer = slot.reads->ReadBuffer();
  if (buffer == nullptr) {
    finishFile(slot);
    return false;
  }
  held += length;
  counted.mostHeld = std::max(counted.mostHeld, held);
  ++counted.reads;
  counted.bytes += length;
  slot.held += length;
  slot.offset = offset;
  slot.length = length;
  slot.got = 0;
  slot.buffer = buffer;
  return true;
}

/// Sends the rest of the file's read on its way. True when it was made at
/// once (a probe of the page cache): result is then what it gave.
bool ScanPrefetch::State::issue(Slot& slot, long& result, bool& probed) {
  probed = slot.probe && probesWork;
  const uint64_t offset = slot.offset + slot.got;
  const std::size_t length = slot.length - slot.got;
  if (probed) {
    iovec span{slot.buffer + slot.got, length};
    const ssize_t got = ::preadv64v2(slot.fd.get(), &span, 1, static_cast<off64_t>(offset), RWF_NOWAIT);
    result = got < 0 ? -errno : got;
    ++counted.probes;
    return true;
  }
  if (engine == Engine::Ring && startRing()) {
    io_uring_sqe* sqe = io_uring_get_sqe(&ring);
    if (sqe == nullptr) {
      io_uring_submit(&ring);
      sqe = io_uring_get_sqe(&ring);
    }
    if (sqe == nullptr) {  // cannot happen: a file has one read under way at most
      result = -EBUSY;
      return true;
    }
    io_uring_prep_read(sqe, slot.fd.get(), slot.buffer + slot.got, static_cast<unsigned>(length), offset);
    io_uring_sqe_set_data64(sqe, indexOf(slot));
    slot.queued = true;
    ++inFlight;
    ++counted.queued;
    return false;
  }
  ::posix_fadvise64(slot.fd.get(), static_cast<off64_t>(offset), static_cast<off64_t>(length),
                    POSIX_FADV_WILLNEED);
  ++counted.advised;
  slot.queued = true;
  return false;
}

/// Starts the file's first read.
void ScanPrefetch::State::launch(Slot& slot) {
  if (!startRead(slot)) return;
  long result;
  bool probed;
  if (issue(slot, result, probed)) progress(slot, result, probed);
}

/// Carries the file on from what its read gave (bytes, or a negative errno)
/// to its next read under way, or to its end.
void ScanPrefetch::State::progress(Slot& slot, long result, bool probed) {
  for (;;) {
    slot.queued = false;
    bool again = true;  // the same read once more: its rest, or without a probe
    if (probed && result == -EAGAIN) {
      // Not in the page cache: wait for it, and probe this file no more.
      slot.cold = true;
      slot.probe = false;
      looksCached = false;
    } else if (probed && (result == -EOPNOTSUPP || result == -EINVAL || result == -ENOSYS)) {
      probesWork = false;
      slot.cold = true;
    } else if (result == -EINTR) {
    } else if (result > 0 && (slot.got += static_cast<std::size_t>(result)) < slot.length) {
    } else {
      again = false;
    }
    if (!again) {
      slot.reads->ReadDone(result > 0, result < 0 ? static_cast<int>(-result) : 0);
      if (!startRead(slot)) return;
    }
    if (!issue(slot, result, probed)) return;
  }
}

void ScanPrefetch::State::finishFile(Slot& slot) {
  if (slot.fd) {
    slot.fd.reset();
    --open;
  }
  const bool read = slot.reads != nullptr;
  slot.reads.reset();
  held -= slot.held;
  slot.held = 0;
  if (!read) return;
  // A medium found cached is probed less and less often, down to one file
  // in kMaxStride; one file that had to wait for the storage ends that.
  if (slot.cold) {
    streak = 0;
    stride = 1;
    skip = 0;
  } else {
    looksCached = true;
    ++counted.filesCached;
    if (++streak >= kCachedStreak) stride = std::min(stride * 4, kMaxStride);
  }
}

/// Waits until the file's read under way has been made.
void ScanPrefetch::State::waitFor(Slot& slot) {
  if (!slot.queued) return finishFile(slot);  // nothing under way: cannot happen
  if (ringUp) return harvest(true);
  // Announced long ago, so likely fetched by now.
  const ssize_t got = ::pread64(slot.fd.get(), slot.buffer + slot.got, slot.length - slot.got,
                                static_cast<off64_t>(slot.offset + slot.got));
  ++counted.waits;
  progress(slot, got < 0 ? -errno : got, false);
  poll();
}

/// Takes the ring's completed reads, after waiting for one when wait is set.
void ScanPrefetch::State::harvest(bool wait) {
  if (!ringUp) return poll();
  io_uring_cqe* cqe = nullptr;
  if (wait) {
    const int waited = io_uring_submit_and_wait(&ring, 1);
    if (waited < 0 && waited != -EINTR) return stop();
  }
  while (ringUp && io_uring_peek_cqe(&ring, &cqe) == 0) {
    const uint64_t slot = io_uring_cqe_get_data64(cqe);
    const long result = cqe->res;
    io_uring_cqe_seen(&ring, cqe);
    --inFlight;
    ++counted.completions;
    progress(slots[slot], result, false);
  }
}

/// Without the ring: makes the announced reads that have been fetched, in
/// the order they were announced, up to the first that has not.
void ScanPrefetch::State::poll() {
  if (ringUp || !probesWork) return;
  for (unsigned i = 0; i < count; ++i) {
    Slot& slot = at(i);
    if (!slot.queued) continue;
    iovec span{slot.buffer + slot.got, slot.length - slot.got};
    const ssize_t got =
        ::preadv64v2(slot.fd.get(), &span, 1, static_cast<off64_t>(slot.offset + slot.got), RWF_NOWAIT);
    if (got < 0 && errno == EAGAIN) return;
    ++counted.polls;
    progress(slot, got < 0 ? -errno : got, false);
  }
}

ScanPrefetch::ScanPrefetch(const std::string& directory, DIR* scanning) noexcept {
  try {
    state_.reset(new State);
    state_->start(directory, scanning);
  } catch (const std::bad_alloc&) {
    state_.reset();
  }
}

ScanPrefetch::~ScanPrefetch() = default;

void ScanPrefetch::ready(const struct dirent64& entry) noexcept {
  if (!state_ || state_->engine == Engine::Off) return;
  try {
    state_->ready(entry);
  } catch (const std::bad_alloc&) {
    state_->stop();
  }
}

ScanPrefetch::Engine ScanPrefetch::engine() const { return state_ ? state_->engine : Engine::Off; }

ScanPrefetch::Stats ScanPrefetch::stats() const {
  if (!state_) return Stats();
  const State& state = *state_;
  Stats now = state.counted;
  now.inHand = state.count;
  now.open = state.open;
  now.openable = state.openable;
  // The buffers the files' read sequences hold, which a file gives back as
  // its sequence ends.
  for (const Slot& slot : state.slots)
    if (slot.reads) now.held += slot.held;
  now.inFlight = state.inFlight;
  now.stride = state.stride;
  now.readingAhead = state.ahead;
  return now;
}

}  // namespace detail
}  // namespace zev
