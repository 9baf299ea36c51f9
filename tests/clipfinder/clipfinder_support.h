// SPDX-License-Identifier: MIT
// Tests of ClipFinder: a parameter store that records writes, and caches with unique names.
#pragma once

#include <cstring>
#include <list>
#include <string>
#include <utility>
#include <vector>

#include "clip.h"
#include "fileutils.h"
#include "media_cache.h"
#include "paramstore.h"
#include "test_support.h"

namespace clipfinder_test {

/// An in-memory parameter store that records every integer write.
class RecordingParams : public MemoryParamStore {
 public:
  int setParam(eParam_t id, uint32_t value) override {
    writes.emplace_back(id, value);
    return MemoryParamStore::setParam(id, value);
  }
  std::vector<uint32_t> busyWrites() const {
    std::vector<uint32_t> out;
    for (const auto& w : writes)
      if (w.first == eParamMediaBusy) out.push_back(w.second);
    return out;
  }
  std::vector<std::pair<eParam_t, uint32_t>> writes;
};

inline Clip clip(const std::string& name, bool playable = true, int32_t modTime = 0) {
  Clip c;
  std::memcpy(c.name, name.c_str(), std::min(name.size() + 1, Clip::kNameSize));
  c.playable = playable;
  c.modTime = modTime;
  return c;
}

inline std::vector<std::string> names(const std::list<Clip>& clips) {
  std::vector<std::string> out;
  for (const Clip& c : clips) out.emplace_back(c.name);
  return out;
}

/// Cache segments and mutexes with names no other test uses; removed at the end.
struct UniqueCaches {
  UniqueCaches();
  ~UniqueCaches();
  zev::media::MediaCacheOptions config;
};

}  // namespace clipfinder_test
