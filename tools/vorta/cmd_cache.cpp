// SPDX-License-Identifier: MIT
// vorta cache: create, inspect, flush and remove the shared clip and playlist caches.
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <boost/interprocess/exceptions.hpp>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <iostream>
#include <list>
#include <map>
#include <string>

#include "cache_options.h"
#include "cli.h"
#include "media_cache.h"
#include "vocabulary.h"

namespace {

using namespace vorta::cli;
using zev::media::MediaCache;
using zev::media::MediaCacheOptions;

// What one image holds, as `info` shows it.
struct ImageInfo {
  const char* kind;  // "clip" or "playlist"
  std::string segment;
  bool valid = false;
  std::uint64_t count = 0;
  std::uint64_t imageBytes = 0;
  std::uint64_t segmentBytes = 0;
  std::uint64_t capacity = 0;
  std::vector<std::string> names;
  MediaCache::LockState lock;
  bool read = true;  // false when the lock was not free: info never waits for it nor takes it over
};

const char* lockKind(const MediaCache::LockState& lock) {
  switch (lock.kind) {
    case MediaCache::LockState::Free:
      return "free";
    case MediaCache::LockState::Held:
      return "held";
    case MediaCache::LockState::LeftHeld:
      return "left-held";
    default:
      return "unknown";
  }
}

std::string modeText(unsigned mode) {
  char text[8];
  std::snprintf(text, sizeof text, "%04o", mode & 07777);
  return text;
}

std::string holderText(const MediaCache::LockState& lock) {
  std::string text = "pid " + std::to_string(lock.pid);
  if (!lock.program.empty()) text += " (" + lock.program + ")";
  if (lock.heldSeconds >= 0)
    text += " for " + std::to_string(static_cast<long long>(lock.heldSeconds)) + " s";
  return text;
}

std::string lockText(const MediaCache::LockState& lock) {
  std::string text;
  switch (lock.kind) {
    case MediaCache::LockState::Free:
      text = "lock free";
      break;
    case MediaCache::LockState::Held:
      if (lock.pid > 0)
        text = "lock held by " + holderText(lock);
      else if (lock.endedMidway > 0)
        text = "lock held by a process outside this library, or left by pid " +
               std::to_string(lock.endedMidway) +
               ", which ended while taking or releasing it (waited for, never taken over)";
      else
        text = "lock held by a process outside this library (waited for, never taken over)";
      break;
    case MediaCache::LockState::LeftHeld:
      text = "lock left held by " + holderText(lock) +
             " (gone; the next access takes it over, or 'vorta cache repair')";
      break;
    default:
      text = "lock state unknown";
  }
  text += "; mutex mode " + (lock.mutexMode != 0 ? modeText(lock.mutexMode) : std::string("unknown"));
  if (lock.takeovers > 0) text += ", " + std::to_string(lock.takeovers) + " taken over so far";
  return text;
}

// What one image holds, read only while its lock is free: info never waits
// for a lock nor takes one over.
ImageInfo imageInfo(MediaCache& cache, const MediaCacheOptions& options, bool clips) {
  ImageInfo info;
  info.kind = clips ? "clip" : "playlist";
  info.segment = clips ? options.clipSegment : options.playlistSegment;
  info.lock = clips ? cache.ClipLockState() : cache.PlaylistLockState();
  info.read = info.lock.kind == MediaCache::LockState::Free;
  if (info.read && clips) {
    std::list<Clip> list;
    info.valid = cache.ReadClipCacheFromSharedMemory(list) == 1;
    for (const Clip& c : list) info.names.emplace_back(c.name, strnlen(c.name, sizeof c.name));
  } else if (info.read) {
    std::map<std::string, PlaylistCacheEntry> map;
    info.valid = cache.ReadPlaylistCacheFromSharedMemory(map) == 1;
    for (const auto& element : map) info.names.push_back(element.first);
  }
  info.count = info.names.size();
  info.segmentBytes = clips ? cache.ClipSegmentSize() : cache.PlaylistSegmentSize();
  info.capacity = roomIn(info.segmentBytes, clips);
  if (info.valid)
    info.imageBytes =
        clips ? MediaCache::ClipImageSize(info.count) : MediaCache::PlaylistImageSize(info.count);
  return info;
}

void printInfo(const ImageInfo& info) {
  std::string line = std::string(info.kind) + " image in " + info.segment + ": ";
  if (!info.read)
    line += "not read while its lock is not free, segment of " + std::to_string(info.segmentBytes) + " bytes";
  else if (info.valid)
    line += "valid, " + count(info.count, info.kind) + ", " + std::to_string(info.imageBytes) + " of " +
            std::to_string(info.segmentBytes) + " bytes";
  else
    line += "invalid (never written or flushed), segment of " + std::to_string(info.segmentBytes) + " bytes";
  say(line + ", room for " + std::to_string(info.capacity) + " " + info.kind + "s; " + lockText(info.lock));
  for (const std::string& name : info.names) say("  " + name);
}

JsonObject jsonInfo(const ImageInfo& info) {
  const MediaCache::LockState& lock = info.lock;
  char held[32];
  std::snprintf(held, sizeof held, "%.1f", lock.heldSeconds);
  JsonObject state;
  state.set("state", text(lockKind(lock)))
      .set("pid", lock.pid > 0 ? integer(lock.pid) : absent())
      .set("recorded", flag(lock.pid > 0))
      .set("program", lock.pid > 0 ? text(lock.program) : absent())
      .set("heldSeconds", lock.pid > 0 && lock.heldSeconds >= 0 ? real(lock.heldSeconds, held) : absent())
      .set("waiter", lock.waiter > 0 ? integer(lock.waiter) : absent())
      .set("endedMidway", lock.endedMidway > 0 ? integer(lock.endedMidway) : absent())
      .set("takeovers", integer(lock.takeovers))
      .set("mutexMode", lock.mutexMode != 0 ? text(modeText(lock.mutexMode)) : absent());
  JsonObject item;
  item.set("segment", text(info.segment))
      .set("read", flag(info.read))
      .set("valid", flag(info.valid))
      .set("count", integer(static_cast<long long>(info.count)))
      .set("imageBytes", integer(static_cast<long long>(info.imageBytes)))
      .set("segmentBytes", integer(static_cast<long long>(info.segmentBytes)))
      .set("capacity", integer(static_cast<long long>(info.capacity)))
      .set("lock", std::move(state))
      .set("names", info.names);
  return item;
}

int create(Invocation& in, MediaCacheOptions options) {
  options.maxClips = static_cast<std::size_t>(
      in.integer("clips", static_cast<long long>(MediaCacheOptions::kDefaultMaxClips), 0, 1000000));
  options.maxPlaylists = static_cast<std::size_t>(
      in.integer("playlists", static_cast<long long>(MediaCacheOptions::kDefaultMaxPlaylists), 0, 100000));
  options.create = true;
  try {
    MediaCache cache(options);
    const auto bytes = [](std::uint64_t size) { return integer(static_cast<long long>(size)); };
    emit(in,
         JsonObject()
             .set("clips", std::move(JsonObject()
                                         .set("segment", text(options.clipSegment))
                                         .set("segmentBytes", bytes(cache.ClipSegmentSize()))))
             .set("playlists", std::move(JsonObject()
                                             .set("segment", text(options.playlistSegment))
                                             .set("segmentBytes", bytes(cache.PlaylistSegmentSize())))),
         "clip segment " + options.clipSegment + ": " + std::to_string(cache.ClipSegmentSize()) + " bytes");
    if (formatOf(in) == Format::Text)
      say("playlist segment " + options.playlistSegment + ": " + std::to_string(cache.PlaylistSegmentSize()) +
          " bytes");
  } catch (const boost::interprocess::interprocess_exception& e) {
    throw Failure(std::string("cannot create the cache: ") + e.what());
  }
  return 0;
}

int run(Invocation& in) {
  const auto& args = in.args();
  const std::string& action = args[0];
  const std::vector<std::string> actions{"create", "info", "flush", "repair", "hold", "remove"};
  if (std::find(actions.begin(), actions.end(), action) == actions.end())
    throw UsageError("unknown action '" + action + "' (create, info, flush, repair, hold or remove)" +
                     didYouMean(action, actions));
  const MediaCacheOptions options = cacheOptionsFrom(in);
  if ((in.value("clips") || in.value("playlists")) && action != "create")
    throw UsageError("--clips and --playlists are for 'create'");
  if ((in.value("seconds") || in.value("lock")) && action != "hold")
    throw UsageError("--seconds and --lock are for 'hold'");
  if (in.flag("json") && action == "hold") throw UsageError("--json is not for 'hold'");
  const bool quiet = formatOf(in) == Format::Quiet;

  if (action == "create") return create(in, options);
  if (action == "remove") {
    const int removed = MediaCache::Remove(options);
    const std::vector<std::string> names{options.clipSegment, options.clipLock, options.playlistSegment,
                                         options.playlistLock};
    emit(in, JsonObject().set("removed", integer(removed)).set("names", names),
         "removed " + std::to_string(removed) + " of 4 (" + names[0] + ", " + names[1] + ", " + names[2] +
             ", " + names[3] + ")");
    return 0;
  }
  auto cache = openExistingCache(in, options);
  if (action == "info") {
    const ImageInfo clips = imageInfo(*cache, options, true);
    const ImageInfo playlists = imageInfo(*cache, options, false);
    if (formatOf(in) == Format::Json) {
      printJson(std::cout,
                JsonObject().set("clips", jsonInfo(clips)).set("playlists", jsonInfo(playlists)).get());
    } else if (!quiet) {
      printInfo(clips);
      printInfo(playlists);
    }
    return 0;
  }
  if (action == "repair") {
    const int tookOver = cache->RepairLocks();
    emit(in, JsonObject().set("tookOver", integer(tookOver)),
         "took over " + count(static_cast<std::size_t>(tookOver), "lock") +
             " left held by processes that ended");
    return 0;
  }
  if (action == "hold") {
    // Holds one lock as every cache operation does, for trying out what
    // other processes see while it is held (or after this one is killed).
    const long long seconds = in.integer("seconds", 10, 0, 86400);
    const std::string which = in.value("lock").value_or("clip");
    if (which != "clip" && which != "playlist") throw UsageError("--lock must be clip or playlist");
    auto work = [&] {
      if (!quiet)
        std::cout << "holding the " << which << " lock as pid " << getpid() << " for " << seconds << " s"
                  << std::endl;
      for (long long left = seconds; left > 0;) left = sleep(static_cast<unsigned>(left));
    };
    if (which == "playlist")
      cache->HoldPlaylistLock(work);
    else
      cache->HoldClipLock(work);
    if (!quiet) std::cout << "released" << std::endl;
    return 0;
  }
  cache->Flush();
  emit(in,
       JsonObject().set("flushed", std::vector<std::string>{options.clipSegment, options.playlistSegment}),
       "flushed " + options.clipSegment + " and " + options.playlistSegment);
  return 0;
}

std::vector<Option> cacheOptions() {
  std::vector<Option> options = cacheNameOptions();
  options.push_back({"clips", "N", "create: the most clips the clip segment holds (default 4000)"});
  options.push_back(
      {"playlists", "N", "create: the most playlists the playlist segment holds (default 200)"});
  options.push_back({"json", "", "create, info, flush, repair, remove: print JSON"});
  options.push_back({"quiet", "", "print nothing but errors"});
  options.push_back({"seconds", "N", "hold: how long to hold the lock (default 10)"});
  options.push_back(
      {"lock", "clip|playlist", "hold: which lock to hold (default clip)", {"clip", "playlist"}});
  return options;
}

const Command kCache{
    "cache",
    "create, inspect, flush or remove the shared clip and playlist caches",
    "create | info | flush | repair | hold | remove",
    "The clip catalogue and the playlist cache live in two POSIX shared-memory\n"
    "segments, each guarded by a named mutex, shared by every process that uses\n"
    "libvorta. 'create' makes them (or grows them) for --clips and --playlists;\n"
    "a 4000-clip segment is 26 MB of address space, but memory is only used for\n"
    "what is written. 'info' shows whether each image is valid, its count, its\n"
    "size, the names in it, who holds its lock (pid, program, for how long, or\n"
    "gone) and the mode of its mutex. 'flush' invalidates both images. A lock\n"
    "left by a process that ended inside is taken over by the next process that\n"
    "uses the cache; 'repair' does that at once. A holder outside this library\n"
    "is always waited for. 'hold' holds one lock\n"
    "for --seconds, to see what others see meanwhile. 'remove' deletes the\n"
    "segments and mutexes from the system.",
    cacheOptions(),
    run,
    1,
    1,
};
VORTA_REGISTER_COMMAND(kCache);

}  // namespace
