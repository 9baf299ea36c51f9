// SPDX-License-Identifier: MIT
// vorta: the clip catalogue and the playlist cache kept in POSIX shared memory for every process.
#pragma once

#include <boost/interprocess/shared_memory_object.hpp>
#include <boost/interprocess/sync/named_mutex.hpp>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include "clip.h"

/// One cached playlist file: its path, its text and its modification time.
/// The record is copied whole into the shared playlist image, so its layout
/// is a wire format (53316 bytes, offsets checked below). Text fields are
/// filled with bounded copies whose bound is the field size: a value of
/// full length is not terminated. `PlaylistCacheEntry{}` is a zeroed entry.
struct PlaylistCacheEntry {
  static constexpr std::size_t kPathSize = 4096;
  static constexpr std::size_t kTextSize = 49216;

  char path[kPathSize];  // full path of the file; empty for "All Clips"
  char text[kTextSize];  // the file's text, cut at kTextSize bytes
  int32_t modTime;       // modification time in seconds; 0 for "All Clips"
};

static_assert(std::is_standard_layout<PlaylistCacheEntry>::value,
              "PlaylistCacheEntry must be standard layout");
static_assert(std::is_trivially_copyable<PlaylistCacheEntry>::value,
              "PlaylistCacheEntry is copied byte for byte");
static_assert(sizeof(PlaylistCacheEntry) == 53316, "PlaylistCacheEntry is 53316 bytes");
static_assert(offsetof(PlaylistCacheEntry, path) == 0, "PlaylistCacheEntry::path offset");
static_assert(offsetof(PlaylistCacheEntry, text) == 4096, "PlaylistCacheEntry::text offset");
static_assert(offsetof(PlaylistCacheEntry, modTime) == 53312, "PlaylistCacheEntry::modTime offset");

namespace zev {
namespace detail {
class CacheLock;
}  // namespace detail
namespace media {

/// A playlist file parsed: its name and its clip names in playing order.
class Playlist {
 public:
  virtual ~Playlist();

  std::string name;                // the "name" member
  std::vector<std::string> clips;  // the string elements of "cliplist"
};

/// A wait for a cache's lock that another process holds, as told to MediaCacheOptions::onLockWait.
struct LockWait {
  std::string cache;         // the segment's name
  bool playlist = false;     // the playlist cache's lock; else the clip cache's
  int pid = 0;               // the library process holding it; 0 for a program outside the library
  std::string program;       // that process's program and first argument, as it recorded them
  double heldSeconds = -1;   // how long it has held the lock, -1 when not known
  double waitedSeconds = 0;  // how long this operation has waited
  bool timedOut = false;     // the wait has run out: the operation throws after this call
};

/// Where the two caches live and how large they are made. The defaults are
/// what the recorder's processes use; tests and tools give their own names.
struct MediaCacheOptions {
  /// Catalogue sizes the default segments are made for. A 4000-clip image is
  /// 26.1 MB and a 200-playlist image 10.7 MB of address space, but shared
  /// memory takes RAM only for the pages actually written, so a medium with
  /// a few hundred clips costs a few MB.
  static constexpr std::size_t kDefaultMaxClips = 4000;
  static constexpr std::size_t kDefaultMaxPlaylists = 200;

  std::string clipSegment = "vorta.clips";            // shared-memory object of the clip image
  std::string clipLock = "vorta.clips.lock";          // named mutex of the clip image
  std::string playlistSegment = "vorta.playlists";    // shared-memory object of the playlist image
  std::string playlistLock = "vorta.playlists.lock";  // named mutex of the playlist image
  std::size_t maxClips = kDefaultMaxClips;            // largest clip catalogue the segment holds
  std::size_t maxPlaylists = kDefaultMaxPlaylists;    // largest playlist cache the segment holds
  unsigned permissions = 0666;                        // of newly created segments and mutexes
  bool create = true;  // create missing segments and grow small ones; false: open existing ones only
  /// How long an operation waits for a lock another process holds: negative as long as it takes,
  /// 0 not at all. When the time runs out the operation throws interprocess_exception with
  /// timeout_when_locking_error, naming the holder.
  double lockTimeout = -1;
  /// Called on the waiting thread while an operation waits for a lock: about a second into the
  /// wait, every five seconds after, and once with timedOut set when lockTimeout runs out.
  /// Without it the library writes a line to standard error every five seconds of a wait. An
  /// exception the callback throws ends the wait and leaves the operation, lock untouched.
  std::function<void(const LockWait& wait)> onLockWait;

