// SPDX-License-Identifier: MIT
// Tests of CQTReadSequence: the movie reader's reads handed out one at a time are exactly
// the reads OpenForReading makes, and the sequence ends on every failure.
#define _FILE_OFFSET_BITS 64

#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "fail_alloc.h"
#include "mov_builder.h"
#include "qtstreaming.h"
#include "test_support.h"

namespace {

using vorta_test::dataPath;
using vorta_test::TempDir;
using vorta_test::writeFile;
using Reads = std::vector<std::pair<uint64_t, std::size_t>>;

// Every clip file committed, well-formed and malformed.
std::vector<std::string> fixtures() {
  std::vector<std::string> out;
  for (const std::string sub : {"qt", "qt/bad"}) {
    DIR* d = opendir(dataPath(sub).c_str());
    if (d == nullptr) continue;
    while (dirent* e = readdir(d)) {
      const std::string name = e->d_name;
      if (name.size() > 4 &&
          (name.substr(name.size() - 4) == ".mov" || name.substr(name.size() - 4) == ".MOV"))
        out.push_back(dataPath(sub + "/" + name));
    }
    closedir(d);
  }
  std::sort(out.begin(), out.end());
  return out;
}

// The sequence of a file, each read made with pread: the reads in order and
// the bytes they gave.
Reads readsOf(const std::string& path, uint64_t& bytes) {
  Reads reads;
  bytes = 0;
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  struct stat st;
  if (fd < 0 || fstat(fd, &st) != 0) return reads;
  CQTReadSequence sequence(static_cast<uint64_t>(st.st_size));
  uint64_t offset;
  std::size_t length;
  while (sequence.NextRead(offset, length)) {
    EXPECT_GT(length, 0u);
    reads.emplace_back(offset, length);
    unsigned char* buffer = sequence.ReadBuffer();
    if (buffer == nullptr) break;
    std::size_t got = 0;
    while (got < length) {
      const ssize_t n = pread(fd, buffer + got, length - got, static_cast<off_t>(offset + got));
      if (n <= 0) break;
      got += static_cast<std::size_t>(n);
    }
    bytes += got;
    sequence.ReadDone(got == length, 0);
  }
  EXPECT_TRUE(sequence.Finished());
  close(fd);
  return reads;
}

// For every committed clip, well-formed or not, the sequence reads exactly
// as many bytes as the reader does, and ends.
TEST(QtReadSequence, ReadsWhatTheReaderReadsOfEveryFixture) {
  const auto paths = fixtures();
  ASSERT_GE(paths.size(), 80u);
  for (const auto& path : paths) {
    SCOPED_TRACE(path);
    CQTStreaming reader;
    reader.OpenForReading(path);
    uint64_t bytes = 0;
    readsOf(path, bytes);
    EXPECT_EQ(bytes, reader.BytesRead());
  }
}

// A movie with its moov at the end: the head's window, the moov's header
// window, the rest of the moov, then the timecode sample at the start of
// the media data, which the first window held but the second replaced.
TEST(QtReadSequence, AMovieWithItsMoovAtTheEndTakesFourReads) {
  TempDir dir;
  movbuild::Movie m;
  m.timecode = true;
  m.startFrame = 90000;
  const std::size_t moov = movbuild::build(m).find("moov") - 4;
  const std::string file =
      movbuild::gapBeforeMoov(movbuild::build(m), 2000);  // the moov out of the first window
  const std::string path = dir.file("end.mov");
  writeFile(path, file);
  uint64_t bytes = 0;
  const Reads reads = readsOf(path, bytes);
  const uint64_t moovAt = moov + 2008;
  ASSERT_EQ(reads.size(), 4u);
  EXPECT_EQ(reads[0], std::make_pair(uint64_t{0}, std::size_t{512}));
  EXPECT_EQ(reads[1].first, moovAt);
  EXPECT_EQ(reads[1].second, 512u);
  EXPECT_EQ(reads[2].first, moovAt + 512);
  EXPECT_EQ(reads[2].first + reads[2].second, file.size());
  EXPECT_EQ(reads[3], std::make_pair(uint64_t{36}, std::size_t{4}));  // ftyp 20, wide 8, mdat header 8
}

// A read that fails ends the sequence: no further read is asked for,
// whatever the step (header, moov, timecode sample).
TEST(QtReadSequence, AFailedReadEndsTheSequence) {
  const std::string path = dataPath("qt/tc_ndf_25.mov");
  struct stat st;
  ASSERT_EQ(stat(path.c_str(), &st), 0);
  uint64_t bytes = 0;
  const std::size_t steps = readsOf(path, bytes).size();
  ASSERT_GE(steps, 2u);
  for (std::size_t failAt = 0; failAt < steps; ++failAt) {
    SCOPED_TRACE(failAt);
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    CQTReadSequence sequence(static_cast<uint64_t>(st.st_size));
    uint64_t offset;
    std::size_t length, step = 0;
    while (sequence.NextRead(offset, length)) {
      unsigned char* buffer = sequence.ReadBuffer();
      ASSERT_NE(buffer, nullptr);
      if (step++ == failAt) {
        sequence.ReadDone(false, EIO);
        // The timecode sample is the last read: the movie is had without it.
        EXPECT_FALSE(sequence.NextRead(offset, length));
        break;
      }
      ASSERT_EQ(pread(fd, buffer, length, static_cast<off_t>(offset)), static_cast<ssize_t>(length));
      sequence.ReadDone(true, 0);
    }
    EXPECT_TRUE(sequence.Finished());
    close(fd);
  }
}

// The walk over the fragments ends at a header read that meets the end of
// the file (error 0): the movie is had, and the timecode sample is then read
// whole from the file, none of it taken from the window the failed read was
// to fill. (The sample here sits at byte 0, where the last whole window
// began.)
TEST(QtReadSequence, AReadEndingTheFragmentWalkLeavesNoWindowBehind) {
  using namespace movbuild;
  // Two video samples in the moov, more in the fragment that is never read.
  const std::string tables = stts({{2, 1}}) + stsz(2) + stco(0);
  const std::string moov =
      atom("moov", atom("mvhd", zeros(100)) +
                       trak("vide", mdhd(25, 2), stsd(videoEntry("apch", 1920, 1080)) + tables, 1) +
                       trak("tmcd", mdhd(25, 1),
                            stsd(timecodeEntry(0, 25, 1, 25)) + stts({{1, 1}}) + stsz(1, 4) + stco(0), 2) +
                       atom("mvex", trex(1, 1, 0)));
  const std::string head = atom("ftyp", std::string("qt  ") + zeros(4) + "qt  ") + moov;
  ASSERT_GT(head.size(), 512u);  // the walk's first header is out of the first window
  const std::string file = head + fragment(1, {{1, samples(2, 1, 1000), ""}});
  CQTReadSequence sequence(file.size());
  uint64_t offset;
  std::size_t length;
  bool failed = false;
  while (sequence.NextRead(offset, length)) {
    unsigned char* buffer = sequence.ReadBuffer();
    ASSERT_NE(buffer, nullptr);
    if (offset == head.size()) {
      sequence.ReadDone(false, 0);
      failed = true;
      break;
    }
    ASSERT_LE(offset + length, file.size());
    std::memcpy(buffer, file.data() + offset, length);
    sequence.ReadDone(true, 0);
  }
  ASSERT_TRUE(failed);
  ASSERT_TRUE(sequence.NextRead(offset, length));
  EXPECT_EQ(offset, 0u);
  EXPECT_EQ(length, 4u);
}

// No memory for a read's buffer: ReadBuffer gives null and the sequence is
// finished; no memory at all for the sequence: it asks for nothing.
TEST(QtReadSequence, NoMemoryEndsTheSequence) {
  if (!vorta_test::allocationFailureAvailable()) GTEST_SKIP() << "a sanitizer owns malloc in this build";
  const std::string path = dataPath("qt/hd1080_p25.mov");
  struct stat st;
  ASSERT_EQ(stat(path.c_str(), &st), 0);
  EXPECT_EQ(vorta_test::inChild([&] {
              uint64_t offset;
              std::size_t length;
              {
                vorta_test::FailAlloc failing;
                CQTReadSequence none(static_cast<uint64_t>(st.st_size));
                if (none.NextRead(offset, length) || !none.Finished()) return 1;
              }
              CQTReadSequence sequence(static_cast<uint64_t>(st.st_size));
              // The head's window and the moov's header window: no allocation.
              const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
              for (int window = 0; window < 2; ++window) {
                if (!sequence.NextRead(offset, length) || length != 512) return 2;
                unsigned char* buffer = sequence.ReadBuffer();
                if (buffer == nullptr) return 3;
                if (pread(fd, buffer, length, static_cast<off_t>(offset)) != static_cast<ssize_t>(length))
                  return 4;
                sequence.ReadDone(true, 0);
              }
              close(fd);
              // The moov's rest is next, into memory of its own.
              if (!sequence.NextRead(offset, length)) return 5;
              vorta_test::FailAlloc failing;
              if (sequence.ReadBuffer() != nullptr) return 6;
              if (sequence.NextRead(offset, length) || !sequence.Finished()) return 7;
              return 0;
            }),
            0);
}

}  // namespace
