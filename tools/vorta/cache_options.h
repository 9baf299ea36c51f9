// SPDX-License-Identifier: MIT
// vorta tool: the options that name the shared caches, common to the cache and playlists commands.
#pragma once

#include <boost/interprocess/exceptions.hpp>
#include <cerrno>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "cli.h"
#include "media_cache.h"

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
  };
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
