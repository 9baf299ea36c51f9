// SPDX-License-Identifier: MIT
// Tests of the QuickTime file scanner CZEVQTFileParams and the factory CFileParams::create.
#define _FILE_OFFSET_BITS 64

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "mov_builder.h"
#include "probe_table.h"
#include "test_support.h"
#include "zevqtfileparams.h"

namespace {

using vorta_test::dataPath;
using vorta_test::TempDir;
using vorta_test::writeFile;

std::unique_ptr<CFileParams> scan(const std::string& path) {
  return std::unique_ptr<CFileParams>(CFileParams::create(path.c_str()));
}

std::string block(const CFileParams& p) { return std::string(p.attributes.block); }

class QtScannerBuilt : public ::testing::Test {
 protected:
  std::unique_ptr<CFileParams> scanBuilt(const movbuild::Movie& m) {
    const std::string path = dir_.file("built" + std::to_string(++n_) + ".mov");
    writeFile(path, movbuild::build(m));
    return scan(path);
  }
  static movbuild::Movie movie(uint32_t timescale, uint32_t duration, int fields = 0, int order = 0) {
    movbuild::Movie m;
    m.timescale = timescale;
    m.sampleDuration = duration;
    if (fields) m.extensions = movbuild::fiel(static_cast<uint8_t>(fields), static_cast<uint8_t>(order));
    return m;
  }
  /// 1280x720 with a drop-frame time code starting at 01:00:00;00 of 59.94.
  static movbuild::Movie hd720DropFrame(uint32_t timescale, uint32_t duration) {
    movbuild::Movie m = movie(timescale, duration);
    m.width = 1280;
    m.height = 720;
    m.timecode = true;
    m.timecodeFlags = 0x1;
    m.startFrame = 215784;
    return m;
  }
  TempDir dir_;
  int n_ = 0;
};

TEST_F(QtScannerBuilt, Rate23976InterlacedIsPsfAndRoundsToTwoPlaces) {
  auto p = scanBuilt(movie(24000, 1001, 2, 1));
  ASSERT_TRUE(p->FileIsValid());
  EXPECT_EQ(p->scanMode, 1);
  EXPECT_DOUBLE_EQ(p->frameRate, 24000.0 / 1001.0);
  EXPECT_EQ(p->attributes.getAttributesMap()["Format"], "1920x1080psf23.98");
}

TEST_F(QtScannerBuilt, Rate24ProgressiveIsPWithoutDecimals) {
  auto p = scanBuilt(movie(24, 1));
  ASSERT_TRUE(p->FileIsValid());
  EXPECT_EQ(p->scanMode, 0);
  EXPECT_EQ(p->attributes.getAttributesMap()["Format"], "1920x1080p24");
}

TEST_F(QtScannerBuilt, Rate25BottomFirstIsInterlacedWith25FpsTimecode) {
  movbuild::Movie m = movie(12800, 512, 2, 6);
  m.timecode = true;
  m.startFrame = 90;  // 3 s 15 frames at 25 fps (3 s 0 frames at 30)
  auto p = scanBuilt(m);
  ASSERT_TRUE(p->FileIsValid());
  EXPECT_EQ(p->scanMode, 2);
  auto map = p->attributes.getAttributesMap();
  EXPECT_EQ(map["Format"], "1920x1080i25");
  EXPECT_EQ(map["Starting TC"], "00:00:03:15");
}

// Two fields in an order the field atom does not state (the reader says 3):
// the Format text says interlaced, the scan mode is left as it was.
TEST_F(QtScannerBuilt, OtherFieldOrderIsInterlacedTextButKeepsScanMode) {
  movbuild::Movie m = movie(25, 1, 2, 7);
  const std::string path = dir_.file("order7.mov");
  writeFile(path, movbuild::build(m));
  auto p = scan(path);
  ASSERT_TRUE(p->FileIsValid());
  EXPECT_EQ(p->scanMode, 0);  // the constructor's zero, untouched
  EXPECT_EQ(p->attributes.getAttributesMap()["Format"], "1920x1080i25");

  // A scan over a record whose scanMode was set keeps that value.
  CZEVQTFileParams again(dataPath("qt/rate_24.mov").c_str());
  again.scanMode = 42;
  std::memset(again.attributes.block, 0, sizeof again.attributes.block);
  ASSERT_TRUE(again.scanFile(path.c_str()));
  EXPECT_EQ(again.scanMode, 42);
}

TEST_F(QtScannerBuilt, Rate48HasUnknownTimecodeFormat) {
  movbuild::Movie m = movie(48, 1);
  m.timecode = true;
  m.startFrame = 100;  // the unknown format counts 30 a second
  auto p = scanBuilt(m);
  ASSERT_TRUE(p->FileIsValid());
  auto map = p->attributes.getAttributesMap();
  EXPECT_EQ(map["Format"], "1920x1080p48");
  EXPECT_EQ(map["Starting TC"], "00:00:03:10");
}

TEST_F(QtScannerBuilt, Rate2997WithDropFlagUsesDropFrameFormat) {
  movbuild::Movie m = movie(30000, 1001, 2, 1);
  m.timecode = true;
  m.timecodeFlags = 0x1;
  m.startFrame = 107892;
  auto p = scanBuilt(m);
  ASSERT_TRUE(p->FileIsValid());
  auto map = p->attributes.getAttributesMap();
  EXPECT_EQ(map["Format"], "1920x1080i29.97");
  EXPECT_EQ(map["Starting TC"], "01:00:00;00");
  m.timecodeFlags = 0;
  p = scanBuilt(m);
  EXPECT_EQ(p->attributes.getAttributesMap()["Starting TC"], "00:59:56:12");
}

TEST_F(QtScannerBuilt, Rate5994DropAndSixty) {
  movbuild::Movie m = hd720DropFrame(60000, 1001);
  auto p = scanBuilt(m);
  auto map = p->attributes.getAttributesMap();
  EXPECT_EQ(map["Format"], "1280x720p59.94");
  EXPECT_EQ(map["Starting TC"], "01:00:00;00");
  m = movie(50, 1);
  m.timecode = true;
  m.startFrame = 180000;
  EXPECT_EQ(scanBuilt(m)->attributes.getAttributesMap()["Starting TC"], "01:00:00:00");
}

// 59.94 stored on a millisecond clock (durations 16 and 17) is 59.94 in the
// Format text and counts its drop-frame time code at 60 drop frame; 60
// stored so counts at 60.
TEST_F(QtScannerBuilt, RoundedDurationsGiveTheStandardRateAndTimecode) {
  movbuild::Movie m = hd720DropFrame(1000, 17);
  m.durations = movbuild::roundedDurations(1000, 60000, 1001, 60);
  auto p = scanBuilt(m);
  ASSERT_TRUE(p->FileIsValid());
  EXPECT_DOUBLE_EQ(p->frameRate, 60000.0 / 1001.0);
  EXPECT_EQ(p->videoLength, 60u);
  auto map = p->attributes.getAttributesMap();
  EXPECT_EQ(map["Format"], "1280x720p59.94");
  EXPECT_EQ(map["Starting TC"], "01:00:00;00");
  m.durations = movbuild::roundedDurations(1000, 60, 1, 60);
  m.timecodeFlags = 0;
  m.startFrame = 216000;
  p = scanBuilt(m);
  map = p->attributes.getAttributesMap();
  EXPECT_EQ(map["Format"], "1280x720p60");
  EXPECT_EQ(map["Starting TC"], "01:00:00:00");
}

// Field details 9 and 14, what writers put on interlaced whole frames,
// give scan modes 1 and 2.
TEST_F(QtScannerBuilt, FieldDetailsNineAndFourteenAreInterlaced) {
  auto p = scanBuilt(movie(25, 1, 2, 9));
  EXPECT_EQ(p->scanMode, 1);
  EXPECT_EQ(p->attributes.getAttributesMap()["Format"], "1920x1080i25");
  p = scanBuilt(movie(25, 1, 2, 14));
  EXPECT_EQ(p->scanMode, 2);
  EXPECT_EQ(p->attributes.getAttributesMap()["Format"], "1920x1080i25");
}

// 24 fps with fields is psf like 23.976; both count their time code at 24.
TEST_F(QtScannerBuilt, Rate24InterlacedIsPsfAndCountsAt24) {
  movbuild::Movie m = movie(24, 1, 2, 1);
  m.timecode = true;
  m.startFrame = 86400 + 24 * 61 + 5;  // 01:01:01:05 at 24 fps
  auto p = scanBuilt(m);
  ASSERT_TRUE(p->FileIsValid());
  auto map = p->attributes.getAttributesMap();
  EXPECT_EQ(map["Format"], "1920x1080psf24");
  EXPECT_EQ(map["Starting TC"], "01:01:01:05");
  m = movie(24000, 1001, 2, 1);
  m.timecode = true;
  m.startFrame = 86400;
  map = scanBuilt(m)->attributes.getAttributesMap();
  EXPECT_EQ(map["Format"], "1920x1080psf23.98");
  EXPECT_EQ(map["Starting TC"], "01:00:00:00");
}

// The rates just outside the table's (22.5 below 23, 31 above 30) count
// their time code in the unknown format, at 30 a second without drop frames
// even when the movie's time code says drop frame; 30 itself honours it.
TEST_F(QtScannerBuilt, RatesBesideTheTableHaveUnknownTimecodeFormat) {
  movbuild::Movie m = movie(45, 2, 2, 1);  // 22.5 fps, interlaced
  m.timecode = true;
  m.startFrame = 100;
  auto p = scanBuilt(m);
  ASSERT_TRUE(p->FileIsValid());
  auto map = p->attributes.getAttributesMap();
  EXPECT_EQ(map["Format"], "1920x1080i22.50");
  EXPECT_EQ(map["Starting TC"], "00:00:03:10");

  m = movie(31, 1);
  m.timecode = true;
  m.timecodeFlags = 0x1;
  m.startFrame = 107892;
  map = scanBuilt(m)->attributes.getAttributesMap();
  EXPECT_EQ(map["Format"], "1920x1080p31");
  EXPECT_EQ(map["Starting TC"], "00:59:56:12");

  m.timescale = 30;
  map = scanBuilt(m)->attributes.getAttributesMap();
  EXPECT_EQ(map["Format"], "1920x1080p30");
  EXPECT_EQ(map["Starting TC"], "01:00:00;00");
  m.timecodeFlags = 0;
  EXPECT_EQ(scanBuilt(m)->attributes.getAttributesMap()["Starting TC"], "00:59:56:12");
}

// A rate past the range of an int (here 2^32 - 1 frames a second) is kept
// as read, printed with two places, and counts its time code as unknown.
TEST_F(QtScannerBuilt, RatePastTheIntRangeIsPrintedWithTwoPlaces) {
  movbuild::Movie m = movie(4294967295u, 1, 2, 1);
  m.timecode = true;
  m.startFrame = 100;
  auto p = scanBuilt(m);
  ASSERT_TRUE(p->FileIsValid());
  EXPECT_DOUBLE_EQ(p->frameRate, 4294967295.0);
  auto map = p->attributes.getAttributesMap();
  EXPECT_EQ(map["Format"], "1920x1080i4294967295.00");
  EXPECT_EQ(map["Starting TC"], "00:00:03:10");
}

// readError is for failures of the system: a scanned file, and a file
// refused for its codec, leave it 0.
TEST_F(QtScannerBuilt, ReadErrorStaysZeroWhenTheFileWasRead) {
  auto p = scanBuilt(movie(25, 1));
  ASSERT_TRUE(p->FileIsValid());
  EXPECT_EQ(static_cast<CZEVQTFileParams&>(*p).readError, 0);
  movbuild::Movie m = movie(25, 1);
  m.codec = "AVdn";
  p = scanBuilt(m);
  ASSERT_FALSE(p->FileIsValid());
  EXPECT_EQ(static_cast<CZEVQTFileParams&>(*p).readError, 0);
}

// Every bit of every byte of the codec code reaches fourCC, the lowest
// ones included: a code made of odd bytes (0x71 0x73 0x77 0x31).
TEST_F(QtScannerBuilt, FourCCKeepsEveryBitOfTheCodecCode) {
  movbuild::Movie m = movie(25, 1);
  m.codec = "qsw1";
  auto p = scanBuilt(m);
  EXPECT_FALSE(p->FileIsValid());
  EXPECT_EQ(std::string(p->fourCC, 4), "qsw1");
}

// The channel count is cut to the 7 characters its 8-byte text holds:
// 200 tracks of 65535 channels are 13107000 channels, written "1310700".
TEST_F(QtScannerBuilt, ChannelCountIsCutToSevenCharacters) {
  movbuild::Movie m = movie(25, 1);
  m.audio.assign(200, {0, 65535});
  auto p = scanBuilt(m);
  ASSERT_TRUE(p->FileIsValid());
  EXPECT_EQ(p->attributes.getAttributesMap()["Audio Chan"], "1310700");
  // Seven characters exactly are kept whole: 16 tracks, 1048560 channels.
  m.audio.assign(16, {0, 65535});
  EXPECT_EQ(scanBuilt(m)->attributes.getAttributesMap()["Audio Chan"], "1048560");
}

// A product of channels and tracks past the int range is printed signed:
// 65535 tracks of 65535 channels are 0xFFFE0001, "-131071", which fills the
// seven characters exactly; 40000 tracks give -1673567296, cut to "-167356".
TEST_F(QtScannerBuilt, ChannelProductPastTheIntRangeIsPrintedSignedAndCut) {
  movbuild::Movie m = movie(25, 1);
  m.audio = {{0, 65535}};
  const std::string built = movbuild::build(m);
  // The first sound track gives the channels; every further one needs only
  // its handler to count.
  const std::string bare = movbuild::atom("trak", movbuild::atom("mdia", movbuild::hdlr("soun")));
  auto withTracks = [&](std::size_t tracks) {
    std::string file = built;
    for (std::size_t i = 1; i < tracks; ++i) file += bare;
    const std::size_t moov = file.rfind("moov") - 4;  // the moov runs to the end
    file.replace(moov, 4, movbuild::be32(static_cast<uint32_t>(file.size() - moov)));
    const std::string path = dir_.file("tracks" + std::to_string(tracks) + ".mov");
    writeFile(path, file);
    return scan(path);
  };
  auto p = withTracks(65535);
  ASSERT_TRUE(p->FileIsValid());
  EXPECT_EQ(p->attributes.getAttributesMap()["Audio Chan"], "-131071");
  p = withTracks(40000);
  ASSERT_TRUE(p->FileIsValid());
  EXPECT_EQ(p->attributes.getAttributesMap()["Audio Chan"], "-167356");
}

// A whole rate is printed without decimals and any other with two, the
// suffix chosen by the truncated rate: 23 with fields is psf, 22 is i, and
// half a frame a second truncates to 0 but is printed "0.50".
TEST_F(QtScannerBuilt, WholeAndFractionalRatesAndTheirSuffixes) {
  EXPECT_EQ(scanBuilt(movie(23, 1, 2, 1))->attributes.getAttributesMap()["Format"], "1920x1080psf23");
  EXPECT_EQ(scanBuilt(movie(22, 1, 2, 1))->attributes.getAttributesMap()["Format"], "1920x1080i22");
  EXPECT_EQ(scanBuilt(movie(25, 1, 2, 1))->attributes.getAttributesMap()["Format"], "1920x1080i25");
  EXPECT_EQ(scanBuilt(movie(23, 1))->attributes.getAttributesMap()["Format"], "1920x1080p23");
  EXPECT_EQ(scanBuilt(movie(1, 2))->attributes.getAttributesMap()["Format"], "1920x1080p0.50");
  EXPECT_EQ(scanBuilt(movie(49, 2, 2, 1))->attributes.getAttributesMap()["Format"], "1920x1080psf24.50");
  // 1 frame in 8 ticks of 1: 0.125, a tie in binary, is printed as printf rounds it.
  EXPECT_EQ(scanBuilt(movie(1, 8))->attributes.getAttributesMap()["Format"], "1920x1080p0.12");
  movbuild::Movie m = movie(100, 1);
  m.width = 8;
  m.height = 2;
  EXPECT_EQ(scanBuilt(m)->attributes.getAttributesMap()["Format"], "8x2p100");
}

TEST_F(QtScannerBuilt, UnknownCodecIsInvalidAfterFieldsAreWritten) {
  movbuild::Movie m = movie(24000, 1001);
  m.codec = "AVdn";
  m.width = 1280;
  m.height = 720;
  auto p = scanBuilt(m);
  ASSERT_NE(p, nullptr);
  EXPECT_FALSE(p->FileIsValid());
  EXPECT_EQ(std::string(p->fourCC, 4), "AVdn");
  EXPECT_EQ(p->width, 1280);
  EXPECT_EQ(p->videoLength, 3u);
  EXPECT_EQ(block(*p), "");
}

TEST_F(QtScannerBuilt, TwoStereoTracksGiveFourChannels) {
  movbuild::Movie m = movie(25, 1);
  m.audio = {{1, 2}, {1, 2}};
  auto p = scanBuilt(m);
  ASSERT_TRUE(p->FileIsValid());
  EXPECT_EQ(p->attributes.getAttributesMap()["Audio Chan"], "4");
}

TEST_F(QtScannerBuilt, AttributeBlockBytesInWriterOrder) {
  movbuild::Movie m = movie(30000, 1001, 2, 1);
  m.codec = "apco";
  auto p = scanBuilt(m);
  ASSERT_TRUE(p->FileIsValid());
  EXPECT_EQ(block(*p), "Format\n1920x1080i29.97\nEncode Type\n3\nAudio Chan\n0\nStarting TC\n00:00:00:00\n");
  EXPECT_EQ(std::string(p->fourCC, 4), "apco");
}

TEST_F(QtScannerBuilt, LargestPictureAndOddRateFitTheFormatText) {
  movbuild::Movie m = movie(1000003, 7);  // 142857.57... fps
  m.width = 65535;
  m.height = 65535;
  auto p = scanBuilt(m);
  ASSERT_TRUE(p->FileIsValid());
  EXPECT_EQ(p->attributes.getAttributesMap()["Format"], "65535x65535p142857.57");
}

TEST(QtScannerFactory, NameRules) {
  TempDir dir;
  EXPECT_NE(scan(dir.file("CLIP.MOV")), nullptr);
  EXPECT_NE(scan(dir.file("clip.mov")), nullptr);
  EXPECT_EQ(scan(dir.file("clip.Mov")), nullptr);
  EXPECT_EQ(scan(dir.file("clip.mp4")), nullptr);
  // A substring test: a directory named like a movie makes any file a candidate.
  auto p = scan(dir.file("a.movie/x.txt"));
  ASSERT_NE(p, nullptr);
  EXPECT_FALSE(p->FileIsValid());
  EXPECT_EQ(p->fileName, dir.file("a.movie/x.txt"));
  EXPECT_EQ(CFileParams::create(nullptr), nullptr);
}

TEST(QtScannerFactory, MissingFileGivesInvalidRecordWithNothingWritten) {
  TempDir dir;
  auto p = scan(dir.file("gone.mov"));
  ASSERT_NE(p, nullptr);
  EXPECT_FALSE(p->FileIsValid());
  EXPECT_EQ(p->width, 0);
  EXPECT_EQ(p->videoLength, 0u);
  EXPECT_EQ(block(*p), "");
}

// Expected Format text of a fixture from its probe line.
std::string expectedFormat(int w, int h, bool interlaced, double rate) {
  const int t = static_cast<int>(rate);
  const std::string suffix = !interlaced ? "p" : (t == 23 || t == 24) ? "psf" : "i";
  char text[32];
  std::snprintf(text, sizeof text, rate == t ? "%dx%d%s%.0f" : "%dx%d%s%.2f", w, h, suffix.c_str(), rate);
  return text;
}

// Every committed clip scans to the record its probe line implies: the rate
// ffprobe gives, the frames both tools read, the scan mode from the field
// order, and the start time code (rules for where the tools differ are in
// probe_table.h).
TEST(QtScannerFixtures, EveryClipAsFfprobeSawIt) {
  int rows = 0;
  for (const auto& r : probe_table::rows()) {
    SCOPED_TRACE(r["file"]);
    ++rows;
    auto p = scan(dataPath("qt/" + r["file"]));
    ASSERT_NE(p, nullptr);
    const std::string tag = r["codec_tag"];
    EXPECT_EQ(std::string(p->fourCC, 4), tag);
    const bool playable = tag == "apcn" || tag == "apch" || tag == "apcs" || tag == "apco" || tag == "ap4h" ||
                          tag == "2vuy" || tag == "v210";
    EXPECT_EQ(p->FileIsValid(), playable);
    EXPECT_EQ(p->width, r.number("width"));
    EXPECT_EQ(p->height, r.number("height"));
    const double rate = r.rate("rate");
    EXPECT_NEAR(p->frameRate, rate, 1e-9);
    EXPECT_EQ(p->videoLength, static_cast<uint32_t>(r.number("frames")));
    EXPECT_EQ(p->scanMode, static_cast<int32_t>(r.fieldMode()));
    if (!playable) {
      EXPECT_EQ(block(*p), "");
      continue;
    }
    auto map = p->attributes.getAttributesMap();
    EXPECT_EQ(map["Format"], expectedFormat(r.number("width"), r.number("height"), r.fieldMode() != 0, rate));
    unsigned channels = 0;
    if (r["audio_channels"] != "-")
      for (const auto& c : probe_table::split(r["audio_channels"], ',')) channels += std::stoul(c);
    EXPECT_EQ(map["Audio Chan"], std::to_string(channels));
    EXPECT_EQ(map["Starting TC"], r.timecode() == "-" ? "00:00:00:00" : r.timecode());
  }
  EXPECT_GE(rows, 55);
}

TEST(QtScannerFixtures, EncodeTypesOfTheCodecs) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"prores_422_25.mov", "0"},   {"prores_hq_25.mov", "1"},   {"prores_lt_25.mov", "2"},
      {"prores_proxy_25.mov", "3"}, {"prores_4444_25.mov", "7"}, {"uyvy_2vuy_25.mov", "8"},
      {"v210_25.mov", "9"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.first);
    auto p = scan(dataPath("qt/" + c.first));
    ASSERT_TRUE(p->FileIsValid());
    EXPECT_EQ(p->attributes.getAttributesMap()["Encode Type"], c.second);
  }
  EXPECT_FALSE(scan(dataPath("qt/dnxhd_720p23976.mov"))->FileIsValid());
  EXPECT_FALSE(scan(dataPath("qt/h264_25.mov"))->FileIsValid());
}

