// SPDX-License-Identifier: MIT
// vorta: the shared clip and playlist cache images, their locks, and the playlist file reader.
#include "media_cache.h"

#include <cjson/cJSON.h>
#include <dirent.h>
#include <fcntl.h>
#include <libgen.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <boost/interprocess/exceptions.hpp>
#include <boost/interprocess/mapped_region.hpp>
#include <boost/interprocess/permissions.hpp>
#include <boost/interprocess/sync/scoped_lock.hpp>
#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <functional>
#include <limits>
#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "fileparams.h"
#include "internal/cache_lock.h"
#include "internal/regular_file.h"
#include "internal/scan_prefetch.h"
#include "internal/work_arena.h"
#include "media_attributes.h"
#include "productid.h"
#include "zevqtfileparams.h"

namespace bip = boost::interprocess;

namespace zev {
namespace media {

Playlist::~Playlist() = default;

const char* const MediaCache::kAllClipsName = "All Clips";

namespace {

const char kClipMagic[] = "SharedClipCache";
const char kPlaylistMagic[] = "SharedPlaylistCache";
static_assert(sizeof kClipMagic == MediaCache::kClipMagicSize + 1, "clip magic and its NUL");
static_assert(sizeof kPlaylistMagic == MediaCache::kPlaylistMagicSize + 1, "playlist magic and its NUL");
static_assert(sizeof(Clip) == MediaCache::kClipSlotSize, "a clip slot holds a whole record");
static_assert(sizeof(PlaylistCacheEntry) == MediaCache::kPlaylistSlotSize,
              "a playlist slot holds a whole entry");

// Only the first line of a playlist file is parsed, and at most this many
// characters of it (a read buffer of 0x85000 bytes).
constexpr std::size_t kFirstLineLimit = 544767;
// Nothing beyond the first line's limit (and the 49216 bytes of text kept)
// can change what a playlist file yields, so a file is read only this far:
// a huge file costs no more memory than a long one.
constexpr std::size_t kPlaylistReadLimit = kFirstLineLimit + 1;
static_assert(kPlaylistReadLimit >= PlaylistCacheEntry::kTextSize, "the kept text is always read whole");

// "All Clips" text longer than this is refused: it must fit the text field
// with its terminator.
constexpr std::size_t kAllClipsTextLimit = PlaylistCacheEntry::kTextSize - 1;

bip::permissions permissionsOf(const MediaCacheOptions& options) {
  bip::permissions perm;
  perm.set_permissions(static_cast<int>(options.permissions));
  return perm;
}

bip::shared_memory_object openSegment(const MediaCacheOptions& options, const std::string& name) {
  if (options.create)
    return bip::shared_memory_object(bip::open_or_create, name.c_str(), bip::read_write,
                                     permissionsOf(options));
  return bip::shared_memory_object(bip::open_only, name.c_str(), bip::read_write);
}

// The name of a named mutex that exists once this returns; created when
// missing if the options create the cache, otherwise its absence throws. An
// existing one is opened without asking to create it: creating makes the C
// library build the semaphore in a temporary file in shared memory and link
// it into place, even when the name exists already, and a process killed in
// between leaves that file behind for good.
const char* existingMutex(const MediaCacheOptions& options, const std::string& name) {
  try {
    bip::named_mutex existing(bip::open_only, name.c_str());
    return name.c_str();
  } catch (const bip::interprocess_exception&) {
    if (!options.create) throw;
  }
  bip::named_mutex created(bip::open_or_create, name.c_str(), permissionsOf(options));
  return name.c_str();
}

[[noreturn]] void throwSizeError(const std::string& message) {
  throw bip::interprocess_exception(bip::error_info(bip::size_error), message.c_str());
}

// Bytes of an image of `count` slots, refused when this machine could not map it.
std::uint64_t segmentBytes(std::size_t count, std::size_t header, std::size_t slot, const char* what) {
  const std::uint64_t limit =
      std::min<std::uint64_t>(std::numeric_limits<std::size_t>::max() / 2,
                              static_cast<std::uint64_t>(std::numeric_limits<bip::offset_t>::max()));
  if (count > (limit - header) / slot)
    throwSizeError(std::string("MediaCache: the ") + what + " segment would be too large to map");
  return header + static_cast<std::uint64_t>(slot) * count;
}

// Holds a cache's lock for one scope.
class Held {
 public:
  explicit Held(detail::CacheLock& lock) : lock_(lock) { tookOver_ = lock_.lock(); }
  ~Held() { lock_.unlock(); }
  Held(const Held&) = delete;
  Held& operator=(const Held&) = delete;
  bool tookOver() const { return tookOver_; }

