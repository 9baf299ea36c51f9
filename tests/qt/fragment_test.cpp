// SPDX-License-Identifier: MIT
// Tests of the QuickTime movie reader on built movies: frame rates from rounded
// durations, fragmented movies, and atom sizes that run past their parent.
#define _FILE_OFFSET_BITS 64

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>
#include <utility>
#include <vector>

#include "mov_builder.h"
#include "qtstreaming.h"
#include "test_support.h"

namespace {

using namespace movbuild;
using vorta_test::TempDir;
using vorta_test::writeFile;

class QtReaderBuiltMovie : public ::testing::Test {
 protected:
  bool open(const std::string& bytes) {
    path_ = dir_.file("movie.mov");
    writeFile(path_, bytes);
    before_ = reader_.BytesRead();
    return reader_.OpenForReading(path_);
  }
  CQTVideoConfiguration video() {
    CQTVideoConfiguration v;
    reader_.GetConfiguration(v);
    return v;
  }
  std::string rate() {
    const auto v = video();
    return std::to_string(v.frameRateNumerator) + "/" + std::to_string(v.frameRateDenominator);
  }
  uint64_t bytesRead() const { return reader_.BytesRead() - before_; }
  // Time-to-sample entries of pairs of samples, one of duration a, then one of b.
  static std::vector<std::pair<uint32_t, uint32_t>> alternating(int pairs, uint32_t a, uint32_t b) {
    std::vector<std::pair<uint32_t, uint32_t>> entries;
    for (int i = 0; i < pairs; ++i) {
      entries.push_back({1, a});
      entries.push_back({1, b});
    }
    return entries;
  }
  static Movie withDurations(uint32_t timescale, std::vector<std::pair<uint32_t, uint32_t>> durations) {
    Movie m;
    m.timescale = timescale;
    m.durations = std::move(durations);
    return m;
  }
  TempDir dir_;
  std::string path_;
  CQTStreaming reader_;
  uint64_t before_ = 0;
};

// A built movie (frames 3, start frame 1234 at byte 36) with a timecode
// track whose sample size and chunk offset tables are the atoms given.
std::string withTimecodeTables(const std::string& stszAtom, const std::string& stcoAtom) {
  Movie m;
  m.startFrame = 1234;
  const std::string bytes = build(m);
  const std::size_t moovAt = bytes.find("moov") - 4;
  return bytes.substr(0, moovAt) +
         atom("moov", bytes.substr(moovAt + 8) +
                          trak("tmcd", mdhd(25, 1),
                               stsd(timecodeEntry(0, 25, 1, 25)) + stts({{1, 1}}) + stszAtom + stcoAtom));
}
std::string withTimecodeOffsets(const std::string& stcoAtom) {
  return withTimecodeTables(stsz(1, 4), stcoAtom);
}

// A first timecode sample recorded as shorter than four bytes, or a size
// table that lists no sample or counts one it does not hold, gives no
// timecode.
TEST_F(QtReaderBuiltMovie, TimecodeSampleSizesBelowFourOrMissingAreNotRead) {
  uint32_t start = 0;
  ASSERT_TRUE(open(withTimecodeTables(stsz(1, 4), stco(36))));
  ASSERT_TRUE(reader_.GetStartingTimecode(start));
  EXPECT_EQ(start, 1234u);
  ASSERT_TRUE(open(withTimecodeTables(stsz(1, 0, 4), stco(36))));  // one size listed: 4
  ASSERT_TRUE(reader_.GetStartingTimecode(start));
  for (const std::string& sizes : {stsz(1, 2), stsz(1, 0, 2), stsz(0, 0), atom("stsz", zeros(8) + be32(1))}) {
    ASSERT_TRUE(open(withTimecodeTables(sizes, stco(36))));
    EXPECT_FALSE(reader_.GetStartingTimecode(start));
    EXPECT_EQ(video().videoLength, 3u);
  }
}

// A timecode track without a chunk offset table has no sample to read.
TEST_F(QtReaderBuiltMovie, TimecodeTrackWithoutChunkOffsetsHasNoTimecode) {
  ASSERT_TRUE(open(withTimecodeTables(stsz(1, 4), "")));
  uint32_t start = 0;
  EXPECT_FALSE(reader_.GetStartingTimecode(start));
  EXPECT_EQ(video().videoLength, 3u);
}

// A timecode sample that the first read already brought in is taken from
// it, even at the very start of that read (a hostile offset of 0 reads the
// ftyp's size).
TEST_F(QtReaderBuiltMovie, TimecodeSampleAtTheStartOfTheFirstReadIsNotReadAgain) {
  ASSERT_TRUE(open(withTimecodeOffsets(stco(36))));
  const uint64_t inside = bytesRead();
  uint32_t start = 0;
  ASSERT_TRUE(open(withTimecodeOffsets(stco(0))));
  ASSERT_TRUE(reader_.GetStartingTimecode(start));
  EXPECT_EQ(start, 20u);
  EXPECT_EQ(bytesRead(), inside);
}

// A chunk offset table that counts more offsets than it holds gives no
// timecode, even when its first offset is whole.
TEST_F(QtReaderBuiltMovie, TimecodeOffsetTableCountingMoreThanItHoldsIsNotRead) {
  ASSERT_TRUE(open(withTimecodeOffsets(atom("stco", zeros(4) + be32(1) + be32(36) + zeros(3)))));
  uint32_t start = 0;
  ASSERT_TRUE(reader_.GetStartingTimecode(start));
  EXPECT_EQ(start, 1234u);
  ASSERT_TRUE(open(withTimecodeOffsets(atom("stco", zeros(4) + be32(2) + be32(36) + zeros(3)))));
  EXPECT_FALSE(reader_.GetStartingTimecode(start));
  EXPECT_EQ(video().videoLength, 3u);
}

// A timecode sample cut by the end of the file is not read at all: three
// bytes left read no more than two.
TEST_F(QtReaderBuiltMovie, TimecodeSampleCutByTheEndIsNotRead) {
  const std::size_t size = withTimecodeOffsets(stco(0)).size();
  uint32_t start = 0;
  ASSERT_TRUE(open(withTimecodeOffsets(stco(static_cast<uint32_t>(size - 2)))));
  EXPECT_FALSE(reader_.GetStartingTimecode(start));
  const uint64_t twoLeft = bytesRead();
  ASSERT_TRUE(open(withTimecodeOffsets(stco(static_cast<uint32_t>(size - 3)))));
  EXPECT_FALSE(reader_.GetStartingTimecode(start));
  EXPECT_EQ(bytesRead(), twoLeft);
  // Four bytes left are a sample: the file's last four.
  ASSERT_TRUE(open(withTimecodeOffsets(stco(static_cast<uint32_t>(size - 4)))));
  ASSERT_TRUE(reader_.GetStartingTimecode(start));
  EXPECT_EQ(bytesRead(), twoLeft + 4);
}

// Rates a millisecond clock cannot hold: durations one unit apart read as
// the standard rate, exactly (the frame rate is the rational's quotient).
TEST_F(QtReaderBuiltMovie, DurationsRoundedToTheClockGiveTheStandardRate) {
  struct Case {
    uint32_t timescale;
    uint64_t num, den;
    uint32_t frames;
    const char* rate;
  };
  const Case cases[] = {
      {1000, 60000, 1001, 60, "60000/1001"},   // 16 and 17
      {1000, 60, 1, 60, "60/1"},               // 16 and 17 too, another pattern
      {1000, 30000, 1001, 30, "30000/1001"},   // 33 and 34
      {1000, 24000, 1001, 48, "24000/1001"},   // 41 and 42
      {1000, 24, 1, 48, "24/1"},               // 41 and 42
      {1000, 50, 1, 7, "50/1"},                // 20 only: constant
      {600, 30000, 1001, 100, "30000/1001"},   // 20 and 21
      {90000, 60000, 1001, 30, "60000/1001"},  // 1501 and 1502
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.rate);
    ASSERT_TRUE(
        open(build(withDurations(c.timescale, roundedDurations(c.timescale, c.num, c.den, c.frames)))));
    EXPECT_EQ(rate(), c.rate);
    EXPECT_EQ(video().frameRate, static_cast<double>(c.num) / static_cast<double>(c.den));
    EXPECT_EQ(video().videoLength, c.frames);
  }
}

