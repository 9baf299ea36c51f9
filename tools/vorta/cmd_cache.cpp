// SPDX-License-Identifier: MIT
// vorta cache: create, inspect, flush and remove the shared clip and playlist caches.
#include <signal.h>
#include <unistd.h>

#include <boost/interprocess/exceptions.hpp>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iostream>
#include <list>
#include <map>
#include <string>

#include "cache_options.h"
#include "cli.h"
#include "media_cache.h"

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

ImageInfo clipInfo(MediaCache& cache, const MediaCacheOptions& options) {
  ImageInfo info;
  info.kind = "clip";
  info.segment = options.clipSegment;
  info.lock = cache.ClipLockState();
  info.segmentBytes = cache.ClipSegmentSize();
  info.capacity = info.segmentBytes >= MediaCache::kClipHeaderSize
                      ? (info.segmentBytes - MediaCache::kClipHeaderSize) / MediaCache::kClipSlotSize
                      : 0;
  if (info.lock.kind != MediaCache::LockState::Free) {
    info.read = false;
    return info;
  }
  std::list<Clip> clips;
  info.valid = cache.ReadClipCacheFromSharedMemory(clips) == 1;
  info.count = clips.size();
  for (const Clip& c : clips) info.names.emplace_back(c.name, strnlen(c.name, sizeof c.name));
  info.segmentBytes = cache.ClipSegmentSize();
  info.imageBytes = info.valid ? MediaCache::ClipImageSize(info.count) : 0;
  info.capacity = info.segmentBytes >= MediaCache::kClipHeaderSize
                      ? (info.segmentBytes - MediaCache::kClipHeaderSize) / MediaCache::kClipSlotSize
                      : 0;
  return info;
}

ImageInfo playlistInfo(MediaCache& cache, const MediaCacheOptions& options) {
  ImageInfo info;
  info.kind = "playlist";
  info.segment = options.playlistSegment;
  info.lock = cache.PlaylistLockState();
  info.segmentBytes = cache.PlaylistSegmentSize();
  info.capacity = info.segmentBytes >= MediaCache::kPlaylistHeaderSize
                      ? (info.segmentBytes - MediaCache::kPlaylistHeaderSize) / MediaCache::kPlaylistSlotSize
                      : 0;
  if (info.lock.kind != MediaCache::LockState::Free) {
    info.read = false;
    return info;
  }
  std::map<std::string, PlaylistCacheEntry> playlists;
  info.valid = cache.ReadPlaylistCacheFromSharedMemory(playlists) == 1;
  info.count = playlists.size();
  for (const auto& element : playlists) info.names.push_back(element.first);
  info.segmentBytes = cache.PlaylistSegmentSize();
  info.imageBytes = info.valid ? MediaCache::PlaylistImageSize(info.count) : 0;
  info.capacity = info.segmentBytes >= MediaCache::kPlaylistHeaderSize
                      ? (info.segmentBytes - MediaCache::kPlaylistHeaderSize) / MediaCache::kPlaylistSlotSize
                      : 0;
  return info;
}

void printInfo(const ImageInfo& info) {
  std::cout << info.kind << " image in " << info.segment << ": ";
  if (!info.read)
    std::cout << "not read while its lock is not free, segment of " << info.segmentBytes << " bytes";
  else if (info.valid)
    std::cout << "valid, " << info.count << " " << info.kind << (info.count == 1 ? "" : "s") << ", "
              << info.imageBytes << " of " << info.segmentBytes << " bytes";
  else
    std::cout << "invalid (never written or flushed), segment of " << info.segmentBytes << " bytes";
  std::cout << ", room for " << info.capacity << " " << info.kind << "s; " << lockText(info.lock) << "\n";
  for (const std::string& name : info.names) std::cout << "  " << name << "\n";
}