 private:
  detail::CacheLock& lock_;
  bool tookOver_ = false;
};

// Grows a segment to at least `bytes` under its lock, so that no other
// process is inside an image while its size changes. Never shrinks it.
void ensureSize(bip::shared_memory_object& segment, detail::CacheLock& lock, std::uint64_t bytes) {
  Held held(lock);
  bip::offset_t size = 0;
  if (!segment.get_size(size)) size = 0;
  if (static_cast<std::uint64_t>(size) < bytes) segment.truncate(static_cast<bip::offset_t>(bytes));
}

std::uint64_t sizeOf(const bip::shared_memory_object& segment) {
  bip::offset_t size = 0;
  if (!segment.get_size(size)) return 0;
  return static_cast<std::uint64_t>(size);
}

// Runs work(base, size) on the whole segment mapped read-write, holding the
// cache's lock from before the mapping until after the unmapping. The
// mapping is made for this one call, on the handle already open.
template <class Work>
auto withImage(bip::shared_memory_object& segment, detail::CacheLock& lock, Work work) {
  Held held(lock);
  bip::mapped_region region(segment, bip::read_write, 0, 0);
  return work(static_cast<unsigned char*>(region.get_address()),
              static_cast<std::uint64_t>(region.get_size()));
}

MediaCache::LockState lockStateOf(detail::CacheLock& lock) {
  const detail::CacheLock::State found = lock.state();
  MediaCache::LockState state;
  switch (found.kind) {
    case detail::CacheLock::State::Free:
      state.kind = MediaCache::LockState::Free;
      break;
    case detail::CacheLock::State::Held:
      state.kind = MediaCache::LockState::Held;
      break;
    case detail::CacheLock::State::LeftHeld:
      state.kind = MediaCache::LockState::LeftHeld;
      break;
    case detail::CacheLock::State::Unknown:
      state.kind = MediaCache::LockState::Unknown;
      break;
  }
  state.pid = found.holder.pid;
  state.program = found.holder.program;
  state.heldSeconds = found.holder.heldSeconds;
  state.waiter = found.waiter;
  state.endedMidway = found.endedMidway;
  state.recordValid = found.holder.recordValid;
  state.takeovers = found.takeovers;
  state.mutexMode = found.mutexMode;
  return state;
}

// How a cache's lock waits, as the options ask.
detail::CacheLock::Waiting waitingOf(const MediaCacheOptions& options, const std::string& segment,
                                     bool playlist) {
  detail::CacheLock::Waiting waiting;
  waiting.timeoutSeconds = options.lockTimeout;
  if (options.onLockWait) {
    const std::function<void(const LockWait&)> tell = options.onLockWait;
    waiting.notice = [tell, segment, playlist](const detail::CacheLock::Holder& holder, double waited,
                                               bool timedOut) {
      LockWait wait;
      wait.cache = segment;
      wait.playlist = playlist;
      wait.pid = holder.pid;
      wait.program = holder.program;
      wait.heldSeconds = holder.heldSeconds;
      wait.waitedSeconds = waited;
      wait.timedOut = timedOut;
      tell(wait);
    };
  }
  return waiting;
}

// Takes the pages of the first `bytes` of a segment before they are written, so that a full
// /dev/shm is an exception here rather than SIGBUS at the first store.
void reserve(const bip::shared_memory_object& segment, std::uint64_t bytes) {
  const int fd = segment.get_mapping_handle().handle;
  if (::fallocate(fd, 0, 0, static_cast<off_t>(bytes)) != 0 && errno != EOPNOTSUPP) {
    const int error = errno;
    throw bip::interprocess_exception(
        bip::error_info(error),
        (std::string("MediaCache: no room in shared memory for the image: ") + std::strerror(error)).c_str());
  }
}

// Linux 5.14 and later fill the page tables of a range in one call, which
// costs far less than taking a fault on every page of an image; an older
// kernel refuses the advice and the pages fault in as they are touched.
#ifndef MADV_POPULATE_READ
#define MADV_POPULATE_READ 22
#endif
#ifndef MADV_POPULATE_WRITE
#define MADV_POPULATE_WRITE 23
#endif
// False when the kernel says a page of the range cannot be had: a page of a
// segment that was never written is allocated when it is first read, and on
// a /dev/shm with no room left that read would end the process with SIGBUS.
// True where the kernel does not take the advice (nothing is known then).
bool prefault(const unsigned char* base, std::uint64_t bytes, bool forWriting) {
  static const std::uintptr_t page = static_cast<std::uintptr_t>(sysconf(_SC_PAGESIZE));
  const std::uintptr_t start = reinterpret_cast<std::uintptr_t>(base) & ~(page - 1);
  const std::uintptr_t end = reinterpret_cast<std::uintptr_t>(base) + static_cast<std::uintptr_t>(bytes);
  if (::madvise(reinterpret_cast<void*>(start), end - start,
                forWriting ? MADV_POPULATE_WRITE : MADV_POPULATE_READ) == 0)
    return true;
  return errno != EFAULT && errno != ENOMEM;
}

// The result of a read that cannot have the segment's pages: no image.
int unreadableImage(const char* reader) {
  std::fprintf(stderr,
               "%s: the segment's pages cannot be read (no room left in shared memory); image ignored\n",
               reader);
  return 0;
}

std::uint32_t loadCount(const unsigned char* at) {
  std::uint32_t count;
  std::memcpy(&count, at, sizeof count);
  return count;
}

void storeCount(unsigned char* at, std::uint32_t count) { std::memcpy(at, &count, sizeof count); }

// A clip the scan has taken, held until the catalogue is written: only the
// bytes of its record that can be other than zero. A record is 6,536 bytes,
// most of them the padding of its name and attribute fields; a typical clip
// stages a few hundred. Followed in memory by kFieldsSize bytes of the
// record's fields from modTime to playable, nameBytes bytes of the name
// field and attributeBytes bytes of the attribute block; every other byte of
// the record is zero.
struct StagedClip {
  std::int32_t modTime;  // the catalogue's order
  std::uint16_t nameBytes;
  std::uint16_t attributeBytes;

  static constexpr std::size_t kFieldsAt = offsetof(Clip, modTime);
  static constexpr std::size_t kFieldsSize = offsetof(Clip, attributes) - kFieldsAt;
  static constexpr std::size_t kAttributesAt = offsetof(Clip, attributes);
  static constexpr std::size_t kAttributesSize = sizeof(zev::media::MediaAttributes);
  static_assert(Clip::kNameSize <= 0xFFFF && kAttributesSize <= 0xFFFF, "field lengths fit 16 bits");
  static_assert(kAttributesAt + kAttributesSize == Clip::kStoredSize, "the attribute block ends the record");

  const unsigned char* bytes() const { return reinterpret_cast<const unsigned char*>(this + 1); }

  // The bytes of field to stage: the intake leaves a text followed by
  // zeros, and only the text is staged. Should anything follow it, the whole
  // field is, so that the record is kept exactly whatever it holds.
  static std::size_t usedBytes(const unsigned char* field, std::size_t size) {
    static const unsigned char kZeros[Clip::kNameSize] = {};
    static_assert(kAttributesSize <= sizeof kZeros, "the zeros cover every field");
    const std::size_t text = strnlen(reinterpret_cast<const char*>(field), size);
    return std::memcmp(field + text, kZeros, size - text) == 0 ? text : size;
  }