// A remux from a millisecond clock to 16000: durations 256 and 272 (one
// millisecond apart), the last one a millisecond short, so that the total
// alone says 59.97; the time stamps say 59.94.
TEST_F(QtReaderBuiltMovie, MillisecondRemuxWithAShortLastFrameReadsAsItsRate) {
  auto ms = roundedDurations(1000, 60000, 1001, 119);
  std::vector<std::pair<uint32_t, uint32_t>> entries;
  for (const auto& e : ms) entries.push_back({e.first, e.second * 16});
  entries.push_back({1, 16 * 16});
  ASSERT_TRUE(open(build(withDurations(16000, entries))));
  EXPECT_EQ(rate(), "60000/1001");
  EXPECT_EQ(video().videoLength, 120u);
}

// Durations one unit apart that fit no standard rate: the measured rate,
// timescale x samples / total duration, reduced.
TEST_F(QtReaderBuiltMovie, RoundedDurationsOfAnOddRateGiveTheMeasuredRate) {
  ASSERT_TRUE(open(build(withDurations(1000, alternating(30, 33, 34)))));
  EXPECT_EQ(rate(), "2000/67");  // 60 x 1000 / 2010
  EXPECT_DOUBLE_EQ(video().frameRate, 2000.0 / 67.0);
}

