// vorta cache: create, inspect, flush and remove the shared clip and playlist caches.
#include <boost/interprocess/exceptions.hpp>
#include <cstring>
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

std::string lockText(const MediaCache::LockState& lock) {
  switch (lock.kind) {
    case MediaCache::LockState::Free:
      return "lock free";
    case MediaCache::LockState::Held:
      return lock.pid > 0 ? "lock held by pid " + std::to_string(lock.pid) + " (running)"
                          : "lock held (running)";
    case MediaCache::LockState::LeftHeld:
      return "lock left held by a process that ended (the next access takes it over; or 'vorta cache "
             "repair')";
    default:
      return "lock state unknown";
  }
}

ImageInfo clipInfo(MediaCache& cache, const MediaCacheOptions& options) {
  ImageInfo info;
  info.kind = "clip";
  info.segment = options.clipSegment;
  info.lock = cache.ClipLockState();
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
  if (info.valid)
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
  cJSON_AddBoolToObject(item, "valid", info.valid);
  cJSON_AddNumberToObject(item, "count", static_cast<double>(info.count));
  cJSON_AddNumberToObject(item, "imageBytes", static_cast<double>(info.imageBytes));
  cJSON_AddNumberToObject(item, "segmentBytes", static_cast<double>(info.segmentBytes));
  cJSON_AddNumberToObject(item, "capacity", static_cast<double>(info.capacity));
  cJSON* lock = cJSON_AddObjectToObject(item, "lock");
  cJSON_AddStringToObject(lock, "state", lockKind(info.lock));
  if (info.lock.pid > 0) cJSON_AddNumberToObject(lock, "pid", info.lock.pid);
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
  if (in.flag("json") && action != "info") throw UsageError("--json is for 'info'");

  if (action == "create") return create(in, options);
  if (action == "remove") {
    const int removed = MediaCache::Remove(options);
    std::cout << "removed " << removed << " of 4 (" << options.clipSegment << ", " << options.clipLock << ", "
              << options.playlistSegment << ", " << options.playlistLock << ")\n";
    return 0;
  }
  if (action == "info") {
    auto cache = openExistingCache(options);
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
    auto cache = openExistingCache(options);
    const int tookOver = cache->RepairLocks();
    std::cout << "took over " << tookOver << " lock" << (tookOver == 1 ? "" : "s")
              << " left held by processes that ended\n";
    return 0;
  }
  if (action == "flush") {
    auto cache = openExistingCache(options);
    cache->Flush();
    std::cout << "flushed " << options.clipSegment << " and " << options.playlistSegment << "\n";
    return 0;
  }
  throw UsageError("unknown action '" + action + "' (create, info, flush, repair or remove)");
}

std::vector<Option> cacheOptions() {
  std::vector<Option> options = cacheNameOptions();
  options.push_back({"clips", "N", "create: the most clips the clip segment holds (default 4000)"});
  options.push_back(
      {"playlists", "N", "create: the most playlists the playlist segment holds (default 200)"});
  options.push_back({"json", "", "info: print JSON"});
  return options;
}

const Command kCache{
    "cache",
    "create, inspect, flush or remove the shared clip and playlist caches",
    "create | info | flush | repair | remove",
    "The clip catalogue and the playlist cache live in two POSIX shared-memory\n"
    "segments, each guarded by a named mutex, shared by every process that uses\n"
    "libvorta. 'create' makes them (or grows them) for --clips and --playlists;\n"
    "a 4000-clip segment is 26 MB of address space, but memory is only used for\n"
    "what is written. 'info' shows whether each image is valid, its count, its\n"
    "size, the names in it and who holds its lock. 'flush' invalidates both\n"
    "images. A lock left held by a process that ended is taken over by the\n"
    "next process that uses the cache; 'repair' does that at once. 'remove'\n"
    "deletes the segments and mutexes from the system.",
    cacheOptions(),
    run,
    1,
    1,
};
VORTA_REGISTER_COMMAND(kCache);

}  // namespace
