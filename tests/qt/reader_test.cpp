// SPDX-License-Identifier: MIT
// Tests of the QuickTime movie reader: real encoder clips against ffprobe's table,
// built movies for the cases no encoder writes, and malformed files.
#define _FILE_OFFSET_BITS 64

#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <cmath>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "mov_builder.h"
#include "probe_table.h"
#include "qtstreaming.h"
#include "test_support.h"

namespace {

using vorta_test::dataPath;
using vorta_test::TempDir;
using vorta_test::writeFile;

std::string codeText(uint32_t code) {
  std::string s;
  for (int shift = 24; shift >= 0; shift -= 8) s += static_cast<char>((code >> shift) & 0xFF);
  return s;
}

// The frame number a time code text stands for (";" marks drop frame).
uint32_t frameNumber(const std::string& tc, unsigned fps) {
  const unsigned h = std::stoul(tc.substr(0, 2)), m = std::stoul(tc.substr(3, 2)),
                 s = std::stoul(tc.substr(6, 2)), f = std::stoul(tc.substr(9, 2));
  const unsigned minutes = h * 60 + m;
  unsigned n = (minutes * 60 + s) * fps + f;
  if (tc[8] == ';') n -= (fps / 15) * (minutes - minutes / 10);
  return n;
}

// Every committed clip, from ffmpeg, GStreamer and libquicktime, reads as
// ffprobe and mediainfo read it: the exact rate ffprobe gives (and
// mediainfo's within 0.005), the frame count both read, the field order,
// and the start time code. Where the two tools differ, the rule that
// settles it is named in probe_table.h.
TEST(QtReaderFixtures, EveryClipMatchesFfprobe) {
  const auto rows = probe_table::rows();
  ASSERT_GE(rows.size(), 55u);
  for (const auto& r : rows) {
    SCOPED_TRACE(r["file"]);
    CQTStreaming reader;
    ASSERT_TRUE(reader.OpenForReading(dataPath("qt/" + r["file"])));
    CQTVideoConfiguration video;
    CQTAudioConfiguration audio;
    EXPECT_TRUE(reader.GetConfiguration(video));
    EXPECT_TRUE(reader.GetConfiguration(audio));
    EXPECT_EQ(codeText(video.codecType), r["codec_tag"]);
    EXPECT_EQ(video.width, r.number("width"));
    EXPECT_EQ(video.height, r.number("height"));
    EXPECT_EQ(std::to_string(video.frameRateNumerator) + "/" + std::to_string(video.frameRateDenominator),
              r["rate"]);
    EXPECT_NEAR(video.frameRate, r.rate("rate"), 1e-9);
    EXPECT_NEAR(video.frameRate, r.rate("mi_rate"), 0.005);
    EXPECT_EQ(video.videoLength, static_cast<uint32_t>(r.number("frames")));
    EXPECT_EQ(video.videoLength, static_cast<uint32_t>(r.number("mi_frames")));
    EXPECT_EQ(video.fieldMode, r.fieldMode());
    // ffprobe calls the same clips interlaced.
    const bool interlaced = r["field_order"] != "progressive" && r["field_order"] != "unknown";
    EXPECT_EQ(video.fieldMode != 0, interlaced) << r["field_order"];
    EXPECT_EQ(reader.audioTrackCount, static_cast<unsigned>(r.number("audio_streams")));
    const auto channels = probe_table::split(r["audio_channels"], ',');
    EXPECT_EQ(audio.audioChannelsPerTrack, r["audio_channels"] == "-" ? 0u : std::stoul(channels[0]));
    uint32_t start = 12345;
    const std::string tc = r.timecode();
    if (tc == "-") {
      EXPECT_FALSE(reader.GetStartingTimecode(start));
      EXPECT_EQ(start, 12345u);
      EXPECT_EQ(video.dropFrame, 0u);
    } else {
      ASSERT_TRUE(reader.GetStartingTimecode(start));
      EXPECT_EQ(start, frameNumber(tc, static_cast<unsigned>(std::lround(video.frameRate))));
      EXPECT_EQ(video.dropFrame, tc[8] == ';' ? 1u : 0u);
    }
  }
}

TEST(QtReaderFixtures, KnownValuesOfRealClips) {
  CQTStreaming reader;
  CQTVideoConfiguration video;
  ASSERT_TRUE(reader.OpenForReading(dataPath("qt/tc_df_2997.mov")));
  reader.GetConfiguration(video);
  uint32_t start = 0;
  ASSERT_TRUE(reader.GetStartingTimecode(start));
  EXPECT_EQ(start, 107892u);  // 01:00:00;00 drop frame
  EXPECT_EQ(video.dropFrame, 1u);
  EXPECT_EQ(video.codecType, 0x6170636Fu);  // 'apco'
  EXPECT_DOUBLE_EQ(video.frameRate, 30000.0 / 1001.0);

  ASSERT_TRUE(reader.OpenForReading(dataPath("qt/tc_df_5994.mov")));
  ASSERT_TRUE(reader.GetStartingTimecode(start));
  EXPECT_EQ(start, 215784u);

  ASSERT_TRUE(reader.OpenForReading(dataPath("qt/tc_ndf_25.mov")));
  ASSERT_TRUE(reader.GetStartingTimecode(start));
  EXPECT_EQ(start, 900000u);  // 10:00:00:00 at 25
}

TEST(QtReaderFixtures, EightMonoTracksAreAllCountedThoughOnlyTheFirstIsEnabled) {
  CQTStreaming reader;
  ASSERT_TRUE(reader.OpenForReading(dataPath("qt/audio_8x1.mov")));
  CQTAudioConfiguration audio;
  reader.GetConfiguration(audio);
  EXPECT_EQ(reader.audioTrackCount, 8u);
  EXPECT_EQ(audio.audioChannelsPerTrack, 1u);
}

TEST(QtReaderFixtures, HighRateAudioUsesVersionTwoDescription) {
  // 96 kHz does not fit the 16.16 rate field, so ffmpeg writes version 2.
  const std::string bytes = vorta_test::readFile(dataPath("qt/audio_96k.mov"));
  const auto lpcm = bytes.find("lpcm");
  ASSERT_NE(lpcm, std::string::npos);
  EXPECT_EQ(bytes[lpcm + 12], '\0');
  EXPECT_EQ(bytes[lpcm + 13], '\2');
  CQTStreaming reader;
  ASSERT_TRUE(reader.OpenForReading(dataPath("qt/audio_96k.mov")));
  CQTAudioConfiguration audio;
  reader.GetConfiguration(audio);
  EXPECT_EQ(audio.audioChannelsPerTrack, 2u);
}

TEST(QtReaderFixtures, ReadsOnlyHeadersAndMovieAtom) {
  // The DNxHD clip is mostly media data: a scan must not read it.
  const std::string path = dataPath("qt/dnxhd_720p23976.mov");
  struct stat st;
  ASSERT_EQ(stat(path.c_str(), &st), 0);
  CQTStreaming reader;
  ASSERT_TRUE(reader.OpenForReading(path));
  EXPECT_LT(reader.BytesRead(), 4096u);
  EXPECT_GT(st.st_size, 300000);
}

// Malformed files: what the reader does with each one.
struct BadCase {
  const char* file;
  bool opens;          // some damage leaves the video readable
  uint32_t length;     // then: the frames read
  uint32_t dropFrame;  //       the time code's drop-frame flag
  int64_t start;       //       the start frame, -1 when unreadable
};
const BadCase kBadCases[] = {
    {"empty.mov", false, 0, 0, -1},
    {"text.mov", false, 0, 0, -1},
    {"random.mov", false, 0, 0, -1},
    {"trunc_header.mov", false, 0, 0, -1},
    {"trunc_mdat.mov", false, 0, 0, -1},
    {"trunc_moov.mov", false, 0, 0, -1},
    {"trunc_fast_moov.mov", false, 0, 0, -1},
    {"trunc_moov_mid.mov", false, 0, 0, -1},
    {"moov_beyond_file.mov", false, 0, 0, -1},
    {"size_below_8.mov", false, 0, 0, -1},
    {"size0_mid.mov", false, 0, 0, -1},
    {"child_beyond_parent.mov", false, 0, 0, -1},
    {"size64_garbage.mov", false, 0, 0, -1},
    {"huge_stts_count.mov", false, 0, 0, -1},
    {"huge_stsd_count.mov", false, 0, 0, -1},
    {"huge_stsz_count.mov", false, 0, 0, -1},
    {"video_no_stsd_entry.mov", false, 0, 0, -1},
    {"deep_nesting.mov", false, 0, 0, -1},
    {"ftyp_only.mov", false, 0, 0, -1},
    {"moov_empty.mov", false, 0, 0, -1},
    // A time code sample outside the file: the video is read, the time code not.
    {"tc_offset_past_end.mov", true, 3, 1, -1},
    {"tc_sample_cut.mov", true, 3, 1, -1},
    // Fragmented (one frame a fragment, 01:00:00:00 at 25 in the first).
    // Cut in the last fragment's media: the four fragments before it count.
    {"frag_cut_last.mov", true, 4, 0, 90000},
    // A 64-bit mdat size past the end of the file ends the walk after two.
    {"frag_size64_past_end.mov", true, 2, 0, 90000},
    // The first run claims more samples than the file holds: no video.
    {"frag_huge_run.mov", false, 0, 0, -1},
    // The first run lists more samples than its box holds: no video.
    {"frag_run_overflow.mov", false, 0, 0, -1},
    // GStreamer's fragments with a time code: the moov's last atom is cut
    // and nothing after it is a fragment, so the video has no sample
    // (ffprobe reads no frame of it either).
    {"gst_frag_tc_broken.mov", false, 0, 0, -1},
};

TEST(QtReaderMalformed, EveryBadFixtureIsListed) {
  std::set<std::string> listed;
  for (const auto& c : kBadCases) listed.insert(c.file);
  DIR* dir = opendir(dataPath("qt/bad").c_str());
  ASSERT_NE(dir, nullptr);
  std::set<std::string> present;
  while (dirent* e = readdir(dir))
    if (e->d_name[0] != '.') present.insert(e->d_name);
  closedir(dir);
  EXPECT_EQ(present, listed);
}

TEST(QtReaderMalformed, BadFilesAreRefusedOrReadAsFarAsTheyGo) {
  for (const auto& c : kBadCases) {
    SCOPED_TRACE(c.file);
    CQTStreaming reader;
    const bool opened = reader.OpenForReading(dataPath(std::string("qt/bad/") + c.file));
    EXPECT_EQ(opened, c.opens);
    CQTVideoConfiguration video;
    CQTAudioConfiguration audio;
    uint32_t start = 77;
    EXPECT_EQ(reader.GetConfiguration(video), c.opens);
    EXPECT_EQ(reader.GetConfiguration(audio), c.opens);
    EXPECT_EQ(reader.GetStartingTimecode(start), c.start >= 0);
    EXPECT_EQ(start, c.start >= 0 ? static_cast<uint32_t>(c.start) : 77u);
    if (!c.opens) {
      EXPECT_EQ(video.codecType, 0u);
      EXPECT_EQ(reader.audioTrackCount, 0u);
    } else {
      EXPECT_EQ(video.codecType, 0x6170636Fu);
      EXPECT_EQ(video.videoLength, c.length);
      EXPECT_EQ(video.dropFrame, c.dropFrame);
    }
    // The reader reads nothing twice but a few top-level atom headers.
    struct stat st;
    ASSERT_EQ(stat(dataPath(std::string("qt/bad/") + c.file).c_str(), &st), 0);
    EXPECT_LE(reader.BytesRead(), static_cast<uint64_t>(st.st_size) + 64);
  }
}

TEST(QtReaderMalformed, MissingDirectoryAndPipeAreRefused) {
  TempDir dir;
  CQTStreaming reader;
  EXPECT_FALSE(reader.OpenForReading(dir.file("absent.mov")));
  EXPECT_FALSE(reader.OpenForReading(dir.path()));
  const std::string fifo = dir.file("pipe.mov");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  // Opening a FIFO for reading would wait for a writer: keep one open.
  const int writer = open(fifo.c_str(), O_RDWR | O_NONBLOCK);
  ASSERT_GE(writer, 0);
  EXPECT_FALSE(reader.OpenForReading(fifo));
  close(writer);
  EXPECT_EQ(reader.BytesRead(), 0u);
}

TEST(QtReaderMalformed, AFailedOpenForgetsThePreviousMovie) {
  CQTStreaming reader;
  ASSERT_TRUE(reader.OpenForReading(dataPath("qt/audio_2x2.mov")));
  EXPECT_EQ(reader.audioTrackCount, 2u);
  EXPECT_FALSE(reader.OpenForReading(dataPath("qt/bad/text.mov")));
  EXPECT_EQ(reader.audioTrackCount, 0u);
  CQTVideoConfiguration video;
  EXPECT_FALSE(reader.GetConfiguration(video));
  uint32_t start;
  EXPECT_FALSE(reader.GetStartingTimecode(start));
}

TEST(QtReaderMalformed, NothingOpenFillsNothing) {
  CQTStreaming reader;
  CQTVideoConfiguration video;
  video.width = 5;
  EXPECT_FALSE(reader.GetConfiguration(video));
  EXPECT_EQ(video.width, 5);
  CQTAtomConfiguration other;
  ASSERT_TRUE(reader.OpenForReading(dataPath("qt/rate_24.mov")));
  EXPECT_FALSE(reader.GetConfiguration(other));
}

// A new record says nothing: every field zero, and no audio channel.
TEST(QtReaderMalformed, NewRecordsAreEmpty) {
  const CQTVideoConfiguration video;
  EXPECT_EQ(video.width, 0);
  EXPECT_EQ(video.height, 0);
  EXPECT_EQ(video.fieldMode, 0u);
  EXPECT_EQ(video.dropFrame, 0u);
  EXPECT_EQ(video.codecType, 0u);
  EXPECT_EQ(video.frameRate, 0.0);
  EXPECT_EQ(video.videoLength, 0u);
  EXPECT_EQ(video.frameRateNumerator, 0u);
  EXPECT_EQ(video.frameRateDenominator, 0u);
  EXPECT_EQ(CQTAudioConfiguration().audioChannelsPerTrack, 0u);
  const CQTStreaming reader;
  EXPECT_EQ(reader.audioTrackCount, 0u);
  EXPECT_EQ(reader.BytesRead(), 0u);
  EXPECT_EQ(reader.OpenError(), 0);
}

// Built movies.
class QtReaderBuilt : public ::testing::Test {
 protected:
  bool open(const std::string& bytes) {
    path_ = dir_.file("movie.mov");
    writeFile(path_, bytes);
    return reader_.OpenForReading(path_);
  }
  CQTVideoConfiguration video() {
    CQTVideoConfiguration v;
    reader_.GetConfiguration(v);
    return v;
  }
  uint16_t channels() {
    CQTAudioConfiguration a;
    reader_.GetConfiguration(a);
    return a.audioChannelsPerTrack;
  }
  TempDir dir_;
  std::string path_;
  CQTStreaming reader_;
};

TEST_F(QtReaderBuilt, BasicMovieFieldsInOrder) {
  movbuild::Movie m;
  m.codec = "AVdn";
  m.width = 1280;
  m.height = 720;
  m.timescale = 60000;
  m.sampleDuration = 1001;
  m.frames = 7;
  ASSERT_TRUE(open(movbuild::build(m)));
  const auto v = video();
  EXPECT_EQ(v.codecType, 0x4156646Eu);
  EXPECT_EQ(v.width, 1280);
  EXPECT_EQ(v.height, 720);
  EXPECT_EQ(v.fieldMode, 0u);
  EXPECT_EQ(v.dropFrame, 0u);
  EXPECT_DOUBLE_EQ(v.frameRate, 60000.0 / 1001.0);
  EXPECT_EQ(v.videoLength, 7u);
  EXPECT_EQ(reader_.audioTrackCount, 0u);
  EXPECT_EQ(channels(), 0u);
}

// Field details 1 and 9 are top first, 6 and 14 bottom first; two fields
// with any other detail are interlaced in an order not stated (3), never
// progressive.
TEST_F(QtReaderBuilt, FieldAtomValues) {
  const std::vector<std::pair<std::pair<int, int>, uint32_t>> cases = {
      {{1, 0}, 0}, {{2, 1}, 1}, {{2, 6}, 2}, {{2, 9}, 1}, {{2, 14}, 2},
      {{3, 1}, 0}, {{0, 9}, 0}, {{2, 0}, 3}, {{2, 7}, 3}, {{2, 2}, 3}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.second);
    movbuild::Movie m;
    m.extensions = movbuild::atom("colr", std::string("nclc") + movbuild::zeros(6)) +
                   movbuild::fiel(static_cast<uint8_t>(c.first.first), static_cast<uint8_t>(c.first.second));
    ASSERT_TRUE(open(movbuild::build(m)));
    EXPECT_EQ(video().fieldMode, c.second);
  }
}