// A clock too coarse for the rate: 25 and 50 frames a second on a clock of
// 60 give durations 2 and 3, or 1 and 2. Seven frames end at 17 and 8
// ticks, so the measured rate is 24.71 and 52.5; the time stamps fit 25
// and 50 and no other standard rate.
TEST_F(QtReaderBuiltMovie, ShortClipsOnACoarseClockSnapToTheRateTheirStampsFit) {
  ASSERT_TRUE(open(build(withDurations(60, roundedDurations(60, 25, 1, 7)))));
  EXPECT_EQ(rate(), "25/1");
  EXPECT_EQ(video().videoLength, 7u);
  ASSERT_TRUE(open(build(withDurations(60, roundedDurations(60, 50, 1, 7)))));
  EXPECT_EQ(rate(), "50/1");
  // Stamps 0 2 4 7 10 12 14 fit no standard rate (the third is 0.8 off 25's
  // 4.8): the measured rate stays.
  ASSERT_TRUE(open(build(withDurations(60, {{2, 2}, {2, 3}, {2, 2}, {1, 3}}))));
  EXPECT_EQ(rate(), "420/17");
}

// Ten minutes of 23.976 on a millisecond clock: the stamps fit only
// 24000/1001 itself, not a rate a hair away from it.
TEST_F(QtReaderBuiltMovie, LongClipsPinTheStandardRateExactly) {
  ASSERT_TRUE(open(build(withDurations(1000, roundedDurations(1000, 24000, 1001, 14386)))));
  EXPECT_EQ(rate(), "24000/1001");
  EXPECT_EQ(video().videoLength, 14386u);
}

// Every standard rate on a clock that cannot hold it, in a clip whose
// length leaves the measured rate off the standard one: each snaps to
// itself, exactly. (Seven frames of 60 would fit 59.94 too, and measure
// nearer to it: 61 frames fit 60 alone.)
TEST_F(QtReaderBuiltMovie, EveryStandardRateSnapsToItself) {
  struct Case {
    uint32_t timescale;
    uint32_t num, den;
    uint32_t frames;
  };
  const Case cases[] = {
      {1000, 24000, 1001, 7}, {1000, 24, 1, 7},       {60, 25, 1, 7},
      {1000, 30000, 1001, 7}, {1000, 30, 1, 7},       {1000, 48, 1, 7},
      {60, 50, 1, 7},         {1000, 60000, 1001, 7}, {1000, 60, 1, 61},
  };
  for (const Case& c : cases) {
    const std::string expected = std::to_string(c.num) + "/" + std::to_string(c.den);
    SCOPED_TRACE(expected);
    const auto entries = roundedDurations(c.timescale, c.num, c.den, c.frames);
    ASSERT_GT(entries.size(), 1u);  // the durations differ
    uint64_t total = 0;
    for (const auto& e : entries) total += uint64_t{e.first} * e.second;
    ASSERT_NE(uint64_t{c.timescale} * c.frames * c.den, total * c.num);  // measured rate is off
    ASSERT_TRUE(open(build(withDurations(c.timescale, entries))));
    EXPECT_EQ(rate(), expected);
  }
}

// What rounding may explain is one millisecond of the clock, rounded down:
// at 1999 units a second that is one unit, so durations two apart are a
// mix (the longest run decides), where at 2000 they are rounding (the
// measured rate, 10 x 2000 / 670, as no standard rate fits the stamps).
TEST_F(QtReaderBuiltMovie, RoundingIsOneMillisecondOfTheClockRoundedDown) {
  const auto entries = alternating(5, 66, 68);
  ASSERT_TRUE(open(build(withDurations(1999, entries))));
  EXPECT_EQ(rate(), "1999/66");
  ASSERT_TRUE(open(build(withDurations(2000, entries))));
  EXPECT_EQ(rate(), "2000/67");
}

// A measured rate whose reduced fraction does not fit 32 bits is halved
// until it does: 5000 x 1000003 / 135004999 is 2500007500 / 67502499.
TEST_F(QtReaderBuiltMovie, MeasuredRatesTooLargeForThirtyTwoBitsAreHalved) {
  ASSERT_TRUE(open(build(withDurations(1000003, {{1, 27000}, {4999, 27001}}))));
  EXPECT_EQ(rate(), "2500007500/67502499");
  EXPECT_EQ(video().videoLength, 5000u);
}