TEST(QtScannerFixtures, ExactBlocksOfRealClips) {
  EXPECT_EQ(block(*scan(dataPath("qt/audio_8x1.mov"))),
            "Format\n64x36p29.97\nEncode Type\n2\nAudio Chan\n8\nStarting TC\n01:00:00;00\n");
  EXPECT_EQ(block(*scan(dataPath("qt/hd1080_tff_2997.mov"))),
            "Format\n1920x1080i29.97\nEncode Type\n3\nAudio Chan\n0\nStarting TC\n00:00:00:00\n");
  EXPECT_EQ(block(*scan(dataPath("qt/hd1080_psf_23976.mov"))),
            "Format\n1920x1080psf23.98\nEncode Type\n3\nAudio Chan\n0\nStarting TC\n00:00:00:00\n");
  EXPECT_EQ(block(*scan(dataPath("qt/UPPER_CASE.MOV"))),
            "Format\n64x36p25\nEncode Type\n3\nAudio Chan\n0\nStarting TC\n00:00:00:00\n");
  // Field detail 9 on whole frames: top field first, interlaced.
  auto tb = scan(dataPath("qt/hd1080_tb_2997.mov"));
  EXPECT_EQ(tb->scanMode, 1);
  EXPECT_EQ(tb->attributes.getAttributesMap()["Format"], "1920x1080i29.97");
  // The clip: 59.94 on a millisecond clock, drop-frame time code.
  EXPECT_EQ(block(*scan(dataPath("qt/jit_5994_ms.mov"))),
            "Format\n64x36p59.94\nEncode Type\n3\nAudio Chan\n0\nStarting TC\n01:00:00;00\n");
  // Fragmented, one fragment a frame, the time code in the first fragment.
  auto frag = scan(dataPath("qt/frag_base_moof_5994.mov"));
  EXPECT_EQ(frag->videoLength, 6u);
  EXPECT_EQ(block(*frag), "Format\n64x36p59.94\nEncode Type\n3\nAudio Chan\n0\nStarting TC\n01:00:00;00\n");
  // GStreamer's bottom-first ProRes (field detail 14).
  auto bff = scan(dataPath("qt/gst_prores_bff_2997.mov"));
  EXPECT_EQ(bff->scanMode, 2);
  EXPECT_EQ(bff->attributes.getAttributesMap()["Format"], "64x36i29.97");
}

