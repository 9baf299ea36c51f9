// SPDX-License-Identifier: MIT
// Benchmarks: a directory of copies of the fixture clips, and the I/O floor of scanning one.
#pragma once

#define _FILE_OFFSET_BITS 64

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "media_cache.h"
#include "reader_floor.h"

namespace bench_support {

constexpr int kClips = 1000;

/// The directory of the committed clips: they sit beside this source, in
/// bench/../tests/data/qt.
inline std::string fixtureDir() {
  const std::string source = __FILE__;
  return source.substr(0, source.rfind('/')) + "/../tests/data/qt";
}

/// The names of the well-formed committed clips (not those in bad/), sorted.
inline std::vector<std::string> fixtureNames() {
  std::vector<std::string> fixtures;
  DIR* d = opendir(fixtureDir().c_str());
  if (!d) std::abort();
  while (dirent* e = readdir(d)) {
    const std::string name = e->d_name;
    if (name.size() > 4 && (name.substr(name.size() - 4) == ".mov" || name.substr(name.size() - 4) == ".MOV"))
      fixtures.push_back(name);
  }
  closedir(d);
  if (fixtures.empty()) std::abort();
  std::sort(fixtures.begin(), fixtures.end());
  return fixtures;
}

/// A catalogue and playlist cache of the benchmark's own, removed with it.
struct BenchCache {
  BenchCache(const std::string& prefix, std::size_t clips, std::size_t playlists)
      : options(zev::media::MediaCacheOptions::named(prefix + "_" + std::to_string(getpid()))) {
    options.maxClips = clips;
    options.maxPlaylists = playlists;
    cache.reset(new zev::media::MediaCache(options));
  }
  ~BenchCache() {
    cache.reset();
    zev::media::MediaCache::Remove(options);
  }
  zev::media::MediaCacheOptions options;
  std::unique_ptr<zev::media::MediaCache> cache;
};

/// A temporary directory holding kClips copies of the well-formed fixtures.
class ClipDir {
 public:
  ClipDir() {
    char pattern[] = "/tmp/bench_qt_XXXXXX";
    if (!mkdtemp(pattern)) std::abort();
    dir_ = pattern;
    const std::string source = fixtureDir();
    const std::vector<std::string> fixtures = fixtureNames();
    for (int i = 0; i < kClips; ++i) {
      const std::string& name = fixtures[static_cast<std::size_t>(i) % fixtures.size()];
      const std::string path = dir_ + "/" + std::to_string(i) + "_" + name;
      std::ifstream in(source + "/" + name, std::ios::binary);
      std::ofstream out(path, std::ios::binary);
      out << in.rdbuf();
      paths_.push_back(path);
    }
  }
  ~ClipDir() {
    for (const auto& p : paths_) unlink(p.c_str());
    for (const auto& p : extra_) unlink(p.c_str());
    rmdir(dir_.c_str());
  }
  const std::vector<std::string>& paths() const { return paths_; }
  const std::string& dir() const { return dir_; }
  /// Writes one more file into the directory (removed with it).
  void addFile(const std::string& name, const std::string& content) {
    const std::string path = dir_ + "/" + name;
    std::ofstream(path, std::ios::binary) << content;
    extra_.push_back(path);
  }

 private:
  std::string dir_;
  std::vector<std::string> paths_;
  std::vector<std::string> extra_;
};

inline uint32_t be32(const unsigned char* p) {
  return (uint32_t(p[0]) << 24) | (uint32_t(p[1]) << 16) | (uint32_t(p[2]) << 8) | uint32_t(p[3]);
}

/// True when the moov body holds an 'mvex' child: a fragmented movie.
inline bool holdsMovieExtends(const std::vector<unsigned char>& moov) {
  std::size_t at = 0;
  while (moov.size() - at >= 8) {
    const uint32_t size = be32(moov.data() + at);
    if (be32(moov.data() + at + 4) == 0x6D766578) return true;  // 'mvex'
    if (size < 8 || size > moov.size() - at) return false;
    at += size;
  }
  return false;
}

/// The least any scanner must do: stat, open, read the top-level atom
/// headers up to the moov, read the whole moov, and for a fragmented movie
/// the headers after it and every moof whole; close.
inline std::size_t ioFloor(const std::string& path, std::vector<unsigned char>& moov) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0) return 0;
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return 0;
  const uint64_t size = static_cast<uint64_t>(st.st_size);
  uint64_t offset = 0;
  std::size_t got = 0;
  bool fragments = false;
  std::vector<unsigned char> moof;
  while (size - offset >= 8) {
    unsigned char h[16];
    if (pread(fd, h, 16, static_cast<off_t>(offset)) < 8) break;
    uint64_t atomSize = be32(h);
    uint64_t header = 8;
    if (atomSize == 1) {
      atomSize = (uint64_t(be32(h + 8)) << 32) | be32(h + 12);
      header = 16;
    } else if (atomSize == 0) {
      atomSize = size - offset;
    }
    if (atomSize < header || atomSize > size - offset) break;
    const uint32_t type = be32(h + 4);
    if (!fragments && type == 0x6D6F6F76) {  // 'moov'
      moov.resize(static_cast<std::size_t>(atomSize - header));
      const ssize_t n = pread(fd, moov.data(), moov.size(), static_cast<off_t>(offset + header));
      got = n > 0 ? static_cast<std::size_t>(n) : 0;
      if (!holdsMovieExtends(moov)) break;
      fragments = true;
    } else if (fragments && type == 0x6D6F6F66) {  // 'moof'
      moof.resize(static_cast<std::size_t>(atomSize - header));
      const ssize_t n = pread(fd, moof.data(), moof.size(), static_cast<off_t>(offset + header));
      got += n > 0 ? static_cast<std::size_t>(n) : 0;
    }
    offset += atomSize;
  }
  close(fd);
  return got;
}

}  // namespace bench_support