// Durations all equal keep the track's own rate, reduced, whatever it is.
TEST_F(QtReaderBuiltMovie, ConstantDurationsKeepTheTracksOwnRate) {
  Movie m;
  m.timescale = 12800;
  m.sampleDuration = 512;
  ASSERT_TRUE(open(build(m)));
  EXPECT_EQ(rate(), "25/1");
  m.timescale = 1000003;
  m.sampleDuration = 7;
  ASSERT_TRUE(open(build(m)));
  EXPECT_EQ(rate(), "1000003/7");
  EXPECT_EQ(video().frameRate, 1000003.0 / 7.0);
  // Several entries of one duration are still constant.
  ASSERT_TRUE(open(build(withDurations(30000, {{2, 1001}, {5, 1001}}))));
  EXPECT_EQ(rate(), "30000/1001");
}

// Durations further apart than rounding: the duration of the longest run
// of equal durations (adjacent entries of one duration are one run; the
// earlier run wins a tie).
TEST_F(QtReaderBuiltMovie, MixedDurationsTakeTheLongestRun) {
  ASSERT_TRUE(open(build(withDurations(1000, {{10, 40}, {1, 80}}))));
  EXPECT_EQ(rate(), "25/1");
  ASSERT_TRUE(open(build(withDurations(1000, {{2, 40}, {2, 80}}))));
  EXPECT_EQ(rate(), "25/1");
  ASSERT_TRUE(open(build(withDurations(1000, {{1, 40}, {1, 40}, {1, 80}, {1, 80}, {1, 80}}))));
  EXPECT_EQ(rate(), "25/2");
  EXPECT_EQ(video().videoLength, 5u);
  // A zero duration is no rounding: the longest run decides, and a longest
  // run of zero durations gives no rate at all.
  ASSERT_TRUE(open(build(withDurations(1000, {{1, 0}, {3, 1}}))));
  EXPECT_EQ(rate(), "1000/1");
  EXPECT_FALSE(open(build(withDurations(1000, {{3, 0}, {1, 1}}))));
}

// A track whose time table lists samples but whose size table lists none
// has no pictures: refused, as is a time table of no samples.
TEST_F(QtReaderBuiltMovie, EmptySampleSizeTableIsRefused) {
  const std::string ftyp = atom("ftyp", std::string("qt  ") + zeros(4));
  const std::string entry = stsd(videoEntry("apch", 1920, 1080));
  EXPECT_FALSE(open(ftyp + atom("moov", trak("vide", mdhd(25, 3), entry + stts({{3, 1}}) + stsz(0)))));
  EXPECT_FALSE(open(ftyp + atom("moov", trak("vide", mdhd(25, 3), entry + stts({}) + stsz(3)))));
  // The same track with its three sizes reads.
  ASSERT_TRUE(open(ftyp + atom("moov", trak("vide", mdhd(25, 3), entry + stts({{3, 1}}) + stsz(3)))));
  EXPECT_EQ(video().videoLength, 3u);
  // A fragmented movie whose fragments add nothing: refused too.
  EXPECT_FALSE(open(fragmentedHead(FragmentedMovie())));
}

// A top-level atom whose 64-bit size runs past the end of the file ends the
// walk: the reader does not follow it, even where the size wraps around to
// a movie atom hidden inside an earlier atom.
TEST_F(QtReaderBuiltMovie, SixtyFourBitSizePastTheFileIsNotFollowed) {
  Movie m;
  m.moovFirst = true;
  const std::string normal = build(m);
  const std::size_t moovAt = normal.find("moov") - 4;
  const std::string moov = normal.substr(moovAt, normal.find("wide") - 4 - moovAt);
  const std::string ftyp = normal.substr(0, 20);
  const std::string skip = atom("skip", moov);  // the moov sits at byte 28, inside 'skip'
  const uint64_t freeAt = ftyp.size() + skip.size();
  const std::string wrap = be32(1) + "free" + be64(0 - freeAt + 28) + zeros(16);
  EXPECT_FALSE(open(ftyp + skip + wrap));
  // Over the moov and one byte past the end: refused alike; one that ends
  // where the moov begins is walked over.
  EXPECT_FALSE(open(ftyp + be32(1) + "free" + be64(16 + 8 + moov.size() + 1) + zeros(8) + moov));
  ASSERT_TRUE(open(ftyp + be32(1) + "free" + be64(16 + 8) + zeros(8) + moov));
}

