// SPDX-License-Identifier: MIT
// Tests of both caches used by many processes at once: every read sees one whole image.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <exception>
#include <list>
#include <map>
#include <new>
#include <string>
#include <vector>

#include "cache_test_support.h"

namespace {

using namespace cache_test;
using vorta_test::TempDir;

constexpr int kProcesses = 8;
constexpr double kSeconds = 3.0;
constexpr int kUniverse = 24;   // clips that may be written
constexpr int kPlaylists = 12;  // playlist files that may be cached
constexpr std::uint32_t kMaxGenerations = 1u << 20;
// Stamped playlist entries carry their write's generation as modTime, above
// every file time used here.
constexpr int32_t kStampBase = 1 << 24;

// State shared by the test and its child processes (an anonymous shared mapping).
struct Board {
  std::atomic<int> failures;
  std::atomic<std::uint32_t> nextGeneration;
  std::atomic<long> clipReads;
  std::atomic<long> playlistReads;
  std::atomic<long> writes;
  char firstFailure[1024];
  // What each write wrote, by generation.
  std::uint32_t clipCount[kMaxGenerations];
  std::uint32_t playlistCount[kMaxGenerations];
};

double now() {
  struct timespec t;
  clock_gettime(CLOCK_MONOTONIC, &t);
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) / 1e9;
}

struct Random {
  explicit Random(std::uint32_t seed) : state(seed * 2654435761u + 1) {}
  std::uint32_t next() {
    state ^= state << 13;
    state ^= state >> 17;
    state ^= state << 5;
    return state;
  }
  int below(int n) { return static_cast<int>(next() % static_cast<std::uint32_t>(n)); }
  std::uint32_t state;
};

// The clips and playlist entries every process may write, identical in all of them.
struct World {
  std::vector<Clip> clips;
  std::vector<std::string> playlistPaths;
  std::map<std::string, PlaylistCacheEntry> entries;  // by key
};

std::string clipName(int i) {
  char name[16];
  std::snprintf(name, sizeof name, "U%02d.mov", i);
  return name;
}

class Worker {
 public:
  Worker(Board& board, const World& world, const MediaCacheOptions& options, int index)
      : board_(board), world_(world), cache_(options), random_(static_cast<std::uint32_t>(index + 1)) {}

  void run(double until) {
    while (now() < until && board_.nextGeneration.load() < kMaxGenerations - 2 * kProcesses) {
      switch (random_.below(12)) {
        case 0:
          writeClips(randomClips());
          break;
        case 1:
          addClip();
          break;
        case 2:
          removeClip();
          break;
        case 3:
          cache_.FlushClips();
          break;
        case 4:
          writePlaylists();
          break;
        case 5:
          cache_.AddPlaylist(world_.playlistPaths[static_cast<std::size_t>(random_.below(kPlaylists))]);
          break;
        case 6:
          cache_.RemovePlaylist(world_.playlistPaths[static_cast<std::size_t>(random_.below(kPlaylists))]);
          break;
        case 7:
          random_.below(4) == 0 ? cache_.FlushPlaylists() : cache_.InitializePlaylists();
          break;
        case 8:
          listPlaylists();
          break;
        case 9:
        case 10:
          readPlaylists();
          break;
        default:
          readClips();
          break;
      }
      if (board_.failures.load() > 0) return;
    }
    // Everyone ends with a write of both caches, so the last writer is known afterwards.
    std::list<Clip> last = randomClips();
    if (last.empty()) last.push_back(world_.clips[0]);
    writeClips(last);
    writePlaylists();
  }

 private:
  void fail(const std::string& what) {
    if (board_.failures.fetch_add(1) == 0)
      std::snprintf(board_.firstFailure, sizeof board_.firstFailure, "process %d: %s",
                    static_cast<int>(getpid()), what.c_str());
  }

  std::uint32_t generation() { return board_.nextGeneration.fetch_add(1); }

  std::list<Clip> randomClips() {
    std::list<Clip> out;
    const int n = random_.below(17);
    std::vector<bool> used(kUniverse, false);
    for (int i = 0; i < n; ++i) {
      const int pick = random_.below(kUniverse);
      if (used[static_cast<std::size_t>(pick)]) continue;
      used[static_cast<std::size_t>(pick)] = true;
      out.push_back(world_.clips[static_cast<std::size_t>(pick)]);
    }
    return out;
  }