  /// The four names as PREFIX.clips, PREFIX.clips.lock, PREFIX.playlists and
  /// PREFIX.playlists.lock (the defaults use the prefix "vorta").
  static MediaCacheOptions named(const std::string& prefix);
};

/// The clip catalogue and the playlist cache shared by every process of the
/// device. Each cache is an image in its own shared-memory segment, guarded
/// by its own named mutex; every operation takes the mutex, maps the whole
/// segment, works and unmaps before it returns, so the object keeps no
/// state of its own. Failures to lock or map throw
/// boost::interprocess::interprocess_exception; nothing else throws.
///
/// Clip image: "SharedClipCache" (15 bytes), a uint32 count at 15, then one
/// 6536-byte slot per clip at 19 + 6536 * i, of which the first
/// Clip::kStoredSize bytes are written. Playlist image:
/// "SharedPlaylistCache" (19 bytes), a uint32 count at 19, then one
/// PlaylistCacheEntry per playlist at 23 + 53316 * i. Integers are in the
/// machine's byte order and unaligned.
class MediaCache {
 public:
  static constexpr std::size_t kClipMagicSize = 15;      // "SharedClipCache"
  static constexpr std::size_t kClipHeaderSize = 19;     // magic and count
  static constexpr std::size_t kClipSlotSize = 6536;     // sizeof(Clip)
  static constexpr std::size_t kPlaylistMagicSize = 19;  // "SharedPlaylistCache"
  static constexpr std::size_t kPlaylistHeaderSize = 23;
  static constexpr std::size_t kPlaylistSlotSize = 53316;  // sizeof(PlaylistCacheEntry)
  /// The key of the synthetic playlist of every clip.
  static const char* const kAllClipsName;

  /// Opens the segments and mutexes of the default names, creating them when
  /// missing, sized for the default catalogue.
  MediaCache();
  /// Opens the segments and mutexes named in the options. With
  /// options.create, missing ones are created and a segment smaller than
  /// the image of options.maxClips clips (options.maxPlaylists playlists) is
  /// grown to it, under its mutex; a larger one is left as it is. Existing
  /// images are kept. Throws interprocess_exception when a segment or mutex
  /// cannot be opened or created.
  explicit MediaCache(const MediaCacheOptions& options);
  /// Closes the handles; the segments, their images and the mutexes stay.
  ~MediaCache();
  MediaCache(const MediaCache&) = delete;
  MediaCache& operator=(const MediaCache&) = delete;

  /// Removes the segments and mutexes named in the options from the system
  /// (for tools and tests; the cache operations never remove them). Returns
  /// how many of the four existed and were removed.
  static int Remove(const MediaCacheOptions& options);
  /// Bytes of a clip image of n clips: 19 + 6536 * n.
  static std::uint64_t ClipImageSize(std::uint64_t clips);
  /// Bytes of a playlist image of n playlists: 23 + 53316 * n.
  static std::uint64_t PlaylistImageSize(std::uint64_t playlists);
  /// Current size of the clip segment in bytes.
  std::uint64_t ClipSegmentSize() const;
  /// Current size of the playlist segment in bytes.
  std::uint64_t PlaylistSegmentSize() const;

  // Clip cache.

  /// Stores the list as the whole clip image, in list order. Returns 1.
  /// Throws interprocess_exception (and leaves the image as it was) when the
  /// image would not fit in the segment.
  int WriteClipCacheToSharedMemory(std::list<Clip> clips);
  /// Appends the stored clips to the list. 1 when the image is valid (also
  /// with no clips); 0, with the list unchanged, when it is not (never
  /// written, flushed, or a count that runs past the segment).
  int ReadClipCacheFromSharedMemory(std::list<Clip>& clips);
  /// Calls visit with each stored clip in catalogue order, as
  /// ReadClipCacheFromSharedMemory would append them, without holding the
  /// whole catalogue in memory: visit gets a copy of the record, its own to
  /// change, overwritten by the next one. Runs under the clip lock, which
  /// other processes wait for meanwhile: visit should be brief, and a clip
  /// method of this cache called from it throws interprocess_exception
  /// (the thread holds the lock already). 1 when the image is valid (also with no
  /// clips); 0, with no call, when it is not. An exception from visit
  /// ends the walk, releases the lock and reaches the caller.
  int VisitClips(const std::function<void(Clip&)>& visit);
  /// Invalidates the clip image: every reader sees no clips until the next write.
  void FlushClips();
  /// Invalidates the playlist image.
  void FlushPlaylists();
  /// FlushClips, then FlushPlaylists.
  void Flush();
  /// Returns 1 and does nothing else: the shared caches outlive every process.
  int Destroy();

