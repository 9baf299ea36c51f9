// SPDX-License-Identifier: MIT
// vorta tests: caches under unique names removed afterwards, raw segment access, clip and byte helpers.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <boost/interprocess/mapped_region.hpp>
#include <boost/interprocess/shared_memory_object.hpp>
#include <cstdint>
#include <cstring>
#include <list>
#include <string>
#include <vector>

#include "media_cache.h"
#include "test_support.h"

namespace cache_test {

namespace bip = boost::interprocess;
using zev::media::MediaCache;
using zev::media::MediaCacheOptions;
using PlaylistMap = std::map<std::string, PlaylistCacheEntry>;

/// Segment and mutex names no other test uses, removed from the system when
/// the object goes (also when a test fails half-way).
struct ScopedNames {
  explicit ScopedNames(std::size_t maxClips = 8, std::size_t maxPlaylists = 4)
      : options(MediaCacheOptions::named(vorta_test::uniqueName("vorta_test_cache"))) {
    options.maxClips = maxClips;
    options.maxPlaylists = maxPlaylists;
    options.permissions = 0600;
  }
  ~ScopedNames() { MediaCache::Remove(options); }
  ScopedNames(const ScopedNames&) = delete;
  ScopedNames& operator=(const ScopedNames&) = delete;

  MediaCacheOptions options;
};

/// A copy of a whole segment, read without the cache's lock (tests only).
inline std::vector<unsigned char> segmentBytes(const std::string& name) {
  bip::shared_memory_object segment(bip::open_only, name.c_str(), bip::read_only);
  bip::mapped_region region(segment, bip::read_only);
  const unsigned char* base = static_cast<const unsigned char*>(region.get_address());
  return std::vector<unsigned char>(base, base + region.get_size());
}

/// Overwrites bytes of a segment directly, as a foreign or broken writer would.
inline void patchSegment(const std::string& name, std::size_t offset,
                         const std::vector<unsigned char>& bytes) {
  bip::shared_memory_object segment(bip::open_only, name.c_str(), bip::read_write);
  bip::mapped_region region(segment, bip::read_write);
  ASSERT_LE(offset + bytes.size(), region.get_size());
  std::memcpy(static_cast<unsigned char*>(region.get_address()) + offset, bytes.data(), bytes.size());
}

/// Fills a whole segment with one byte value.
inline void fillSegment(const std::string& name, unsigned char value) {
  bip::shared_memory_object segment(bip::open_only, name.c_str(), bip::read_write);
  bip::mapped_region region(segment, bip::read_write);
  std::memset(region.get_address(), value, region.get_size());
}

inline bool bigEndianHost() {
  const std::uint32_t probe = 0x01020304;
  unsigned char first;
  std::memcpy(&first, &probe, 1);
  return first == 0x01;
}

/// The four bytes of a 32-bit value as this machine stores it.
inline std::vector<unsigned char> native32(std::uint32_t v) {
  const std::vector<unsigned char> big = {static_cast<unsigned char>(v >> 24),
                                          static_cast<unsigned char>(v >> 16),
                                          static_cast<unsigned char>(v >> 8), static_cast<unsigned char>(v)};
  return bigEndianHost() ? big : std::vector<unsigned char>(big.rbegin(), big.rend());
}

inline void put(std::vector<unsigned char>& image, std::size_t offset,
                const std::vector<unsigned char>& bytes) {
  ASSERT_LE(offset + bytes.size(), image.size());
  std::copy(bytes.begin(), bytes.end(), image.begin() + static_cast<std::ptrdiff_t>(offset));
}

inline void putText(std::vector<unsigned char>& image, std::size_t offset, const std::string& text) {
  put(image, offset, std::vector<unsigned char>(text.begin(), text.end()));
}

inline std::vector<unsigned char> slice(const std::vector<unsigned char>& bytes, std::size_t offset,
                                        std::size_t n) {
  return std::vector<unsigned char>(bytes.begin() + static_cast<std::ptrdiff_t>(offset),
                                    bytes.begin() + static_cast<std::ptrdiff_t>(offset + n));
}

/// A clip with every stored field set, deterministic in its name and seed.
inline Clip makeClip(const std::string& name, int32_t modTime, unsigned seed = 1) {
  Clip c;
  std::memcpy(c.name, name.c_str(), std::min(name.size() + 1, Clip::kNameSize));
  c.modTime = modTime;
  std::memcpy(c.fourCC, "apcn", 5);
  c.width = static_cast<int32_t>(1920 + seed);
  c.height = static_cast<int32_t>(1080 + seed);
  c.videoLength = 1000u + seed;
  c.frameRate = 23.976;
  c.scanMode = static_cast<int32_t>(seed % 3);
  c.playable = (seed & 1) != 0;
  const std::string attributes =
      "Format\n1920x1080p23.98\nEncode Type\n" + std::to_string(seed % 10) + "\nAudio Chan\n4\n";
  std::memcpy(c.attributes.block, attributes.c_str(), attributes.size() + 1);
  return c;
}

inline std::vector<std::string> namesOf(const std::list<Clip>& clips) {
  std::vector<std::string> out;
  for (const Clip& c : clips) out.emplace_back(c.name, strnlen(c.name, Clip::kNameSize));
  return out;
}

inline std::vector<std::string> keysOf(const PlaylistMap& playlists) {
  std::vector<std::string> out;
  for (const auto& element : playlists) out.push_back(element.first);
  return out;
}

/// An entry filled as the playlist reader fills one.
inline PlaylistCacheEntry makeEntry(const std::string& path, const std::string& text, int32_t modTime) {
  PlaylistCacheEntry e{};
  std::memcpy(e.path, path.data(), std::min(path.size(), sizeof e.path));
  std::memcpy(e.text, text.data(), std::min(text.size(), sizeof e.text));
  e.modTime = modTime;
  return e;
}

inline bool sameBytes(const void* a, const void* b, std::size_t n) { return std::memcmp(a, b, n) == 0; }

inline bool allZero(const void* p, std::size_t n) {
  const unsigned char* bytes = static_cast<const unsigned char*>(p);
  return std::all_of(bytes, bytes + n, [](unsigned char b) { return b == 0; });
}

/// Writes a file and gives it a fixed modification time.
inline void writeFileAt(const std::string& path, const std::string& content, long modTime) {
  vorta_test::writeFile(path, content);
  struct timespec times[2];
  times[0].tv_sec = modTime;
  times[0].tv_nsec = 0;
  times[1] = times[0];
  ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0) << path;
}

}  // namespace cache_test