  // Every record of a write carries the write's generation, the list's size
  // and its own position, so that a mixed or torn image cannot pass.
  void writeClips(std::list<Clip> clips) {
    const std::uint32_t g = generation();
    board_.clipCount[g] = static_cast<std::uint32_t>(clips.size());
    int32_t position = 0;
    for (Clip& c : clips) {
      c.width = static_cast<int32_t>(clips.size());
      c.height = static_cast<int32_t>(g);
      c.scanMode = position++;
    }
    cache_.WriteClipCacheToSharedMemory(clips);
    board_.writes.fetch_add(1);
  }

  // Reads the catalogue and checks it; false when the image is invalid.
  bool readClips(std::list<Clip>* out = nullptr) {
    std::list<Clip> clips;
    const int valid = cache_.ReadClipCacheFromSharedMemory(clips);
    board_.clipReads.fetch_add(1);
    if (valid == 0) {
      if (!clips.empty()) fail("an invalid clip image returned clips");
      return false;
    }
    if (!clips.empty()) {
      const std::uint32_t g = static_cast<std::uint32_t>(clips.front().height);
      if (g >= kMaxGenerations || board_.clipCount[g] != clips.size()) {
        fail("clip image of " + std::to_string(clips.size()) + " records does not match its write");
        return false;
      }
      int32_t position = 0;
      for (const Clip& c : clips) {
        if (static_cast<std::uint32_t>(c.height) != g || c.width != static_cast<int32_t>(clips.size()) ||
            c.scanMode != position++) {
          fail("clip image mixes records of different writes");
          return false;
        }
        int index = -1;
        if (std::sscanf(c.name, "U%d.mov", &index) != 1 || index < 0 || index >= kUniverse) {
          fail(std::string("unknown clip record ") + std::string(c.name, strnlen(c.name, 64)));
          return false;
        }
        Clip expected = world_.clips[static_cast<std::size_t>(index)];
        expected.width = c.width;
        expected.height = c.height;
        expected.scanMode = c.scanMode;
        if (!sameBytes(&expected, &c, Clip::kStoredSize)) {
          fail("torn clip record " + clipName(index));
          return false;
        }
      }
    }
    if (out != nullptr) *out = std::move(clips);
    return true;
  }

  void addClip() {
    std::list<Clip> clips;
    if (!readClips(&clips)) clips.clear();
    const Clip& extra = world_.clips[static_cast<std::size_t>(random_.below(kUniverse))];
    clips.remove_if([&extra](const Clip& c) { return std::strcmp(c.name, extra.name) == 0; });
    clips.push_back(extra);
    writeClips(clips);
  }

  void removeClip() {
    std::list<Clip> clips;
    if (!readClips(&clips) || clips.empty()) return;
    auto it = clips.begin();
    std::advance(it, random_.below(static_cast<int>(clips.size())));
    clips.erase(it);
    writeClips(clips);
  }

  void writePlaylists() {
    const std::uint32_t g = generation();
    PlaylistMap map;
    for (const auto& element : world_.entries)
      if (random_.below(2) == 0) map.insert(element);
    if (map.empty()) map.insert(*world_.entries.begin());
    for (auto& element : map) element.second.modTime = kStampBase + static_cast<int32_t>(g);
    board_.playlistCount[g] = static_cast<std::uint32_t>(map.size());
    cache_.WritePlaylistCacheToSharedMemory(map);
    board_.writes.fetch_add(1);
  }

  // Checks a playlist map read from the image: known entries only, whole,
  // and stamps of one write at most.
  void checkPlaylists(const PlaylistMap& map) {
    int32_t stamp = 0;
    std::uint32_t stamped = 0;
    for (const auto& element : map) {
      if (element.first == "All Clips") continue;
      const auto expected = world_.entries.find(element.first);
      if (expected == world_.entries.end()) return fail("unknown playlist key " + element.first);
      const PlaylistCacheEntry& e = element.second;
      if (!sameBytes(&e, &expected->second, offsetof(PlaylistCacheEntry, modTime)))
        return fail("torn playlist entry " + element.first);
      if (e.modTime >= kStampBase) {
        if (stamped > 0 && e.modTime != stamp)
          return fail("playlist image mixes entries of different writes");
        stamp = e.modTime;
        ++stamped;
      } else if (e.modTime != expected->second.modTime) {
        return fail("playlist entry " + element.first + " has a foreign time");
      }
    }
    if (stamped > 0 && stamped > board_.playlistCount[static_cast<std::uint32_t>(stamp - kStampBase)])
      fail("playlist image holds more entries of a write than it wrote");
  }

  void readPlaylists() {
    PlaylistMap map;
    const int valid = cache_.ReadPlaylistCacheFromSharedMemory(map);
    board_.playlistReads.fetch_add(1);
    if (valid == 0 && !map.empty()) return fail("an invalid playlist image returned playlists");
    checkPlaylists(map);
  }