TEST_F(QtReaderBuilt, SoundDescriptionVersions) {
  movbuild::Movie m;
  m.audio = {{0, 2}, {1, 2}, {2, 6}};
  ASSERT_TRUE(open(movbuild::build(m)));
  EXPECT_EQ(reader_.audioTrackCount, 3u);
  EXPECT_EQ(channels(), 2u);
  m.audio = {{2, 6}};
  ASSERT_TRUE(open(movbuild::build(m)));
  EXPECT_EQ(channels(), 6u);
  m.audio = {{1, 4}};
  ASSERT_TRUE(open(movbuild::build(m)));
  EXPECT_EQ(channels(), 4u);
  m.audio = {{2, 70000}};  // more channels than the 16-bit record holds: unreadable
  ASSERT_TRUE(open(movbuild::build(m)));
  EXPECT_EQ(reader_.audioTrackCount, 1u);
  EXPECT_EQ(channels(), 0u);
}

// The channels are those of the first sound track that says how many it
// has: a first track of no channels leaves them to the next.
TEST_F(QtReaderBuilt, ChannelsFromTheFirstSoundTrackThatHasSome) {
  movbuild::Movie m;
  m.audio = {{0, 0}, {0, 2}, {0, 6}};
  ASSERT_TRUE(open(movbuild::build(m)));
  EXPECT_EQ(channels(), 2u);
  EXPECT_EQ(reader_.audioTrackCount, 3u);
}