// Inside the movie atom, an atom whose 64-bit size runs past the movie's
// end ends the walk over the tracks (one that wrapped around would send it
// back to the first track for ever); the tracks before it are read.
TEST_F(QtReaderBuiltMovie, SixtyFourBitSizePastTheMovieAtomEndsTheTrackWalk) {
  Movie m;
  const std::string normal = build(m);
  const std::size_t moovAt = normal.find("moov") - 4;
  const std::string body = normal.substr(moovAt + 8);
  for (const uint64_t size : {uint64_t(0) - body.size(), uint64_t(body.size()) + 17}) {
    SCOPED_TRACE(size);
    const std::string moovBody = body + be32(1) + "free" + be64(size);
    const std::string bytes = normal.substr(0, moovAt) + atom("moov", moovBody);
    const std::string path = dir_.file("wrap.mov");
    writeFile(path, bytes);
    EXPECT_EQ(vorta_test::inChild([&] {
                CQTStreaming reader;
                if (!reader.OpenForReading(path)) return 1;
                CQTVideoConfiguration v;
                reader.GetConfiguration(v);
                return v.videoLength == 3 ? 0 : 2;
              }),
              0)
        << "-1: the walk did not end";
  }
}

// The samples of a fragmented movie: its moov holds none, each fragment
// adds its run's samples.
TEST_F(QtReaderBuiltMovie, EmptyMovieAtomWithFragments) {
  std::string bytes = fragmentedHead(FragmentedMovie());
  for (uint32_t i = 1; i <= 3; ++i) bytes += fragment(i, {{1, samples(5, 1, 100), ""}});
  ASSERT_TRUE(open(bytes));
  EXPECT_EQ(video().videoLength, 15u);
  EXPECT_EQ(rate(), "25/1");
  EXPECT_EQ(video().width, 1920);
  uint32_t start = 7;
  EXPECT_FALSE(reader_.GetStartingTimecode(start));
}

// The timecode track's first sample sits in the first fragment.
TEST_F(QtReaderBuiltMovie, TimecodeSampleInTheFirstFragment) {
  FragmentedMovie m;
  m.timescale = 30000;
  m.timecode = true;
  m.timecodeFlags = 0x1;
  std::string bytes = fragmentedHead(m);
  bytes += fragment(1, {{1, samples(2, 1001, 50), ""}, {2, samples(1, 2002, 4), be32(107892)}});
  bytes += fragment(2, {{1, samples(2, 1001, 50), ""}, {2, samples(1, 2002, 4), be32(999)}});
  ASSERT_TRUE(open(bytes));
  EXPECT_EQ(video().videoLength, 4u);
  EXPECT_EQ(rate(), "30000/1001");
  EXPECT_EQ(video().dropFrame, 1u);
  uint32_t start = 0;
  ASSERT_TRUE(reader_.GetStartingTimecode(start));
  EXPECT_EQ(start, 107892u);
}

// Sample durations and sizes come from the run, else from the track
// fragment header, else from the track's trex defaults; data is found from
// tfhd's base offset, from the moof, or after the previous run's data.
TEST_F(QtReaderBuiltMovie, FragmentDefaultsAndDataOffsets) {
  FragmentedMovie m;
  m.timecode = true;
  m.trexDuration = 2;
  m.trexSize = 10;
  const std::string head = fragmentedHead(m);

  // Video run on trex defaults (5 samples of 10 bytes), timecode traf with
  // no base of its own: its data follows the video's.
  Tfhd videoHeader;
  videoHeader.flags = 0;
  Trun run;
  run.flags = 0x1;
  run.count = 5;
  Tfhd timecodeHeader;
  timecodeHeader.trackId = 2;
  Trun tcRun;
  tcRun.flags = 0;
  tcRun.count = 1;
  auto build = [&](int32_t offset) {
    run.dataOffset = offset;
    return moof(
        1, atom("traf", tfhd(videoHeader) + trun(run)) + atom("traf", tfhd(timecodeHeader) + trun(tcRun)));
  };
  const std::string sized = build(0);
  std::string bytes =
      head + build(static_cast<int32_t>(sized.size() + 8)) + atom("mdat", zeros(50) + be32(86400) + zeros(4));
  ASSERT_TRUE(open(bytes));
  EXPECT_EQ(video().videoLength, 5u);
  EXPECT_EQ(rate(), "25/2");  // trex duration 2 at 25
  uint32_t start = 0;
  ASSERT_TRUE(reader_.GetStartingTimecode(start));
  EXPECT_EQ(start, 86400u);

  // tfhd's defaults over trex's, and an absolute base offset with a
  // negative data offset back to the mdat's start.
  videoHeader.flags = 0x1 | 0x8 | 0x10;
  videoHeader.duration = 1;
  videoHeader.size = 7;
  const std::string moofSized = build(0);
  const uint64_t mdatData = head.size() + moofSized.size() + 8;
  videoHeader.base = mdatData + 100;
  bytes = head + build(-100) + atom("mdat", zeros(35) + be32(3600) + zeros(100));
  ASSERT_TRUE(open(bytes));
  EXPECT_EQ(video().videoLength, 5u);
  EXPECT_EQ(rate(), "25/1");
  ASSERT_TRUE(reader_.GetStartingTimecode(start));
  EXPECT_EQ(start, 3600u);

  // A data offset back before the start of the file: the fragment is
  // malformed, and with it the movie's only samples.
  EXPECT_FALSE(open(head + build(-static_cast<int32_t>(mdatData + 101)) + atom("mdat", zeros(150))));
}