  void listPlaylists() {
    const PlaylistMap map = cache_.GetPlaylists();
    if (map.count("All Clips") != 1) return fail("GetPlaylists without \"All Clips\"");
    checkPlaylists(map);
  }

  Board& board_;
  const World& world_;
  MediaCache cache_;
  Random random_;
};

// Many processes, each with its own cache object, add, remove, write, read
// and flush both caches for a few seconds. No read may ever see a torn or
// mixed image, and afterwards both images are those of the last writes.
TEST(ManyProcesses, ReadsAlwaysSeeWholeImagesAndTheLastWriteWins) {
  ScopedNames names(kUniverse, kPlaylists);
  TempDir dir;
  World world;
  for (int i = 0; i < kUniverse; ++i)
    world.clips.push_back(makeClip(clipName(i), 1000 + i, static_cast<unsigned>(i)));
  for (int i = 0; i < kPlaylists; ++i) {
    char name[32];
    std::snprintf(name, sizeof name, "L%02d", i);
    const std::string path = dir.file(std::string(name) + ".playlist");
    const std::string text =
        std::string("{\"name\":\"") + name + "\",\"cliplist\":[\"" + clipName(i) + "\"]}";
    writeFileAt(path, text, 5000 + i);
    world.playlistPaths.push_back(path);
    world.entries[name] = makeEntry(path, text, 5000 + i);
  }
  MediaCache parent(names.options);

  void* mapping = mmap(nullptr, sizeof(Board), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(mapping, MAP_FAILED);
  struct Unmap {
    void* p;
    ~Unmap() { munmap(p, sizeof(Board)); }
  } unmap{mapping};
  Board& board = *new (mapping) Board();

  const double until = now() + kSeconds;
  std::vector<pid_t> children;
  for (int i = 0; i < kProcesses; ++i) {
    const pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      int status = 0;
      try {
        Worker worker(board, world, names.options, i);
        worker.run(until);
      } catch (const std::exception& e) {
        if (board.failures.fetch_add(1) == 0)
          std::snprintf(board.firstFailure, sizeof board.firstFailure, "exception: %s", e.what());
        status = 1;
      }
      _exit(status);
    }
    children.push_back(pid);
  }

  // Wait for every child; a generous bound, so a loaded machine or an emulator only makes it slower.
  const double deadline = now() + 240.0;
  std::vector<pid_t> running = children;
  while (!running.empty()) {
    for (auto it = running.begin(); it != running.end();) {
      int status = 0;
      const pid_t done = waitpid(*it, &status, WNOHANG);
      if (done == *it) {
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0)
            << "child " << done << " status " << status;
        it = running.erase(it);
      } else {
        ++it;
      }
    }
    if (now() > deadline) {
      for (pid_t pid : running) {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
      }
      FAIL() << running.size() << " processes did not finish";
    }
    usleep(20000);
  }

  EXPECT_EQ(board.failures.load(), 0) << board.firstFailure;
  std::printf("%d processes: %ld clip reads, %ld playlist reads, %ld writes\n", kProcesses,
              board.clipReads.load(), board.playlistReads.load(), board.writes.load());
  EXPECT_GT(board.clipReads.load(), 0);
  EXPECT_GT(board.playlistReads.load(), 0);
  EXPECT_GE(board.writes.load(), 2 * kProcesses);

  // The clip image is the last write: one generation, its count.
  std::list<Clip> clips;
  ASSERT_EQ(parent.ReadClipCacheFromSharedMemory(clips), 1);
  ASSERT_FALSE(clips.empty());
  const std::uint32_t g = static_cast<std::uint32_t>(clips.front().height);
  ASSERT_LT(g, kMaxGenerations);
  EXPECT_EQ(clips.size(), board.clipCount[g]);
  EXPECT_EQ(slice(segmentBytes(names.options.clipSegment), 15, 4), native32(board.clipCount[g]));
  for (const Clip& c : clips) EXPECT_EQ(static_cast<std::uint32_t>(c.height), g);

  // So is the playlist image.
  PlaylistMap playlists;
  ASSERT_EQ(parent.ReadPlaylistCacheFromSharedMemory(playlists), 1);
  ASSERT_FALSE(playlists.empty());
  const int32_t stamp = playlists.begin()->second.modTime;
  ASSERT_GE(stamp, kStampBase);
  EXPECT_EQ(playlists.size(), board.playlistCount[static_cast<std::uint32_t>(stamp - kStampBase)]);
  for (const auto& element : playlists) EXPECT_EQ(element.second.modTime, stamp) << element.first;
}

}  // namespace