TEST_F(QtReaderBuilt, TimecodeThroughStcoAndCo64) {
  movbuild::Movie m;
  m.timescale = 30000;
  m.sampleDuration = 1001;
  m.timecode = true;
  m.timecodeFlags = 0x1 | 0x2;
  m.startFrame = 0x01020304;
  ASSERT_TRUE(open(movbuild::build(m)));
  uint32_t start = 0;
  ASSERT_TRUE(reader_.GetStartingTimecode(start));
  EXPECT_EQ(start, 0x01020304u);
  EXPECT_EQ(video().dropFrame, 1u);
  m.timecodeCo64 = true;
  m.timecodeFlags = 0x2;
  m.moovFirst = true;
  ASSERT_TRUE(open(movbuild::build(m)));
  ASSERT_TRUE(reader_.GetStartingTimecode(start));
  EXPECT_EQ(start, 0x01020304u);
  EXPECT_EQ(video().dropFrame, 0u);
}

TEST_F(QtReaderBuilt, SixtyFourBitAndToTheEndSizesAndPadding) {
  using namespace movbuild;
  Movie m;
  const std::string normal = build(m);
  // ftyp(20) wide(8) mdat moov: rebuild as ftyp free skip wide mdat64 moov(size 0).
  const std::string ftyp = normal.substr(0, 20);
  const std::size_t moovAt = normal.find("moov") - 4;
  const std::string moovBody = normal.substr(moovAt + 8);
  const std::string bytes = ftyp + atom("free", zeros(30)) + atom("skip", "") + atom("wide", "") +
                            atom64("mdat", zeros(100)) + be32(0) + "moov" + moovBody;
  ASSERT_TRUE(open(bytes));
  EXPECT_EQ(video().videoLength, 3u);
  // A 64-bit sized moov, first.
  ASSERT_TRUE(open(ftyp + atom64("moov", moovBody) + atom("mdat", zeros(10))));
  EXPECT_EQ(video().width, 1920);
}