// A run cannot claim what the file does not hold: more samples than bytes
// left after its data's start (even samples of no bytes), or data at a base
// offset past the end of the file (even one whose data offset wraps back
// into it). Such a fragment is malformed, and here holds the only samples.
TEST_F(QtReaderBuiltMovie, FragmentsCannotClaimWhatTheFileDoesNotHold) {
  const std::string head = fragmentedHead(FragmentedMovie());  // trex: duration 1, size 0
  auto single = [&](const Tfhd& h, const Trun& r) {
    return head + moof(1, atom("traf", tfhd(h) + trun(r))) + atom("mdat", zeros(64));
  };
  Tfhd moofBased;
  moofBased.flags = 0x20000;
  Trun run;
  run.flags = 0;
  run.count = 64;  // no bytes each: as many as the bytes from the moof on
  ASSERT_TRUE(open(single(moofBased, run)));
  EXPECT_EQ(video().videoLength, 64u);
  run.count = 0x7FFFFFFF;
  EXPECT_FALSE(open(single(moofBased, run)));

  Tfhd far;
  far.flags = 0x1 | 0x10;
  far.size = 4;
  far.base = 0 - uint64_t(8);  // the data offset below wraps it to byte 0
  Trun wrapping;
  wrapping.flags = 0x1;
  wrapping.count = 2;
  wrapping.dataOffset = 8;
  EXPECT_FALSE(open(single(far, wrapping)));
  far.base = 0;
  ASSERT_TRUE(open(single(far, wrapping)));
  EXPECT_EQ(video().videoLength, 2u);
}

// Per-sample records with every field (duration, size, flags, composition
// offset) are read field by field; sizes that put the data past the end of
// the file end the walk before that fragment.
// A run that counts more samples than it lists, though the file could hold
// them: the fragment is not counted and ends the walk.
TEST_F(QtReaderBuiltMovie, RunCountingMoreSamplesThanItListsEndsTheWalk) {
  std::string bytes = fragmentedHead(FragmentedMovie()) + fragment(1, {{1, samples(3, 1, 10), ""}});
  Tfhd h;
  h.flags = 0x20000;
  Trun r;
  r.flags = 0x301;
  r.count = 10;
  r.samples = samples(2, 1, 10);
  bytes += moof(2, atom("traf", tfhd(h) + trun(r))) + atom("mdat", zeros(200));
  bytes += fragment(3, {{1, samples(3, 1, 10), ""}});
  ASSERT_TRUE(open(bytes));
  EXPECT_EQ(video().videoLength, 3u);
}

// Track IDs come from a version 1 track header too (64-bit times before
// the ID).
TEST_F(QtReaderBuiltMovie, TrackIdOfAVersionOneTrackHeader) {
  const std::string tkhd1 = atom("tkhd", be32(0x01000000) + zeros(16) + be32(1) + zeros(80));
  const std::string empty = stts({}) + stsz(0) + atom("stco", zeros(8));
  const std::string videoTrak = atom(
      "trak",
      tkhd1 + atom("mdia", mdhd(25, 0) + hdlr("vide") +
                               atom("minf", atom("stbl", stsd(videoEntry("apch", 1920, 1080)) + empty))));
  std::string bytes = atom("ftyp", std::string("qt  ") + zeros(4) + "qt  ") +
                      atom("moov", atom("mvhd", zeros(100)) + videoTrak + atom("mvex", trex(1, 1, 0)));
  bytes += fragment(1, {{1, samples(4, 1, 10), ""}});
  ASSERT_TRUE(open(bytes));
  EXPECT_EQ(video().videoLength, 4u);
}

// A track fragment without its header is malformed: its fragment is not
// counted and ends the walk.
TEST_F(QtReaderBuiltMovie, TrackFragmentWithoutAHeaderEndsTheWalk) {
  std::string bytes = fragmentedHead(FragmentedMovie()) + fragment(1, {{1, samples(3, 1, 10), ""}});
  Trun r;
  r.flags = 0x301;
  r.count = 2;
  r.samples = samples(2, 1, 10);
  bytes += moof(2, atom("traf", trun(r))) + atom("mdat", zeros(20));
  bytes += fragment(3, {{1, samples(3, 1, 10), ""}});
  ASSERT_TRUE(open(bytes));
  EXPECT_EQ(video().videoLength, 3u);
}

