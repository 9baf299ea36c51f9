// SPDX-License-Identifier: MIT
// vorta tool: the options that name the shared caches, common to the cache and playlists commands.
#pragma once

#include <boost/interprocess/exceptions.hpp>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "cli.h"
#include "media_cache.h"
#include "output.h"

namespace vorta {
namespace cli {

/// The options of every command that uses the shared caches: the names of
/// the two segments and their mutexes.
inline std::vector<Option> cacheNameOptions() {
  return {
      {"prefix", "NAME",
       "name the segments NAME.clips, NAME.playlists and their .lock mutexes (default: $VORTA_PREFIX, "
       "else vorta)"},
      {"clip-segment", "NAME", "the clip segment's name"},
      {"clip-lock", "NAME", "the clip mutex's name"},
      {"playlist-segment", "NAME", "the playlist segment's name"},
      {"playlist-lock", "NAME", "the playlist mutex's name"},
      {"wait", "SECONDS",
       "wait at most SECONDS for a cache's lock that another process holds, then fail (0: do not wait; "
       "default: as long as it takes)"},
  };
}

/// The line that tells who holds the lock a command waits for.
inline std::string lockWaitLine(const zev::media::LockWait& wait) {
  std::string line =
      std::string("waiting for the ") + (wait.playlist ? "playlist" : "clip") + " cache's lock, held by ";
  if (wait.pid <= 0) return line + "a process outside this library";
  line += "process " + std::to_string(wait.pid);
  if (!wait.program.empty()) line += " (" + wait.program + ")";
  if (wait.heldSeconds >= 0)
    line += " for " + std::to_string(static_cast<long long>(wait.heldSeconds)) + " s";
  return line;
}

/// --wait: how long a command waits for a held lock, as the library takes it (negative: for good).
inline double lockTimeoutOf(const Invocation& in) {
  const auto text = in.value("wait");
  if (!text) return -1;
  char* end = nullptr;
  errno = 0;
  const double seconds = std::strtod(text->c_str(), &end);
  if (text->empty() || end != text->c_str() + text->size() || errno != 0 ||
      !(seconds >= 0 && seconds <= 86400))
    throw UsageError("--wait must be a number of seconds from 0 to 86400, not '" + *text + "'");
  return seconds;
}

/// The prefix of the caches' names: --prefix, else $VORTA_PREFIX, else none
/// (the library's default names).
inline std::optional<std::string> prefixOf(const Invocation& in) {
  if (const auto prefix = in.value("prefix")) {
    if (prefix->empty()) throw UsageError("--prefix must not be empty");
    return prefix;
  }
  if (const char* env = std::getenv("VORTA_PREFIX"); env != nullptr && *env != '\0') return std::string(env);
  return std::nullopt;
}

/// The cache's names from the options (the library's defaults where none is given).
inline zev::media::MediaCacheOptions cacheOptionsFrom(const Invocation& in) {
  zev::media::MediaCacheOptions options;
  if (const auto prefix = prefixOf(in)) options = zev::media::MediaCacheOptions::named(*prefix);
  const struct {
    const char* option;
    std::string zev::media::MediaCacheOptions::*field;
  } names[] = {{"clip-segment", &zev::media::MediaCacheOptions::clipSegment},
               {"clip-lock", &zev::media::MediaCacheOptions::clipLock},
               {"playlist-segment", &zev::media::MediaCacheOptions::playlistSegment},
               {"playlist-lock", &zev::media::MediaCacheOptions::playlistLock}};
  for (const auto& name : names) {
    if (const auto value = in.value(name.option)) {
      if (value->empty() || value->find('/') != std::string::npos)
        throw UsageError(std::string("--") + name.option + " must be a name without '/'");
      options.*(name.field) = *value;
    }
  }
  // A wait for a held lock is said on standard error about a second in, and every few seconds
  // after; when --wait runs out, the same line, with how long it waited, ends the command.
  options.lockTimeout = lockTimeoutOf(in);
  const std::string command = in.command().name;
  options.onLockWait = [command](const zev::media::LockWait& wait) {
    if (!wait.timedOut) return warn(command, lockWaitLine(wait));
    char waited[32];
    std::snprintf(waited, sizeof waited, "%g", std::floor(wait.waitedSeconds * 10) / 10);
    throw Failure(lockWaitLine(wait) + "; gave up after " + waited + " s");
  };
  return options;
}

/// The name the operator gave the catalogue: the prefix, else the clip
/// segment's name when that alone was given, else the default prefix.
inline std::string catalogueName(const Invocation& in) {
  if (const auto prefix = prefixOf(in)) return *prefix;
  if (const auto segment = in.value("clip-segment")) return *segment;
  return "vorta";
}

/// How many clips (or playlists) a segment of size bytes holds.
inline std::uint64_t roomIn(std::uint64_t size, bool clips) {
  using zev::media::MediaCache;
  const std::uint64_t header = clips ? MediaCache::kClipHeaderSize : MediaCache::kPlaylistHeaderSize;
  const std::uint64_t slot = clips ? MediaCache::kClipSlotSize : MediaCache::kPlaylistSlotSize;
  return size >= header ? (size - header) / slot : 0;
}

/// Why the synthetic "All Clips" entry has no text, in words: the clips'
/// names do not fit a playlist's text; "" when it has one.
inline std::string allClipsProblem(const PlaylistCacheEntry& entry, std::size_t clips) {
  if (entry.text[0] != '\0') return "";
  return "the names of the " + std::to_string(clips) + " clips do not fit the " +
         std::to_string(sizeof entry.text - 1) + " characters of a playlist's text";
}

/// Runs open (which opens the caches without creating anything) and turns a
/// missing cache into the one line that says how to make it.
template <typename Open>
auto openExisting(const Invocation& in, const zev::media::MediaCacheOptions& options, Open open)
    -> decltype(open()) {
  try {
    return open();
  } catch (const boost::interprocess::interprocess_exception& e) {
    // Only a missing cache is helped by creating it; a refused one is not.
    if (e.get_native_error() == ENOENT)
      throw Failure("no catalogue '" + catalogueName(in) + "': run vorta scan or vorta cache create");
    throw Failure("cannot open the cache " + options.clipSegment + " / " + options.playlistSegment + ": " +
                  e.what());
  }
}

/// Opens the existing cache; a missing one is a failure that says how to make it.
inline std::unique_ptr<zev::media::MediaCache> openExistingCache(const Invocation& in,
                                                                 zev::media::MediaCacheOptions options) {
  options.create = false;
  return openExisting(in, options, [&] { return std::make_unique<zev::media::MediaCache>(options); });
}

}  // namespace cli
}  // namespace vorta