// A child atom of size 0 runs to the end of its parent: here the video
// track, the moov's last child.
TEST_F(QtReaderBuilt, ChildOfSizeZeroRunsToTheEndOfItsParent) {
  using namespace movbuild;
  std::string bytes = build(Movie());
  const std::size_t trakAt = bytes.find("trak") - 4;
  bytes.replace(trakAt, 4, be32(0));
  ASSERT_TRUE(open(bytes));
  EXPECT_EQ(video().width, 1920);
  EXPECT_EQ(video().videoLength, 3u);
}

// In every container the reader looks into (trak, mdia, minf, stbl) the
// first child of a type counts and a later one of that type is ignored;
// a malformed child ends the container: nothing after it is seen.
TEST_F(QtReaderBuilt, EachContainerGivesTheFirstChildOfATypeUpToAMalformedOne) {
  using namespace movbuild;
  const std::string ftyp = atom("ftyp", std::string("qt  ") + zeros(4) + "qt  ");
  auto movie = [&](const std::string& trakBody) {
    return ftyp + atom("moov", atom("mvhd", zeros(100)) + atom("trak", trakBody));
  };
  auto stbl = [](uint16_t width, uint32_t frames) {
    return atom("stbl", stsd(videoEntry("apch", width, 1080)) + stts({{frames, 1}}) + stsz(frames) + stco(0));
  };
  auto mdia = [&](uint32_t timescale, const std::string& handler, uint16_t width, uint32_t frames) {
    return atom("mdia", mdhd(timescale, frames) + hdlr(handler) + atom("minf", stbl(width, frames)));
  };
  const std::string bad = be32(4) + "junk";

  // Two of each in the stbl, two minf, two mdhd and hdlr, two mdia.
  const std::string doubled =
      atom("stbl", stsd(videoEntry("apch", 1920, 1080)) + stsd(videoEntry("apch", 1280, 1080)) +
                       stts({{3, 1}}) + stts({{9, 1}}) + stsz(3) + stsz(9) + stco(0) + stco(0));
  const std::string doubledMdia = atom("mdia", mdhd(25, 3) + hdlr("vide") + mdhd(50, 9) + hdlr("soun") +
                                                   atom("minf", doubled) + atom("minf", stbl(640, 7)));
  ASSERT_TRUE(open(movie(tkhd(1) + doubledMdia + mdia(30, "vide", 720, 5))));
  EXPECT_EQ(video().width, 1920);
  EXPECT_EQ(video().videoLength, 3u);
  EXPECT_DOUBLE_EQ(video().frameRate, 25.0);
  EXPECT_EQ(reader_.audioTrackCount, 0u);

  // A malformed child before the stbl's time table: a video track without one.
  EXPECT_FALSE(
      open(movie(atom("mdia", mdhd(25, 3) + hdlr("vide") +
                                  atom("minf", atom("stbl", stsd(videoEntry("apch", 1920, 1080)) + bad +
                                                                stts({{3, 1}}) + stsz(3) + stco(0)))))));
  // ... before the handler: no video track at all.
  EXPECT_FALSE(open(movie(atom("mdia", mdhd(25, 3) + bad + hdlr("vide") + atom("minf", stbl(1920, 3))))));
  // ... before the mdia, or the minf's stbl.
  EXPECT_FALSE(open(movie(tkhd(1) + bad + mdia(25, "vide", 1920, 3))));
  EXPECT_FALSE(open(movie(atom("mdia", mdhd(25, 3) + hdlr("vide") + atom("minf", bad + stbl(1920, 3))))));
  // After them it changes nothing.
  ASSERT_TRUE(open(movie(mdia(25, "vide", 1920, 3) + bad)));
  EXPECT_EQ(video().videoLength, 3u);
}