// The moov's first 'mvex' gives the defaults, and one past a malformed
// child of the moov is not seen: the fragments are then not read at all.
TEST_F(QtReaderBuiltMovie, TheFirstMovieExtendsAtomBeforeAnyMalformedChildCounts) {
  FragmentedMovie m;
  m.trexDuration = 2;
  const std::string head = fragmentedHead(m);  // the moov is last
  Trun run;
  run.flags = 0x1;
  run.count = 5;
  auto withMoovTail = [&](const std::string& tail) {
    std::string bytes = head + tail;
    const std::size_t moov = bytes.find("moov") - 4;
    bytes.replace(moov, 4, be32(static_cast<uint32_t>(bytes.size() - moov)));
    Tfhd header;
    header.flags = 0x20000;
    const std::string sized = moof(1, atom("traf", tfhd(header) + trun(run)));
    run.dataOffset = static_cast<int32_t>(sized.size() + 8);
    return bytes + moof(1, atom("traf", tfhd(header) + trun(run))) + atom("mdat", zeros(10));
  };
  ASSERT_TRUE(open(withMoovTail(atom("mvex", trex(1, 3, 0)))));
  EXPECT_EQ(video().videoLength, 5u);
  EXPECT_EQ(rate(), "25/2");  // the first trex's duration, not the second's 3
  // A malformed child (size 4) ends the moov's walk before a leading mvex.
  std::string bytes = withMoovTail("");
  const std::size_t mvex = bytes.find("mvex") - 4;
  bytes.insert(mvex, be32(4) + "junk");
  const std::size_t moov = bytes.find("moov") - 4;
  bytes.replace(moov, 4, be32(static_cast<uint32_t>(bytes.find("moof") - 4 - moov)));
  EXPECT_FALSE(open(bytes));  // the video track's own tables are empty
}

// A fragment header giving a sample description index before its default
// duration and size: the defaults are read past it.
TEST_F(QtReaderBuiltMovie, FragmentHeaderWithDescriptionIndexAndDefaults) {
  Tfhd h;
  h.flags = 0x20000 | 0x2 | 0x8 | 0x10;
  h.duration = 2;
  h.size = 10;
  Trun r;
  r.flags = 0x1;
  r.count = 4;
  const std::string head = fragmentedHead(FragmentedMovie());  // trex: duration 1, size 0
  const std::string traf = atom("traf", tfhd(h) + trun(r));
  const uint32_t moofSize = static_cast<uint32_t>(moof(1, traf).size());
  r.dataOffset = static_cast<int32_t>(moofSize + 8);
  ASSERT_TRUE(open(head + moof(1, atom("traf", tfhd(h) + trun(r))) + atom("mdat", zeros(40))));
  EXPECT_EQ(video().videoLength, 4u);
  EXPECT_EQ(rate(), "25/2");
  // The samples' 40 bytes must be in the file: 39 are not enough.
  EXPECT_FALSE(open(head + moof(1, atom("traf", tfhd(h) + trun(r))) + atom("mdat", zeros(39))));
}

TEST_F(QtReaderBuiltMovie, RunsWithEveryPerSampleField) {
  const std::string head = fragmentedHead(FragmentedMovie());
  auto fragmentOf = [](uint32_t sequence, uint32_t size, uint32_t mdatBytes) {
    Tfhd h;
    h.flags = 0x20000;
    Trun r;
    r.flags = 0x1 | 0x4 | 0x100 | 0x200 | 0x400 | 0x800;
    r.count = 3;
    r.samples = samples(3, 1, size);
    const std::string sized = moof(sequence, atom("traf", tfhd(h) + trun(r)));
    r.dataOffset = static_cast<int32_t>(sized.size() + 8);
    return moof(sequence, atom("traf", tfhd(h) + trun(r))) + atom("mdat", zeros(mdatBytes));
  };
  ASSERT_TRUE(open(head + fragmentOf(1, 20, 60) + fragmentOf(2, 20, 60)));
  EXPECT_EQ(video().videoLength, 6u);
  // The second fragment's samples claim more than the file holds.
  ASSERT_TRUE(open(head + fragmentOf(1, 20, 60) + fragmentOf(2, 1000, 60)));
  EXPECT_EQ(video().videoLength, 3u);
}

// Jittered durations spread over fragments read as the standard rate.
TEST_F(QtReaderBuiltMovie, RoundedDurationsAcrossFragments) {
  FragmentedMovie m;
  m.timescale = 1000;
  std::string bytes = fragmentedHead(m);
  const auto entries = roundedDurations(1000, 60000, 1001, 120);
  std::vector<std::pair<uint32_t, uint32_t>> all;
  for (const auto& e : entries) all.insert(all.end(), e.first, std::make_pair(e.second, 1u));
  for (uint32_t f = 0; f < 4; ++f)
    bytes += fragment(
        f + 1,
        {{1, std::vector<std::pair<uint32_t, uint32_t>>(all.begin() + 30 * f, all.begin() + 30 * (f + 1)),
          ""}});
  ASSERT_TRUE(open(bytes));
  EXPECT_EQ(video().videoLength, 120u);
  EXPECT_EQ(rate(), "60000/1001");
}