  // Locks. Library processes hold a gate (a file lock the kernel drops when its holder ends or
  // execs) on the named mutex's file for the whole of every operation, and record in that file,
  // past the mutex itself, that they hold it. A process that finds a holder recorded while the gate is
  // free knows it has gone without releasing, takes its lock over at once and says so on
  // standard error. A holder the library did not record (a program that locks the named mutex
  // itself) is always waited for. A writer that ends half-way leaves an invalid image (read as
  // empty).

  /// Who holds a cache's lock, found without waiting and without taking it.
  struct LockState {
    enum Kind {
      Free,      // nobody
      Held,      // a live process: a library process (pid) or a program outside the library
      LeftHeld,  // a library process (pid) that has ended; the next access takes it over
      Unknown,   // the owner record cannot be opened
    };
    Kind kind = Unknown;
    int pid = 0;                  // the library process that holds or left it, 0 when none is recorded
    std::string program;          // that process's program and first argument
    double heldSeconds = -1;      // how long it has held the lock, -1 when not known
    int waiter = 0;               // Held outside the library: a library process waiting for it
    int endedMidway = 0;          // Held with no library process inside: one that ended while waiting
                                  // for a program outside the library or handing the mutex to one
                                  // (then the mutex may still be its own: 0 when none did)
    bool recordValid = false;     // the owner record is one this library wrote
    std::uint32_t takeovers = 0;  // dead holders' locks taken over since the mutex was made
    unsigned mutexMode = 0;       // permission bits of the named mutex, 0 when not known
  };
  /// The state of the clip lock, found without waiting.
  LockState ClipLockState();
  /// The state of the playlist lock, found without waiting.
  LockState PlaylistLockState();
  /// Takes and releases both locks, taking over any left held by an ended
  /// process; returns how many were taken over.
  int RepairLocks();
  /// Runs work while holding the clip lock, as every clip operation holds it.
  void HoldClipLock(const std::function<void()>& work);
  /// Runs work while holding the playlist lock.
  void HoldPlaylistLock(const std::function<void()>& work);

  // Media scan and clip intake.

  /// Reads the media directory once and replaces both caches: every entry
  /// whose path contains ".mov" or ".MOV" that the scanner accepts becomes a
  /// clip (sorted by modification time, playable by IsPlayable), every valid
  /// ".playlist" file a cached playlist. Hidden entries are skipped and
  /// subdirectories are not entered. Only regular files are read (a
  /// symbolic link to one counts, under the link's name); FIFOs, sockets,
  /// devices, directories and dangling links are skipped without blocking.
  /// A directory that cannot be opened leaves both caches untouched and
  /// returns 1. When the process runs out of descriptors or memory (EMFILE,
  /// ENFILE, ENOMEM), or reading the directory fails, the scan is abandoned
  /// with a message, both caches are left as they were and 0 is returned:
  /// a catalogue that silently lacks files is never published.
  int ScanMedia(std::string& directory, unsigned int currentEncodeType);
  /// ScanMedia, then visit with each clip of the catalogue as it stands when
  /// the scan returns 1, as VisitClips would give them, under the same hold
  /// of the clip lock as the catalogue's writing: what visit sees is what
  /// this scan stored, with no other writer in between, and the image is
  /// not read a second time. No call when the scan returns 0. An exception
  /// from visit reaches the caller after the catalogue is written whole.
  int ScanMedia(std::string& directory, unsigned int currentEncodeType,
                const std::function<void(Clip&)>& visit);
  /// Fills a fresh clip from the file: its base name always; unless
  /// nameOnly, also the modification time and the scanner's parameters.
  /// False when the file cannot be stat'ed (perror of the path), is not a
  /// regular file, or the scanner refuses it or finds no video. After a
  /// false result errno is 0 when the file is simply not a clip, and the
  /// system's error when the process failed (EMFILE, ENOMEM...).
  bool GrokClip(Clip& clip, std::string path, bool nameOnly);
  /// Adds the file's clip to the catalogue, replacing every clip of the same
  /// name. index is set to the clip's position at the end of the list
  /// before it is sorted by time. 1 when added, 0 when intake failed.
  int AddClip(std::string path, unsigned int currentEncodeType, int& index, bool nameOnly);
  /// Removes the first stored clip whose name occurs in the argument and
  /// rewrites the catalogue in every case. Whether a clip was removed.
  bool RemoveClip(std::string nameOrPath);
  /// The stored catalogue (empty when the cache holds none).
  std::list<Clip> GetClips();
  /// Playable: the clip has an encode type, of a codec family the device's
  /// current encode type does not exclude, and a height this model plays.
  bool IsPlayable(Clip& clip, unsigned int currentEncodeType);
  /// The clip's "Encode Type" attribute read as a decimal number; false
  /// (encodeType untouched) when the attribute is missing.
  bool GetEncodeType(Clip& clip, unsigned int& encodeType);