// Atom headers are read a few hundred bytes at a time: headers, 64-bit
// headers and the movie atom placed on every side of such a boundary are
// read right, and no byte of the file is read twice.
TEST_F(QtReaderBuilt, HeadersAcrossEveryReadBoundary) {
  using namespace movbuild;
  Movie m;
  m.timecode = true;
  m.startFrame = 90000;
  const std::string normal = build(m);
  const std::string ftyp = normal.substr(0, 20);
  const std::size_t moovAt = normal.find("moov") - 4;
  const std::string moov = normal.substr(moovAt);
  const std::string mdat = normal.substr(20, moovAt - 20);  // wide and mdat with the timecode sample
  for (std::size_t pad = 8; pad < 1100; pad += pad < 440 || pad > 560 ? 37 : 1) {
    for (int layout = 0; layout < 3; ++layout) {
      std::string bytes;
      if (layout == 0) bytes = ftyp + atom("free", zeros(pad - 8)) + mdat + moov;
      if (layout == 1)
        bytes = ftyp + atom64("free", zeros(pad - 8)) + atom64("skip", zeros(pad)) + mdat + moov;
      if (layout == 2) bytes = ftyp + atom("free", zeros(pad - 8)) + moov + mdat;
      // The timecode sample's offset in the chunk table moves with the padding.
      if (layout != 2) {
        const std::size_t shift = bytes.find(mdat) - 20;
        const std::size_t stco = bytes.rfind("stco");
        if (stco != std::string::npos) {
          uint32_t offset = 0;
          for (int i = 0; i < 4; ++i) offset = offset << 8 | static_cast<unsigned char>(bytes[stco + 12 + i]);
          offset += static_cast<uint32_t>(shift);
          for (int i = 0; i < 4; ++i) bytes[stco + 12 + i] = static_cast<char>(offset >> (24 - 8 * i));
        }
      }
      const uint64_t before = reader_.BytesRead();  // a count over the reader's life
      ASSERT_TRUE(open(bytes)) << "pad " << pad << " layout " << layout;
      EXPECT_EQ(video().videoLength, 3u) << "pad " << pad << " layout " << layout;
      EXPECT_EQ(video().width, 1920) << "pad " << pad << " layout " << layout;
      uint32_t start = 0;
      if (layout != 2) {
        EXPECT_TRUE(reader_.GetStartingTimecode(start)) << "pad " << pad << " layout " << layout;
        EXPECT_EQ(start, 90000u) << "pad " << pad << " layout " << layout;
      }
      EXPECT_LE(reader_.BytesRead() - before, bytes.size() + 4) << "pad " << pad << " layout " << layout;
    }
  }
}