cJSON* jsonInfo(const ImageInfo& info) {
  cJSON* item = cJSON_CreateObject();
  cJSON_AddStringToObject(item, "segment", info.segment.c_str());
  cJSON_AddBoolToObject(item, "read", info.read);
  cJSON_AddBoolToObject(item, "valid", info.valid);
  cJSON_AddNumberToObject(item, "count", static_cast<double>(info.count));
  cJSON_AddNumberToObject(item, "imageBytes", static_cast<double>(info.imageBytes));
  cJSON_AddNumberToObject(item, "segmentBytes", static_cast<double>(info.segmentBytes));
  cJSON_AddNumberToObject(item, "capacity", static_cast<double>(info.capacity));
  cJSON* lock = cJSON_AddObjectToObject(item, "lock");
  cJSON_AddStringToObject(lock, "state", lockKind(info.lock));
  if (info.lock.pid > 0) cJSON_AddNumberToObject(lock, "pid", info.lock.pid);
  cJSON_AddBoolToObject(lock, "recorded", info.lock.pid > 0);
  if (info.lock.pid > 0) {
    cJSON_AddStringToObject(lock, "program", info.lock.program.c_str());
    if (info.lock.heldSeconds >= 0) cJSON_AddNumberToObject(lock, "heldSeconds", info.lock.heldSeconds);
  }
  if (info.lock.waiter > 0) cJSON_AddNumberToObject(lock, "waiter", info.lock.waiter);
  if (info.lock.endedMidway > 0) cJSON_AddNumberToObject(lock, "endedMidway", info.lock.endedMidway);
  cJSON_AddNumberToObject(lock, "takeovers", info.lock.takeovers);
  if (info.lock.mutexMode != 0)
    cJSON_AddStringToObject(lock, "mutexMode", modeText(info.lock.mutexMode).c_str());
  cJSON* names = cJSON_AddArrayToObject(item, "names");
  for (const std::string& name : info.names) cJSON_AddItemToArray(names, cJSON_CreateString(name.c_str()));
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
    if (in.flag("json")) {
      Json doc(cJSON_CreateObject());
      cJSON* clips = cJSON_AddObjectToObject(doc.get(), "clips");
      cJSON_AddStringToObject(clips, "segment", options.clipSegment.c_str());
      cJSON_AddNumberToObject(clips, "segmentBytes", static_cast<double>(cache.ClipSegmentSize()));
      cJSON* playlists = cJSON_AddObjectToObject(doc.get(), "playlists");
      cJSON_AddStringToObject(playlists, "segment", options.playlistSegment.c_str());
      cJSON_AddNumberToObject(playlists, "segmentBytes", static_cast<double>(cache.PlaylistSegmentSize()));
      printJson(std::cout, doc.get());
      return 0;
    }
    std::cout << "clip segment " << options.clipSegment << ": " << cache.ClipSegmentSize() << " bytes\n"
              << "playlist segment " << options.playlistSegment << ": " << cache.PlaylistSegmentSize()
              << " bytes\n";
  } catch (const boost::interprocess::interprocess_exception& e) {
    throw Failure(std::string("cannot create the cache: ") + e.what());
  }
  return 0;
}