  // Playlist cache.

  /// Reads and checks one playlist file. 1 when its first line is a JSON
  /// object with "name" and a "cliplist" of strings; the entry then holds
  /// the path, the text and the modification time. 0 otherwise, with the
  /// entry untouched: also for anything but a regular file, which is never
  /// blocked on. After 0, errno is EMFILE, ENFILE or ENOMEM when the
  /// process rather than the file failed.
  int GrokPlaylist(PlaylistCacheEntry& entry, std::string path);
  /// Adds (or replaces) the playlist file in the cache. 1 when added, 0 when
  /// the file is not a valid playlist (the cache is then untouched).
  int AddPlaylist(std::string path);
  /// Removes the first cached playlist (in key order) whose path occurs in
  /// the argument; rewrites the cache in every case. Whether one was removed.
  bool RemovePlaylist(std::string path);
  /// Stores an empty playlist cache.
  void InitializePlaylists();
  /// The cached playlists plus "All Clips", made afresh from the clip
  /// catalogue. A cached playlist keyed "All Clips" takes its place.
  std::map<std::string, PlaylistCacheEntry> GetPlaylists();
  /// Stores the map as the whole playlist image, in key order. Returns 1.
  /// Throws interprocess_exception (and leaves the image as it was) when the
  /// image would not fit in the segment.
  int WritePlaylistCacheToSharedMemory(std::map<std::string, PlaylistCacheEntry> playlists);
  /// Adds the stored playlists to the map, each keyed by its file's base
  /// name cut before ".playlist", replacing elements of the same key. 1 when
  /// the image is valid, 0 (map unchanged) when it is not.
  int ReadPlaylistCacheFromSharedMemory(std::map<std::string, PlaylistCacheEntry>& playlists);
  /// Puts the synthetic playlist "All Clips", listing every clip in order,
  /// into the map. When its text would not fit the entry, the entry is put
  /// without text and a message goes to standard error.
  void addAllClipsPlaylistToPlaylistCache(std::map<std::string, PlaylistCacheEntry>& playlists,
                                          std::list<Clip>& clips);
  /// The same for the clips of these names, in this order (each name the
  /// bytes of a record's name field up to its NUL).
  void addAllClipsPlaylistToPlaylistCache(std::map<std::string, PlaylistCacheEntry>& playlists,
                                          const std::vector<std::string>& clipNames);

  /// The map key of a playlist file: the base name of the path, cut before
  /// the first ".playlist" (the whole base name when there is none).
  static std::string PlaylistKey(const std::string& path);

 private:
  // Kept for the code that creates the cache; the cache operations never use them.
  std::string reserved_;
  uint32_t reservedWord_ = 0;

  boost::interprocess::shared_memory_object clipSegment_;
  boost::interprocess::named_mutex clipLock_;
  boost::interprocess::shared_memory_object playlistSegment_;
  boost::interprocess::named_mutex playlistLock_;
  // The recovery around each named mutex (its owner record and gate).
  std::unique_ptr<detail::CacheLock> clipGuard_;
  std::unique_ptr<detail::CacheLock> playlistGuard_;
};

}  // namespace media
}  // namespace zev