TEST_F(QtReaderBuilt, MediaHeaderVersionOne) {
  movbuild::Movie m;
  m.mdhdVersion1 = true;
  m.timescale = 24000;
  m.sampleDuration = 1001;
  ASSERT_TRUE(open(movbuild::build(m)));
  EXPECT_DOUBLE_EQ(video().frameRate, 24000.0 / 1001.0);
}

TEST_F(QtReaderBuilt, VideoTrackWithoutSizeOrRateIsRefused) {
  movbuild::Movie m;
  m.width = 0;
  EXPECT_FALSE(open(movbuild::build(m)));
  m = movbuild::Movie();
  m.timescale = 0;
  EXPECT_FALSE(open(movbuild::build(m)));
  m = movbuild::Movie();
  m.sampleDuration = 0;
  EXPECT_FALSE(open(movbuild::build(m)));
  m = movbuild::Movie();
  m.frames = 0;
  EXPECT_FALSE(open(movbuild::build(m)));
}

TEST_F(QtReaderBuilt, TrackWithoutVideoIsRefused) {
  using namespace movbuild;
  const std::string ftyp = atom("ftyp", std::string("qt  ") + zeros(4));
  const std::string sound =
      trak("soun", mdhd(48000, 48000), stsd(soundEntry(0, 2)) + stts({{1, 1}}) + stsz(1, 6));
  EXPECT_FALSE(open(ftyp + atom("moov", sound)));
  // A 'vide' track whose sample description is too short for a picture.
  const std::string shortEntry = be32(16) + "apch" + zeros(8);
  const std::string video = trak("vide", mdhd(25, 75), stsd(shortEntry) + stts({{3, 1}}) + stsz(3));
  EXPECT_FALSE(open(ftyp + atom("moov", video)));
}

