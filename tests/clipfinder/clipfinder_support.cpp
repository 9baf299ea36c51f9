// SPDX-License-Identifier: MIT
// Tests of ClipFinder: caches with unique names, removed at the end.
#include "clipfinder_support.h"

namespace clipfinder_test {

UniqueCaches::UniqueCaches()
    : config(zev::media::MediaCacheOptions::named(vorta_test::uniqueName("vorta_cf"))) {
  config.maxClips = 64;
  config.maxPlaylists = 8;
}

UniqueCaches::~UniqueCaches() { zev::media::MediaCache::Remove(config); }

}  // namespace clipfinder_test