TEST(QtScannerFixtures, MalformedFilesAreInvalidWithoutAttributes) {
  const char* refused[] = {"empty.mov",
                           "text.mov",
                           "random.mov",
                           "trunc_header.mov",
                           "trunc_mdat.mov",
                           "trunc_moov.mov",
                           "trunc_fast_moov.mov",
                           "trunc_moov_mid.mov",
                           "moov_beyond_file.mov",
                           "size_below_8.mov",
                           "size0_mid.mov",
                           "child_beyond_parent.mov",
                           "size64_garbage.mov",
                           "huge_stts_count.mov",
                           "huge_stsd_count.mov",
                           "huge_stsz_count.mov",
                           "video_no_stsd_entry.mov",
                           "deep_nesting.mov",
                           "ftyp_only.mov",
                           "moov_empty.mov",
                           "frag_huge_run.mov",
                           "frag_run_overflow.mov"};
  for (const char* name : refused) {
    SCOPED_TRACE(name);
    auto p = scan(dataPath(std::string("qt/bad/") + name));
    ASSERT_NE(p, nullptr);
    EXPECT_FALSE(p->FileIsValid());
    EXPECT_EQ(p->videoLength, 0u);
    EXPECT_EQ(block(*p), "");
  }
  // A time code sample outside the file: the clip is read, starting at frame 0.
  for (const char* name : {"tc_offset_past_end.mov", "tc_sample_cut.mov"}) {
    SCOPED_TRACE(name);
    auto p = scan(dataPath(std::string("qt/bad/") + name));
    ASSERT_TRUE(p->FileIsValid());
    EXPECT_EQ(p->attributes.getAttributesMap()["Starting TC"], "00:00:00;00");
  }
  // A fragmented recording cut short: the fragments before the cut.
  for (const char* name : {"frag_cut_last.mov", "frag_size64_past_end.mov"}) {
    SCOPED_TRACE(name);
    auto p = scan(dataPath(std::string("qt/bad/") + name));
    ASSERT_TRUE(p->FileIsValid());
    EXPECT_EQ(p->videoLength, std::string(name) == "frag_cut_last.mov" ? 4u : 2u);
    EXPECT_EQ(p->attributes.getAttributesMap()["Starting TC"], "01:00:00:00");
  }
}