  // Stages record in the arena, then zeroes what it staged of it: a record
  // that was all zero before it was filled is all zero again.
  static const StagedClip* stage(Clip& record, detail::WorkArena& arena) {
    unsigned char* raw = reinterpret_cast<unsigned char*>(&record);
    const std::size_t nameBytes = usedBytes(raw, Clip::kNameSize);
    const std::size_t attributeBytes = usedBytes(raw + kAttributesAt, kAttributesSize);
    const std::size_t size = sizeof(StagedClip) + kFieldsSize + nameBytes + attributeBytes;
    StagedClip* staged = new (arena.allocate(size, alignof(StagedClip))) StagedClip();
    staged->modTime = record.modTime;
    staged->nameBytes = static_cast<std::uint16_t>(nameBytes);
    staged->attributeBytes = static_cast<std::uint16_t>(attributeBytes);
    unsigned char* out = reinterpret_cast<unsigned char*>(staged + 1);
    std::memcpy(out, raw + kFieldsAt, kFieldsSize);
    std::memcpy(out + kFieldsSize, raw, nameBytes);
    std::memcpy(out + kFieldsSize + nameBytes, raw + kAttributesAt, attributeBytes);
    std::memset(raw, 0, nameBytes);
    std::memset(raw + kFieldsAt, 0, kFieldsSize);
    std::memset(raw + kAttributesAt, 0, attributeBytes);
    return staged;
  }

