// SPDX-License-Identifier: MIT
// vorta tool: the options that name the shared caches, common to the cache and playlists commands.
#pragma once

#include <boost/interprocess/exceptions.hpp>
#include <cerrno>
#include <memory>
#include <string>
#include <vector>

#include "cli.h"
#include "media_cache.h"

namespace vorta {
namespace cli {

/// Options naming the two segments and their mutexes.
inline std::vector<Option> cacheNameOptions() {
  return {
      {"prefix", "NAME",
       "name the segments NAME.clips, NAME.playlists and their .lock mutexes (default vorta)"},
      {"clip-segment", "NAME", "the clip segment's name"},
      {"clip-lock", "NAME", "the clip mutex's name"},
      {"playlist-segment", "NAME", "the playlist segment's name"},
      {"playlist-lock", "NAME", "the playlist mutex's name"},
  };
}

/// The cache's names from the options (the library's defaults where none is given).
inline zev::media::MediaCacheOptions cacheOptionsFrom(const Invocation& in) {
  zev::media::MediaCacheOptions options;
  if (const auto prefix = in.value("prefix")) {
    if (prefix->empty()) throw UsageError("--prefix must not be empty");
    options = zev::media::MediaCacheOptions::named(*prefix);
  }
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

/// Opens the existing cache; a missing one is a failure that says how to make it.
inline std::unique_ptr<zev::media::MediaCache> openExistingCache(zev::media::MediaCacheOptions options) {
  options.create = false;
  try {
    return std::make_unique<zev::media::MediaCache>(options);
  } catch (const boost::interprocess::interprocess_exception& e) {
    // Only a missing cache is helped by creating it; a refused one is not.
    const bool missing = e.get_native_error() == ENOENT;
    throw Failure("cannot open the cache " + options.clipSegment + " / " + options.playlistSegment + ": " +
                  e.what() + (missing ? " (create it with 'vorta cache create')" : ""));
  }
}

}  // namespace cli
}  // namespace vorta