// Bytes this process has read through read-like system calls so far.
bool bytesReadSoFar(unsigned long long& rchar) {
  std::ifstream io("/proc/self/io");
  std::string key;
  while (io >> key) {
    if (key == "rchar:") return static_cast<bool>(io >> rchar);
    io.ignore(1 << 10, '\n');
  }
  return false;
}

TEST(QtScannerSparse, MovieAfterFiveGigabytesOfMediaIsScannedReadingKilobytes) {
  const std::string clip = vorta_test::readFile(dataPath("qt/tc_ndf_25.mov"));
  const std::size_t moovAt = clip.rfind("moov") - 4;
  std::string moov = clip.substr(moovAt);
  // ftyp, a 64-bit mdat of 5 GB whose first 8 bytes (the time code sample)
  // are the only ones written, then the moov of the real clip.
  const uint64_t media = 5ull << 30;
  const std::string head = clip.substr(0, 20) + movbuild::be32(1) + "mdat" + movbuild::be64(16 + 8 + media);
  const uint64_t moovOffset = head.size() + 8 + media;
  const std::size_t stco = moov.rfind("stco");
  ASSERT_NE(stco, std::string::npos);
  moov.replace(stco + 12, 4, movbuild::be32(static_cast<uint32_t>(head.size())));  // first chunk offset
  TempDir dir;
  const std::string path = dir.file("long.mov");
  const int fd = ::open(path.c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0600);
  ASSERT_GE(fd, 0);
  const std::string headWithSample = head + movbuild::be32(900000);
  ASSERT_EQ(pwrite(fd, headWithSample.data(), headWithSample.size(), 0),
            static_cast<ssize_t>(headWithSample.size()));
  const ssize_t wrote = pwrite(fd, moov.data(), moov.size(), static_cast<off_t>(moovOffset));
  close(fd);
  if (wrote != static_cast<ssize_t>(moov.size()))
    GTEST_SKIP() << "the file system refuses a 5 GB sparse file";
  struct stat st;
  ASSERT_EQ(stat(path.c_str(), &st), 0);
  if (static_cast<uint64_t>(st.st_blocks) * 512 > (64u << 20))
    GTEST_SKIP() << "the file system does not keep holes";

  unsigned long long before = 0, after = 0;
  const bool counted = bytesReadSoFar(before);
  auto p = scan(path);
  ASSERT_TRUE(p->FileIsValid());
  EXPECT_EQ(p->attributes.getAttributesMap()["Starting TC"], "10:00:00:00");
  EXPECT_EQ(p->videoLength, 3u);
  if (!counted || !bytesReadSoFar(after)) GTEST_SKIP() << "no /proc/self/io to count the bytes read";
  // The moov is under 2 KB; the I/O counter also sees this test's own reads of /proc.
  EXPECT_LT(after - before, 64u * 1024u);
}

}  // namespace