// An mdat whose 64-bit size runs past the end of the file ends the walk
// over the fragments, also when the size wraps around to an earlier
// fragment: each fragment counts once.
TEST_F(QtReaderBuiltMovie, SixtyFourBitSizePastTheFileEndsTheFragmentWalk) {
  const std::string head = fragmentedHead(FragmentedMovie());
  const std::string first = fragment(1, {{1, samples(4, 1, 10), ""}});
  const uint64_t wrapAt = head.size() + first.size();
  const std::string wrap = be32(1) + "free" + be64(0 - (wrapAt - head.size()));  // back to the first moof
  EXPECT_EQ(vorta_test::inChild([&] {
              if (!open(head + first + wrap + zeros(8))) return 1;
              return video().videoLength == 4 ? 0 : 2;
            }),
            0);
  ASSERT_TRUE(open(head + first + be32(1) + "mdat" + be64(1000) + fragment(2, {{1, samples(4, 1, 10), ""}})));
  EXPECT_EQ(video().videoLength, 4u);
}

// A moof larger than kMaxFragmentAtomSize is not read and ends the walk;
// one of exactly that size is read.
TEST_F(QtReaderBuiltMovie, FragmentAtomAtAndPastTheCap) {
  const std::string head = fragmentedHead(FragmentedMovie());
  const std::string first = fragment(1, {{1, samples(2, 1, 10), ""}});
  for (const uint64_t body : {CQTStreaming::kMaxFragmentAtomSize, CQTStreaming::kMaxFragmentAtomSize + 1}) {
    SCOPED_TRACE(body);
    // The second fragment's moof padded with a 'free' child to body bytes.
    std::string second = fragment(2, {{1, samples(2, 1, 10), ""}});
    const uint32_t moofSize = static_cast<uint32_t>(second.find("mdat") - 4);
    const std::string pad = atom("free", zeros(static_cast<std::size_t>(body - (moofSize - 8) - 8)));
    // The run's data offset counts from the moof: it moves with the padding.
    std::string moofBody = second.substr(8, moofSize - 8) + pad;
    const std::size_t trunAt = moofBody.find("trun");
    const uint32_t offset = static_cast<uint32_t>(body + 8 + 8);
    moofBody.replace(trunAt + 12, 4, be32(offset));
    const std::string padded = atom("moof", moofBody) + second.substr(moofSize);
    ASSERT_TRUE(open(head + first + padded));
    EXPECT_EQ(video().videoLength, body == CQTStreaming::kMaxFragmentAtomSize ? 4u : 2u);
    if (body > CQTStreaming::kMaxFragmentAtomSize) {
      EXPECT_LT(bytesRead(), 8192u);
    }
  }
}

// At most kMaxFragments moof atoms are read; the samples of those past it
// are not counted.
TEST_F(QtReaderBuiltMovie, AtMostMaxFragmentsAreRead) {
  std::string bytes = fragmentedHead(FragmentedMovie());
  const std::string one = fragment(1, {{1, samples(1, 1, 1), ""}});
  bytes.reserve(bytes.size() + one.size() * (CQTStreaming::kMaxFragments + 5));
  for (unsigned i = 0; i < CQTStreaming::kMaxFragments + 5; ++i) bytes += one;
  ASSERT_TRUE(open(bytes));
  EXPECT_EQ(video().videoLength, CQTStreaming::kMaxFragments);
}

// A fragmented movie costs its headers, its moov and its moofs: the media
// between the fragments is never read.
TEST_F(QtReaderBuiltMovie, FragmentsAreReadWithoutTheirMedia) {
  const std::string head = fragmentedHead(FragmentedMovie());
  std::string bytes = head;
  uint64_t moofBytes = 0;
  for (uint32_t i = 1; i <= 20; ++i) {
    const std::string f = fragment(i, {{1, samples(4, 1, 25000), ""}});
    moofBytes += f.find("mdat") - 4;
    bytes += f;
  }
  ASSERT_TRUE(open(bytes));
  EXPECT_EQ(video().videoLength, 80u);
  EXPECT_GE(bytesRead(), moofBytes);
  EXPECT_LT(bytesRead(), head.size() + 20 * 512 + 1024);
  EXPECT_GT(bytes.size(), 2000000u);
}

}  // namespace