  // The record's first Clip::kStoredSize bytes, at slot.
  void store(unsigned char* slot) const {
    const unsigned char* in = bytes();
    std::memcpy(slot + kFieldsAt, in, kFieldsSize);
    std::memcpy(slot, in + kFieldsSize, nameBytes);
    std::memset(slot + nameBytes, 0, Clip::kNameSize - nameBytes);
    std::memcpy(slot + kAttributesAt, in + kFieldsSize + nameBytes, attributeBytes);
    std::memset(slot + kAttributesAt + attributeBytes, 0, kAttributesSize - attributeBytes);
  }
};

// Writes a playlist image of `count` entries under the playlist lock:
// fill(slots) stores entry i whole at slots + i * kPlaylistSlotSize. Throws
// interprocess_exception, before touching the segment, when the image would
// not fit.
template <class Fill>
int writePlaylistImage(bip::shared_memory_object& segment, detail::CacheLock& lock, std::uint64_t count,
                       Fill fill) {
  return withImage(segment, lock, [&](unsigned char* base, std::uint64_t size) {
    const std::uint64_t needed = MediaCache::PlaylistImageSize(count);
    if (count > std::numeric_limits<std::uint32_t>::max() || needed > size)
      throwSizeError("WritePlaylistCacheToSharedMemory: " + std::to_string(count) + " playlists need " +
                     std::to_string(needed) + " bytes but the segment holds " + std::to_string(size));

    reserve(segment, needed);
    prefault(base, needed, true);
    // Invalidated first, magic last, as for the clip image.
    base[0] = '*';
    std::atomic_signal_fence(std::memory_order_seq_cst);
    storeCount(base + MediaCache::kPlaylistMagicSize, static_cast<std::uint32_t>(count));
    fill(base + MediaCache::kPlaylistHeaderSize);
    std::atomic_signal_fence(std::memory_order_seq_cst);
    std::memcpy(base, kPlaylistMagic, MediaCache::kPlaylistMagicSize);
    return 1;
  });
}

// Hands each of count records at slots to visit, in order, as a copy: the
// visit never sees the shared bytes themselves, which another process may
// rewrite once the lock is released.
void visitRecords(const unsigned char* slots, std::uint64_t count, const std::function<void(Clip&)>& visit) {
  std::unique_ptr<Clip> record(new Clip());
  const unsigned char* slot = slots;
  for (std::uint64_t i = 0; i < count; ++i, slot += MediaCache::kClipSlotSize) {
    std::memcpy(static_cast<void*>(record.get()), slot, MediaCache::kClipSlotSize);
    visit(*record);
  }
}

// How many of the first of count records at slots are already those
// record() gives. record(i, out) stores record i's first Clip::kStoredSize
// bytes at out. Each record found in place is handed to visit, when there is
// one, as a copy with the slot's padding: the record the image holds.
template <class Record>
std::uint64_t recordsInPlace(const unsigned char* slots, std::uint64_t count, Record& record,
                             const std::function<void(Clip&)>& visit) {
  std::unique_ptr<Clip> scratch(new Clip());
  unsigned char* out = reinterpret_cast<unsigned char*>(scratch.get());
  const unsigned char* slot = slots;
  std::uint64_t same = 0;
  for (; same < count; ++same, slot += MediaCache::kClipSlotSize) {
    record(same, out);
    if (std::memcmp(out, slot, Clip::kStoredSize) != 0) break;
    if (!visit) continue;
    std::memcpy(out + Clip::kStoredSize, slot + Clip::kStoredSize,
                MediaCache::kClipSlotSize - Clip::kStoredSize);
    visit(*scratch);
  }
  return same;
}

// Writes a clip image of `count` records under the clip lock: record(i,
// slot) stores record i's first Clip::kStoredSize bytes at slot, for i
// never decreasing from one call to the next (it may repeat). The last 3
// bytes of a slot (the record's padding) are never written. Throws
// interprocess_exception, before touching the segment, when the image would
// not fit.
//
// When there is a visit, it is handed each record of the image, in order,
// under the same hold of the lock: a record found in place when it is
// compared, one written once the image is whole. The visit must not throw
// (ScanMedia hands one that keeps its exception for later).
//
// The records already in place are not written again: a catalogue rewritten
// with what it holds (a medium scanned again unchanged) costs reading the
// image instead of writing it, and stays valid for readers throughout.
template <class Record>
int writeClipImage(bip::shared_memory_object& segment, detail::CacheLock& lock, std::uint64_t count,
                   Record record, const std::function<void(Clip&)>& visit = nullptr) {
  return withImage(segment, lock, [&](unsigned char* base, std::uint64_t size) {
    const std::uint64_t needed = MediaCache::ClipImageSize(count);
    if (count > std::numeric_limits<std::uint32_t>::max() || needed > size)
      throwSizeError("WriteClipCacheToSharedMemory: " + std::to_string(count) + " clips need " +
                     std::to_string(needed) + " bytes but the segment holds " + std::to_string(size));

    // The image in place is read only where its pages can be had (a page
    // never written, on a full /dev/shm, would be SIGBUS when read), and
    // every page is had before anything is written: a full /dev/shm is an
    // exception here, not SIGBUS later.
    unsigned char* const slots = base + MediaCache::kClipHeaderSize;
    const bool holdsCount = prefault(base, MediaCache::kClipHeaderSize, false) &&
                            std::memcmp(base, kClipMagic, MediaCache::kClipMagicSize) == 0 &&
                            loadCount(base + MediaCache::kClipMagicSize) == count &&
                            prefault(base, needed, false);
    const std::uint64_t same = holdsCount ? recordsInPlace(slots, count, record, visit) : 0;
    if (holdsCount && same == count) return 1;
    reserve(segment, needed);
    // The image is invalidated first and its magic put in last, so that a
    // writer that dies half-way leaves an invalid image, never a torn one.
    // The final bytes are those of the magic with its NUL followed by the
    // count, which lands on that NUL.
    prefault(base, MediaCache::kClipHeaderSize, true);
    base[0] = '*';
    std::atomic_signal_fence(std::memory_order_seq_cst);
    storeCount(base + MediaCache::kClipMagicSize, static_cast<std::uint32_t>(count));
    constexpr std::uint64_t kWindow = 64;  // slots whose pages are filled in one call
    for (std::uint64_t i = same; i < count; ++i) {
      unsigned char* slot = slots + i * MediaCache::kClipSlotSize;
      if ((i - same) % kWindow == 0)
        prefault(slot, std::min(kWindow, count - i) * MediaCache::kClipSlotSize, true);
      record(i, slot);
    }
    std::atomic_signal_fence(std::memory_order_seq_cst);
    std::memcpy(base, kClipMagic, MediaCache::kClipMagicSize);
    if (visit) visitRecords(slots + same * MediaCache::kClipSlotSize, count - same, visit);
    return 1;
  });
}

// The POSIX base name of a path: the last component, trailing slashes
// ignored; "/" for a path of slashes and "." for an empty one.
std::string baseName(const std::string& path) {
  if (path.empty()) return ".";
  const std::string::size_type end = path.find_last_not_of('/');
  if (end == std::string::npos) return "/";
  const std::string::size_type slash = path.rfind('/', end);
  const std::string::size_type start = slash == std::string::npos ? 0 : slash + 1;
  return path.substr(start, end + 1 - start);
}

std::string boundedString(const char* field, std::size_t size) {
  return std::string(field, strnlen(field, size));
}

// Copies text into a field with a bound of the field's size: the rest of
// the field is zeroed, and text of full length is not terminated.
void boundedCopy(char* field, std::size_t size, const char* text) {
  const std::size_t length = strnlen(text, size);
  std::memcpy(field, text, length);
  std::memset(field + length, 0, size - length);
}

// Reads exactly `wanted` bytes; false when the file ends early or fails.
bool readFully(int fd, char* buffer, std::size_t wanted) {
  std::size_t done = 0;
  while (done < wanted) {
    const ssize_t got = ::read(fd, buffer + done, wanted - done);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return false;
    done += static_cast<std::size_t>(got);
  }
  return true;
}

struct JsonTree {
  explicit JsonTree(cJSON* tree) : json(tree) {}
  ~JsonTree() { cJSON_Delete(json); }
  JsonTree(const JsonTree&) = delete;
  JsonTree& operator=(const JsonTree&) = delete;
  cJSON* json;
};

}  // namespace

MediaCacheOptions MediaCacheOptions::named(const std::string& prefix) {
  MediaCacheOptions options;
  options.clipSegment = prefix + ".clips";
  options.clipLock = prefix + ".clips.lock";
  options.playlistSegment = prefix + ".playlists";
  options.playlistLock = prefix + ".playlists.lock";
  return options;
}

MediaCache::MediaCache() : MediaCache(MediaCacheOptions()) {}

MediaCache::MediaCache(const MediaCacheOptions& options)
    : clipSegment_(openSegment(options, options.clipSegment)),
      clipLock_(bip::open_only, existingMutex(options, options.clipLock)),
      playlistSegment_(openSegment(options, options.playlistSegment)),
      playlistLock_(bip::open_only, existingMutex(options, options.playlistLock)) {
  // A cache being created gets the options' permissions on its mutexes too, whatever the umask.
  if (options.create) {
    detail::CacheLock::setMode(options.clipLock, options.permissions);
    detail::CacheLock::setMode(options.playlistLock, options.permissions);
  }
  clipGuard_.reset(new detail::CacheLock(options.clipLock, options.clipSegment,
                                         waitingOf(options, options.clipSegment, false)));
  playlistGuard_.reset(new detail::CacheLock(options.playlistLock, options.playlistSegment,
                                             waitingOf(options, options.playlistSegment, true)));
  if (options.create) {
    ensureSize(clipSegment_, *clipGuard_,
               segmentBytes(options.maxClips, kClipHeaderSize, kClipSlotSize, "clip"));
    ensureSize(playlistSegment_, *playlistGuard_,
               segmentBytes(options.maxPlaylists, kPlaylistHeaderSize, kPlaylistSlotSize, "playlist"));
  }
}

// Members close in reverse order: the lock records, then the playlist
// lock's semaphore, the playlist segment, the clip lock's semaphore, the
// clip segment. Nothing is removed from the system.
MediaCache::~MediaCache() = default;

int MediaCache::Remove(const MediaCacheOptions& options) {
  int removed = 0;
  if (bip::shared_memory_object::remove(options.clipSegment.c_str())) ++removed;
  if (bip::named_mutex::remove(options.clipLock.c_str())) ++removed;
  if (bip::shared_memory_object::remove(options.playlistSegment.c_str())) ++removed;
  if (bip::named_mutex::remove(options.playlistLock.c_str())) ++removed;
  return removed;
}

std::uint64_t MediaCache::ClipImageSize(std::uint64_t clips) {
  return kClipHeaderSize + kClipSlotSize * clips;
}

std::uint64_t MediaCache::PlaylistImageSize(std::uint64_t playlists) {
  return kPlaylistHeaderSize + kPlaylistSlotSize * playlists;
}

std::uint64_t MediaCache::ClipSegmentSize() const { return sizeOf(clipSegment_); }

std::uint64_t MediaCache::PlaylistSegmentSize() const { return sizeOf(playlistSegment_); }

// ---------------------------------------------------------------- clip cache

int MediaCache::WriteClipCacheToSharedMemory(std::list<Clip> clips) {
  auto at = clips.cbegin();
  std::uint64_t index = 0;
  return writeClipImage(clipSegment_, *clipGuard_, clips.size(), [&](std::uint64_t i, unsigned char* out) {
    for (; index < i; ++index) ++at;
    std::memcpy(out, &*at, Clip::kStoredSize);
  });
}

int MediaCache::ReadClipCacheFromSharedMemory(std::list<Clip>& clips) {
  // Nothing is visited unless the image is valid: the list is then unchanged.
  return VisitClips([&clips](Clip& clip) { clips.push_back(clip); });
}

int MediaCache::VisitClips(const std::function<void(Clip&)>& visit) {
  return withImage(clipSegment_, *clipGuard_, [&visit](const unsigned char* base, std::uint64_t size) {
    if (!prefault(base, std::min<std::uint64_t>(size, kClipHeaderSize), false))
      return unreadableImage("ReadClipCacheFromSharedMemory");
    if (size < kClipMagicSize || std::memcmp(base, kClipMagic, kClipMagicSize) != 0) return 0;
    if (size < kClipHeaderSize) {
      std::fprintf(
          stderr,
          "ReadClipCacheFromSharedMemory: segment of %llu bytes is too small for an image; image ignored\n",
          static_cast<unsigned long long>(size));
      return 0;
    }
    // The count comes from another process: the image must hold it whole.
    const std::uint32_t count = loadCount(base + kClipMagicSize);
    if (ClipImageSize(count) > size) {
      std::fprintf(stderr,
                   "ReadClipCacheFromSharedMemory: stored count %lu runs past the segment of %llu bytes; "
                   "image ignored\n",
                   static_cast<unsigned long>(count), static_cast<unsigned long long>(size));
      return 0;
    }
    if (!prefault(base, ClipImageSize(count), false)) return unreadableImage("ReadClipCacheFromSharedMemory");
    visitRecords(base + kClipHeaderSize, count, visit);
    return 1;
  });
}

void MediaCache::FlushClips() {
  withImage(clipSegment_, *clipGuard_, [this](unsigned char* base, std::uint64_t) {
    reserve(clipSegment_, 1);
    base[0] = '*';
    return 0;
  });
}

void MediaCache::FlushPlaylists() {
  withImage(playlistSegment_, *playlistGuard_, [this](unsigned char* base, std::uint64_t) {
    reserve(playlistSegment_, 1);
    base[0] = '*';
    return 0;
  });
}

void MediaCache::Flush() {
  FlushClips();
  FlushPlaylists();
}

int MediaCache::Destroy() { return 1; }

void MediaCache::HoldClipLock(const std::function<void()>& work) {
  withImage(clipSegment_, *clipGuard_, [&work](unsigned char*, std::uint64_t) {
    work();
    return 0;
  });
}

void MediaCache::HoldPlaylistLock(const std::function<void()>& work) {
  withImage(playlistSegment_, *playlistGuard_, [&work](unsigned char*, std::uint64_t) {
    work();
    return 0;
  });
}

MediaCache::LockState MediaCache::ClipLockState() { return lockStateOf(*clipGuard_); }

MediaCache::LockState MediaCache::PlaylistLockState() { return lockStateOf(*playlistGuard_); }

int MediaCache::RepairLocks() {
  int tookOver = 0;
  for (detail::CacheLock* lock : {clipGuard_.get(), playlistGuard_.get()}) {
    Held held(*lock);
    if (held.tookOver()) ++tookOver;
  }
  return tookOver;
}

// ------------------------------------------------------------ playlist cache

std::string MediaCache::PlaylistKey(const std::string& path) {
  std::string key = baseName(path);
  const std::string::size_type cut = key.find(".playlist");
  if (cut != std::string::npos) key.erase(cut);
  return key;
}

int MediaCache::GrokPlaylist(PlaylistCacheEntry& entry, std::string path) {
  // On a 0 result errno tells a failure of the process (EMFILE, ENFILE,
  // ENOMEM), which makes a scan give up, from a file that is not a playlist
  // (errno 0, or the error of its stat, open or read).
  struct stat64 info;
  if (::stat64(path.c_str(), &info) != 0) {
    const int error = errno;
    std::perror(path.c_str());
    errno = error;
    return 0;
  }
  // FIFOs, sockets, devices and directories are not playlists.
  if (!S_ISREG(info.st_mode)) {
    errno = 0;
    return 0;
  }

  // O_NONBLOCK keeps a FIFO put in the file's place since the stat from
  // blocking the open; anything but a regular file is refused on the open
  // descriptor, and a regular one is then read in blocking mode.
  struct stat64 opened;
  const detail::UniqueFd fd = detail::openRegularFile(path.c_str(), O_RDONLY, 0, &opened);
  if (!fd) {
    // What is no regular file is refused silently, as above.
    if (errno == EINVAL || errno == EISDIR) errno = 0;
    return 0;
  }
  const std::uint64_t fileSize = opened.st_size > 0 ? static_cast<std::uint64_t>(opened.st_size) : 0;
  const std::size_t wanted = static_cast<std::size_t>(std::min<std::uint64_t>(fileSize, kPlaylistReadLimit));
  char* buffer = static_cast<char*>(std::malloc(wanted + 1));
  if (buffer == nullptr) {
    std::fputs("::read_file - malloc failed\n", stderr);
    errno = ENOMEM;
    return 0;
  }
  std::memset(buffer, 0, wanted + 1);
  if (!readFully(fd.get(), buffer, wanted)) {
    const int error = errno;
    std::free(buffer);
    std::fputs("::read_file - read failed to read enough data\n", stderr);
    errno = error;
    return 0;
  }

  // The text is a C string: a NUL in the file ends it. Only its first line
  // is parsed (a playlist stands on one line), at most kFirstLineLimit
  // characters of it; later lines stay part of the stored text.
  const std::size_t textLength = std::strlen(buffer);
  const char* newline = static_cast<const char*>(std::memchr(buffer, '\n', textLength));
  const std::size_t lineLength = std::min<std::size_t>(
      newline != nullptr ? static_cast<std::size_t>(newline - buffer) : textLength, kFirstLineLimit);
  Playlist playlist;
  bool valid = false;
  try {
    const std::string firstLine(buffer, lineLength);
    errno = 0;
    JsonTree tree(cJSON_Parse(firstLine.c_str()));
    // The parser gives null for a bad text and when it ran out of memory;
    // only malloc's errno tells the two apart.
    if (tree.json == nullptr && errno == ENOMEM) throw std::bad_alloc();
    if (tree.json != nullptr) {
      const cJSON* name = cJSON_GetObjectItem(tree.json, "name");
      const cJSON* cliplist = cJSON_GetObjectItem(tree.json, "cliplist");
      // A playlist must have a name; a name that is not a string leaves the
      // playlist unnamed.
      valid = name != nullptr && cliplist != nullptr;
      if (name != nullptr && cJSON_IsString(name) && name->valuestring != nullptr)
        playlist.name = name->valuestring;
      if (cliplist != nullptr) {
        const int items = cJSON_GetArraySize(cliplist);
        for (int i = 0; i < items; ++i) {
          const cJSON* item = cJSON_GetArrayItem(cliplist, i);
          if (item != nullptr && cJSON_IsString(item) && item->valuestring != nullptr)
            playlist.clips.emplace_back(item->valuestring);
          else
            valid = false;  // the walk goes on; the file is invalid
        }
      }
    }
  } catch (const std::bad_alloc&) {
    std::free(buffer);
    errno = ENOMEM;
    return 0;
  }

  if (valid) {
    boundedCopy(entry.text, sizeof entry.text, buffer);
    boundedCopy(entry.path, sizeof entry.path, path.c_str());
    entry.modTime = static_cast<int32_t>(info.st_mtime);
  }
  std::free(buffer);
  errno = 0;
  return valid ? 1 : 0;
}

int MediaCache::AddPlaylist(std::string path) {
  PlaylistCacheEntry entry{};
  if (GrokPlaylist(entry, path) != 1) return 0;
  std::map<std::string, PlaylistCacheEntry> playlists;
  ReadPlaylistCacheFromSharedMemory(playlists);
  playlists[PlaylistKey(boundedString(entry.path, sizeof entry.path))] = entry;
  WritePlaylistCacheToSharedMemory(std::move(playlists));
  return 1;
}

bool MediaCache::RemovePlaylist(std::string path) {
  std::map<std::string, PlaylistCacheEntry> playlists;
  ReadPlaylistCacheFromSharedMemory(playlists);
  bool removed = false;
  for (auto it = playlists.begin(); it != playlists.end(); ++it) {
    const PlaylistCacheEntry& entry = it->second;
    const std::size_t length = strnlen(entry.path, sizeof entry.path);
    // Only a path that is non-empty and terminated within its field counts.
    if (length == 0 || length == sizeof entry.path) continue;
    if (path.find(entry.path, 0, length) != std::string::npos) {
      playlists.erase(it);
      removed = true;
      break;
    }
  }
  WritePlaylistCacheToSharedMemory(std::move(playlists));
  return removed;
}

void MediaCache::InitializePlaylists() {
  WritePlaylistCacheToSharedMemory(std::map<std::string, PlaylistCacheEntry>());
}

std::map<std::string, PlaylistCacheEntry> MediaCache::GetPlaylists() {
  // Only the names of the stored clips are needed, not their records.
  std::vector<std::string> names;
  VisitClips([&names](Clip& clip) { names.emplace_back(clip.name, strnlen(clip.name, sizeof clip.name)); });
  std::map<std::string, PlaylistCacheEntry> playlists;
  addAllClipsPlaylistToPlaylistCache(playlists, names);
  // Read last, so that a cached playlist keyed "All Clips" replaces the
  // synthetic one.
  ReadPlaylistCacheFromSharedMemory(playlists);
  return playlists;
}

int MediaCache::WritePlaylistCacheToSharedMemory(std::map<std::string, PlaylistCacheEntry> playlists) {
  return writePlaylistImage(playlistSegment_, *playlistGuard_, playlists.size(),
                            [&playlists](unsigned char* slots) {
                              unsigned char* slot = slots;
                              for (const auto& element : playlists) {
                                std::memcpy(slot, &element.second, kPlaylistSlotSize);
                                slot += kPlaylistSlotSize;
                              }
                            });
}

int MediaCache::ReadPlaylistCacheFromSharedMemory(std::map<std::string, PlaylistCacheEntry>& playlists) {
  return withImage(
      playlistSegment_, *playlistGuard_, [&playlists](const unsigned char* base, std::uint64_t size) {
        if (!prefault(base, std::min<std::uint64_t>(size, kPlaylistHeaderSize), false))
          return unreadableImage("ReadPlaylistCacheFromSharedMemory");
        if (size < kPlaylistMagicSize || std::memcmp(base, kPlaylistMagic, kPlaylistMagicSize) != 0) return 0;
        if (size < kPlaylistHeaderSize) {
          std::fprintf(stderr,
                       "ReadPlaylistCacheFromSharedMemory: segment of %llu bytes is too small for an image; "
                       "image ignored\n",
                       static_cast<unsigned long long>(size));
          return 0;
        }
        // The count comes from another process: the image must hold it whole.
        const std::uint32_t count = loadCount(base + kPlaylistMagicSize);
        if (PlaylistImageSize(count) > size) {
          std::fprintf(
              stderr,
              "ReadPlaylistCacheFromSharedMemory: stored count %lu runs past the segment of %llu bytes; "
              "image ignored\n",
              static_cast<unsigned long>(count), static_cast<unsigned long long>(size));
          return 0;
        }
        if (!prefault(base, PlaylistImageSize(count), false))
          return unreadableImage("ReadPlaylistCacheFromSharedMemory");
        const unsigned char* slot = base + kPlaylistHeaderSize;
        for (std::uint32_t i = 0; i < count; ++i, slot += kPlaylistSlotSize) {
          const char* path = reinterpret_cast<const char*>(slot + offsetof(PlaylistCacheEntry, path));
          PlaylistCacheEntry& entry =
              playlists[PlaylistKey(boundedString(path, PlaylistCacheEntry::kPathSize))];
          std::memcpy(static_cast<void*>(&entry), slot, kPlaylistSlotSize);
        }
        return 1;
      });
}

namespace {

// Puts "All Clips" into the map: forEachName(add) calls add(name, length)
// for every clip name in catalogue order. Names go in as they are, without
// JSON escaping.
template <class ForEachName>
void putAllClips(std::map<std::string, PlaylistCacheEntry>& playlists, ForEachName forEachName) {
  std::string text = "{\"name\":\"All Clips\",\"cliplist\":[";
  bool first = true;
  forEachName([&](const char* name, std::size_t length) {
    if (!first) text += ',';
    first = false;
    text += '"';
    text.append(name, length);
    text += '"';
  });
  text += "]}";

  PlaylistCacheEntry& entry = playlists[MediaCache::kAllClipsName];
  std::memset(static_cast<void*>(&entry), 0, sizeof entry);
  if (text.size() > kAllClipsTextLimit) {
    std::fprintf(
        stderr,
        "addAllClipsPlaylistToPlaylistCache: Too Many Files! Refusing to create all clips playlist.\n");
    std::fflush(stderr);
  } else {
    boundedCopy(entry.text, sizeof entry.text, text.c_str());
  }
}

}  // namespace

void MediaCache::addAllClipsPlaylistToPlaylistCache(std::map<std::string, PlaylistCacheEntry>& playlists,
                                                    std::list<Clip>& clips) {
  putAllClips(playlists, [&clips](const auto& add) {
    for (const Clip& clip : clips) add(clip.name, strnlen(clip.name, sizeof clip.name));
  });
}

void MediaCache::addAllClipsPlaylistToPlaylistCache(std::map<std::string, PlaylistCacheEntry>& playlists,
                                                    const std::vector<std::string>& clipNames) {
  putAllClips(playlists, [&clipNames](const auto& add) {
    for (const std::string& name : clipNames) add(name.data(), name.size());
  });
}

// ---------------------------------------------------------------------------
// Media scan and clip intake

namespace {

// Failures of the process rather than of a file: a scan that meets one stops
// instead of publishing a catalogue that silently lacks the files it could
// not read.
bool outOfResources(int error) { return error == EMFILE || error == ENFILE || error == ENOMEM; }

bool grokClipAt(Clip& clip, const std::string& path, bool nameOnly, int dirFd, const char* name);

int abandonScan(const std::string& directory, int error) {
  std::fprintf(stderr, "ScanMedia: %s: %s; scan abandoned, caches left as they were\n", directory.c_str(),
               std::strerror(error));
  return 0;
}

}  // namespace

int MediaCache::ScanMedia(std::string& directory, unsigned int currentEncodeType) {
  return ScanMedia(directory, currentEncodeType, nullptr);
}

int MediaCache::ScanMedia(std::string& directory, unsigned int currentEncodeType,
                          const std::function<void(Clip&)>& visit) {
  DIR* dir = ::opendir(directory.c_str());
  if (dir == nullptr) {
    // A missing medium is not an error; a process out of descriptors or
    // memory is. The caches are untouched either way.
    if (outOfResources(errno)) return abandonScan(directory, errno);
    if (visit) VisitClips(visit);
    return 1;
  }
  std::unique_ptr<DIR, int (*)(DIR*)> closer(dir, ::closedir);

  // The clips found are staged in an arena of the scan's own, each as the
  // bytes of its record that are not zero, and referred to by pointer; each
  // is taken in a record of the scan's own, which staging leaves zero again.
  // The playlists, a few entries usually, live whole in an arena of their own.
  detail::WorkArena arena(detail::WorkArena::kBlock, false);
  detail::WorkArena playlistArena(detail::WorkArena::kBlock, false);
  std::vector<const StagedClip*> clips;  // in the order found
  std::map<std::string, const PlaylistCacheEntry*> playlists;
  // Files that are not clips or playlists (FIFOs, sockets, devices,
  // directories, dangling links) are skipped by GrokClip and GrokPlaylist
  // without blocking on them; a failure of the process itself (no
  // descriptor or memory left, an unreadable directory) abandons the scan
  // before anything is written.
  try {
    std::unique_ptr<Clip> record(new Clip());
    // The clips' reads are made ahead of their intake, many at a time; the
    // intake then finds them in the page cache.
    detail::ScanPrefetch prefetch(directory, dir);
    for (;;) {
      errno = 0;
      struct dirent64* entry = ::readdir64(dir);
      if (entry == nullptr) {
        if (errno != 0) return abandonScan(directory, errno);
        break;
      }
      if (entry->d_name[0] == '.') continue;
      const std::string path = directory + "/" + entry->d_name;
      // Substring tests on the whole path, not extension tests: a directory
      // called media.mov makes every entry in it a clip candidate.
      if (detail::isClipCandidate(path.c_str())) {
        prefetch.ready(*entry);
        errno = 0;
        if (grokClipAt(*record, path, false, ::dirfd(dir), entry->d_name)) {
          record->playable = IsPlayable(*record, currentEncodeType);
          clips.push_back(StagedClip::stage(*record, arena));
        } else {
          const int error = errno;
          std::memset(static_cast<void*>(record.get()), 0, sizeof(Clip));
          if (outOfResources(error)) return abandonScan(path, error);
        }
      } else if (path.find(".playlist") != std::string::npos) {
        PlaylistCacheEntry* found =
            new (playlistArena.allocate(sizeof(PlaylistCacheEntry), alignof(PlaylistCacheEntry)))
                PlaylistCacheEntry();
        errno = 0;
        if (GrokPlaylist(*found, path)) {
          // Keyed by the file's text: two files with the same text leave one.
          playlists[std::string(found->text, strnlen(found->text, sizeof(found->text)))] = found;
        } else {
          const int error = errno;
          playlistArena.deallocate(found, sizeof(PlaylistCacheEntry));
          if (outOfResources(error)) return abandonScan(path, error);
        }
      }
    }
    closer.reset();

    // Oldest first (Clip::compare_clips_by_time); equal times keep the order found.
    std::stable_sort(clips.begin(), clips.end(),
                     [](const StagedClip* a, const StagedClip* b) { return a->modTime < b->modTime; });
  } catch (const std::bad_alloc&) {
    return abandonScan(directory, ENOMEM);
  }

  // A visit that throws ends its walk; the playlists are written all the
  // same, and the exception reaches the caller after both caches are.
  std::exception_ptr visitFailure;
  const std::function<void(Clip&)> guarded = [&visit, &visitFailure](Clip& clip) {
    if (visitFailure) return;
    try {
      visit(clip);
    } catch (...) {
      visitFailure = std::current_exception();
    }
  };
  writeClipImage(
      clipSegment_, *clipGuard_, clips.size(),
      [&clips](std::uint64_t i, unsigned char* out) { clips[i]->store(out); }, visit ? guarded : nullptr);
  writePlaylistImage(playlistSegment_, *playlistGuard_, playlists.size(), [&playlists](unsigned char* slots) {
    unsigned char* slot = slots;
    for (const auto& element : playlists) {
      std::memcpy(slot, element.second, kPlaylistSlotSize);
      slot += kPlaylistSlotSize;
    }
  });
  if (visitFailure) std::rethrow_exception(visitFailure);
  return 1;
}

bool MediaCache::GrokClip(Clip& clip, std::string path, bool nameOnly) {
  return grokClipAt(clip, path, nameOnly, AT_FDCWD, path.c_str());
}

namespace {

// GrokClip, with the file's status taken as fstatat(dirFd, name) gives it:
// the scan names each file within the directory it has open, which spares
// the kernel walking the directory's path again for every file.
bool grokClipAt(Clip& clip, const std::string& path, bool nameOnly, int dirFd, const char* name) {
  std::vector<char> copy(path.begin(), path.end());
  copy.push_back('\0');
  const char* base = ::basename(copy.data());
  const std::size_t baseLength = std::min(std::strlen(base), Clip::kNameSize - 1);
  std::memcpy(clip.name, base, baseLength);
  clip.name[baseLength] = '\0';
  if (nameOnly) return true;

  // stat follows a symbolic link: a link to a movie is a clip under the
  // link's name, a dangling link fails here and is skipped.
  struct stat64 info;
  if (::fstatat64(dirFd, name, &info, 0) != 0) {
    const int error = errno;
    std::perror(path.c_str());
    errno = error;
    return false;
  }
  // FIFOs, sockets, devices and directories are not clips; they are not
  // opened at all (the reader would refuse them without blocking anyway).
  if (!S_ISREG(info.st_mode)) {
    errno = 0;
    return false;
  }
  errno = 0;
  std::unique_ptr<CFileParams> params(CFileParams::create(path.c_str()));
  if (!params) return false;  // errno is ENOMEM when memory ran out
  if (!params->FileIsValid() || params->videoLength == 0) {
    const auto* scanner = dynamic_cast<const CZEVQTFileParams*>(params.get());
    errno = scanner != nullptr ? scanner->readError : 0;
    return false;
  }

  clip.modTime = static_cast<int32_t>(info.st_mtime);
  // Bounded copy of at most 4 characters: a code with a zero byte stops there.
  for (int i = 0; i < 4 && params->fourCC[i] != '\0'; ++i) clip.fourCC[i] = params->fourCC[i];
  clip.width = params->width;
  clip.height = params->height;
  clip.videoLength = params->videoLength;
  clip.frameRate = params->frameRate;
  clip.scanMode = params->scanMode;
  std::memcpy(clip.attributes.block, params->attributes.block, sizeof(clip.attributes.block));
  return true;
}

}  // namespace

int MediaCache::AddClip(std::string path, unsigned int currentEncodeType, int& index, bool nameOnly) {
  Clip clip;
  if (!GrokClip(clip, path, nameOnly)) return 0;
  std::list<Clip> clips;
  ReadClipCacheFromSharedMemory(clips);
  const std::string name(clip.name);
  clips.remove_if(
      [&](const Clip& c) { return std::string(c.name, strnlen(c.name, Clip::kNameSize)) == name; });
  clip.playable = IsPlayable(clip, currentEncodeType);
  clips.push_back(clip);
  // The index is counted before sorting: the clip's place at the end of the
  // unsorted list, not in the stored catalogue. Kept as the device does it.
  index = static_cast<int>(clips.size()) - 1;
  clips.sort(Clip::compare_clips_by_time);
  WriteClipCacheToSharedMemory(std::move(clips));
  return 1;
}

bool MediaCache::RemoveClip(std::string nameOrPath) {
  std::list<Clip> clips;
  ReadClipCacheFromSharedMemory(clips);
  bool removed = false;
  for (auto it = clips.begin(); it != clips.end(); ++it) {
    const std::string name(it->name, strnlen(it->name, Clip::kNameSize));
    if (nameOrPath.find(name) != std::string::npos) {
      clips.erase(it);
      removed = true;
      break;
    }
  }
  WriteClipCacheToSharedMemory(std::move(clips));  // in every case
  return removed;
}

std::list<Clip> MediaCache::GetClips() {
  std::list<Clip> clips;
  ReadClipCacheFromSharedMemory(clips);
  return clips;
}

bool MediaCache::GetEncodeType(Clip& clip, unsigned int& encodeType) {
  // Found without building the attribute map: the scan asks this of every clip.
  std::string text;
  if (!clip.attributes.getAttribute(MediaVideoEncodeType, text)) return false;
  // Read as the device's 32-bit strtol reads it: saturated at the 32-bit limits.
  long value = std::strtol(text.c_str(), nullptr, 10);
  if (value > INT32_MAX) value = INT32_MAX;
  if (value < INT32_MIN) value = INT32_MIN;
  encodeType = static_cast<unsigned int>(static_cast<int32_t>(value));
  return true;
}

bool MediaCache::IsPlayable(Clip& clip, unsigned int currentEncodeType) {
  unsigned int clipEncodeType = 0;
  if (!GetEncodeType(clip, clipEncodeType)) return false;
  CIsEncodeType encodeTypes;
  if (encodeTypes.areEncodeTypesDifferentCodecs(clipEncodeType, currentEncodeType)) return false;
  CProductID product;
  return product.canDoHeight(clip.height);
}

}  // namespace media
}  // namespace zev