int run(Invocation& in) {
  const auto& args = in.args();
  const std::string& action = args[0];
  const MediaCacheOptions options = cacheOptionsFrom(in);
  if ((in.value("clips") || in.value("playlists")) && action != "create")
    throw UsageError("--clips and --playlists are for 'create'");
  if ((in.value("seconds") || in.value("lock")) && action != "hold")
    throw UsageError("--seconds and --lock are for 'hold'");
  if (in.flag("json") && action == "hold") throw UsageError("--json is not for 'hold'");

  if (action == "create") return create(in, options);
  if (action == "remove") {
    const int removed = MediaCache::Remove(options);
    if (in.flag("json")) {
      Json doc(cJSON_CreateObject());
      cJSON_AddNumberToObject(doc.get(), "removed", removed);
      cJSON* names = cJSON_AddArrayToObject(doc.get(), "names");
      for (const std::string* name :
           {&options.clipSegment, &options.clipLock, &options.playlistSegment, &options.playlistLock})
        cJSON_AddItemToArray(names, cJSON_CreateString(name->c_str()));
      printJson(std::cout, doc.get());
      return 0;
    }
    std::cout << "removed " << removed << " of 4 (" << options.clipSegment << ", " << options.clipLock << ", "
              << options.playlistSegment << ", " << options.playlistLock << ")\n";
    return 0;
  }
  if (action == "info") {
    auto cache = openExistingCache(in, options);
    const ImageInfo clips = clipInfo(*cache, options);
    const ImageInfo playlists = playlistInfo(*cache, options);
    if (in.flag("json")) {
      Json doc(cJSON_CreateObject());
      cJSON_AddItemToObject(doc.get(), "clips", jsonInfo(clips));
      cJSON_AddItemToObject(doc.get(), "playlists", jsonInfo(playlists));
      printJson(std::cout, doc.get());
    } else {
      printInfo(clips);
      printInfo(playlists);
    }
    return 0;
  }
  if (action == "repair") {
    auto cache = openExistingCache(in, options);
    const int tookOver = cache->RepairLocks();
    if (in.flag("json")) {
      Json doc(cJSON_CreateObject());
      cJSON_AddNumberToObject(doc.get(), "tookOver", tookOver);
      printJson(std::cout, doc.get());
      return 0;
    }
    std::cout << "took over " << tookOver << " lock" << (tookOver == 1 ? "" : "s")
              << " left held by processes that ended\n";
    return 0;
  }
  if (action == "hold") {
    // Holds one lock as every cache operation does, for trying out what
    // other processes see while it is held (or after this one is killed).
    const long long seconds = in.integer("seconds", 10, 0, 86400);
    const std::string which = in.value("lock").value_or("clip");
    if (which != "clip" && which != "playlist") throw UsageError("--lock must be clip or playlist");
    const bool playlists = which == "playlist";
    auto cache = openExistingCache(in, options);
    auto work = [&] {
      std::cout << "holding the " << (playlists ? "playlist" : "clip") << " lock as pid " << getpid()
                << " for " << seconds << " s" << std::endl;
      for (long long left = seconds; left > 0;) left = sleep(static_cast<unsigned>(left));
    };
    if (playlists)
      cache->HoldPlaylistLock(work);
    else
      cache->HoldClipLock(work);
    std::cout << "released" << std::endl;
    return 0;
  }
  if (action == "flush") {
    auto cache = openExistingCache(in, options);
    cache->Flush();
    if (in.flag("json")) {
      Json doc(cJSON_CreateObject());
      cJSON* flushed = cJSON_AddArrayToObject(doc.get(), "flushed");
      cJSON_AddItemToArray(flushed, cJSON_CreateString(options.clipSegment.c_str()));
      cJSON_AddItemToArray(flushed, cJSON_CreateString(options.playlistSegment.c_str()));
      printJson(std::cout, doc.get());
      return 0;
    }
    std::cout << "flushed " << options.clipSegment << " and " << options.playlistSegment << "\n";
    return 0;
  }
  throw UsageError("unknown action '" + action + "' (create, info, flush, repair, hold or remove)" +
                   didYouMean(action, {"create", "info", "flush", "repair", "hold", "remove"}));
}

std::vector<Option> cacheOptions() {
  std::vector<Option> options = cacheNameOptions();
  options.push_back({"clips", "N", "create: the most clips the clip segment holds (default 4000)"});
  options.push_back(
      {"playlists", "N", "create: the most playlists the playlist segment holds (default 200)"});
  options.push_back({"json", "", "create, info, flush, repair, remove: print JSON"});
  options.push_back({"seconds", "N", "hold: how long to hold the lock (default 10)"});
  options.push_back({"lock", "clip|playlist", "hold: which lock to hold (default clip)"});
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
    "size, the names in it, who holds its lock (pid, start time, alive or gone)\n"
    "and the mode of its mutex. 'flush' invalidates both\n"
    "images. A lock left held by a process that has provably ended is taken\n"
    "over by the next process that uses the cache; 'repair' does that at once.\n"
    "A holder outside this library is always waited for. 'hold' holds one lock\n"
    "for --seconds, to see what others see meanwhile. 'remove' deletes the\n"
    "segments and mutexes from the system.",
    cacheOptions(),
    run,
    1,
    1,
};
VORTA_REGISTER_COMMAND(kCache);

}  // namespace