TEST_F(QtReaderBuilt, MovieAtomBeyondTheCapIsRefusedUnread) {
  // A sparse file whose moov claims 100 MB: refused before any of it is read.
  const std::string path = dir_.file("big.mov");
  const std::string head = movbuild::atom("ftyp", "qt  ") + movbuild::be32(100u << 20) + "moov";
  writeFile(path, head);
  ASSERT_EQ(truncate(path.c_str(), static_cast<off_t>(head.size() - 8 + (100u << 20))), 0);
  EXPECT_FALSE(reader_.OpenForReading(path));
  EXPECT_LT(reader_.BytesRead(), 1024u);
}

TEST_F(QtReaderBuilt, MovieAfterSeveralGigabytesOfSparseMediaReadsKilobytes) {
  // ftyp, a 64-bit mdat of 5 GB that is never written, then the moov of a real clip.
  const std::string clip = vorta_test::readFile(dataPath("qt/hd1080_p25.mov"));
  const std::size_t moovAt = clip.rfind("moov") - 4;
  const std::string moov = clip.substr(moovAt);
  const uint64_t media = 5ull << 30;
  const std::string head = clip.substr(0, 20) + movbuild::be32(1) + "mdat" + movbuild::be64(16 + media);
  const std::string path = dir_.file("long.mov");
  const int fd = ::open(path.c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0600);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(pwrite(fd, head.data(), head.size(), 0), static_cast<ssize_t>(head.size()));
  const off_t moovOffset = static_cast<off_t>(head.size() + media);
  const ssize_t wrote = pwrite(fd, moov.data(), moov.size(), moovOffset);
  close(fd);
  if (wrote != static_cast<ssize_t>(moov.size()))
    GTEST_SKIP() << "the file system refuses a 5 GB sparse file";
  struct stat st;
  ASSERT_EQ(stat(path.c_str(), &st), 0);
  if (static_cast<uint64_t>(st.st_blocks) * 512 > (64u << 20))
    GTEST_SKIP() << "the file system does not keep holes";

  ASSERT_TRUE(reader_.OpenForReading(path));
  EXPECT_EQ(video().width, 1920);
  EXPECT_EQ(video().videoLength, 2u);
  EXPECT_LT(reader_.BytesRead(), 8192u);
  EXPECT_GE(reader_.BytesRead(), moov.size());
}

}  // namespace
