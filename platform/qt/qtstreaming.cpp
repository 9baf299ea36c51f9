// SPDX-License-Identifier: MIT
// vorta platform: the QuickTime movie reader. Every field of the file goes
// through one bounds-checked big-endian reader; the file is untrusted.
#include "qtstreaming.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <new>
#include <vector>

#include "internal/unique_fd.h"

namespace {

constexpr uint32_t fourcc(const char (&s)[5]) {
  return (static_cast<uint32_t>(static_cast<unsigned char>(s[0])) << 24) |
         (static_cast<uint32_t>(static_cast<unsigned char>(s[1])) << 16) |
         (static_cast<uint32_t>(static_cast<unsigned char>(s[2])) << 8) |
         static_cast<uint32_t>(static_cast<unsigned char>(s[3]));
}

constexpr uint32_t kMoov = fourcc("moov");
constexpr uint32_t kTrak = fourcc("trak");
constexpr uint32_t kTkhd = fourcc("tkhd");
constexpr uint32_t kMdia = fourcc("mdia");
constexpr uint32_t kMdhd = fourcc("mdhd");
constexpr uint32_t kHdlr = fourcc("hdlr");
constexpr uint32_t kMinf = fourcc("minf");
constexpr uint32_t kStbl = fourcc("stbl");
constexpr uint32_t kStsd = fourcc("stsd");
constexpr uint32_t kStts = fourcc("stts");
constexpr uint32_t kStsz = fourcc("stsz");
constexpr uint32_t kStco = fourcc("stco");
constexpr uint32_t kCo64 = fourcc("co64");
constexpr uint32_t kFiel = fourcc("fiel");
constexpr uint32_t kVide = fourcc("vide");
constexpr uint32_t kSoun = fourcc("soun");
constexpr uint32_t kTmcd = fourcc("tmcd");
constexpr uint32_t kMvex = fourcc("mvex");
constexpr uint32_t kTrex = fourcc("trex");
constexpr uint32_t kMoof = fourcc("moof");
constexpr uint32_t kTraf = fourcc("traf");
constexpr uint32_t kTfhd = fourcc("tfhd");
constexpr uint32_t kTrun = fourcc("trun");

// A walk over the top level stops after this many atoms: each is at least
// eight bytes, but a huge file of tiny atoms must not cost a read per atom.
constexpr unsigned kMaxTopLevelAtoms = 4096;
// The walk over the fragments allows a few other atoms ('mdat', 'free',
// 'sidx', 'styp') per 'moof'.
constexpr unsigned kMaxFragmentWalkAtoms = 4 * CQTStreaming::kMaxFragments;
// Smallest sample description entries that hold the fields read.
constexpr std::size_t kVideoEntryFixedSize = 86;  // up to the colour table ID
constexpr std::size_t kSoundEntryMinSize = 28;    // up to the sample size

/// A bounds-checked view of big-endian bytes. Every read names an offset
/// inside the view and fails, leaving its output alone, when the field does
/// not fit.
class BigEndianView {
 public:
  BigEndianView() = default;
  BigEndianView(const unsigned char* data, std::size_t size) : data_(data), size_(size) {}

  std::size_t size() const { return size_; }
  bool fits(std::size_t offset, std::size_t length) const {
    return offset <= size_ && length <= size_ - offset;
  }

  bool u8(std::size_t offset, uint8_t& value) const {
    if (!fits(offset, 1)) return false;
    value = data_[offset];
    return true;
  }
  bool u16(std::size_t offset, uint16_t& value) const {
    if (!fits(offset, 2)) return false;
    value = static_cast<uint16_t>((data_[offset] << 8) | data_[offset + 1]);
    return true;
  }
  bool u32(std::size_t offset, uint32_t& value) const {
    if (!fits(offset, 4)) return false;
    value = (static_cast<uint32_t>(data_[offset]) << 24) | (static_cast<uint32_t>(data_[offset + 1]) << 16) |
            (static_cast<uint32_t>(data_[offset + 2]) << 8) | static_cast<uint32_t>(data_[offset + 3]);
    return true;
  }
  bool u64(std::size_t offset, uint64_t& value) const {
    uint32_t high, low;
    if (!u32(offset, high) || !u32(offset + 4, low)) return false;
    value = (static_cast<uint64_t>(high) << 32) | low;
    return true;
  }
  /// The part [offset, offset + length) of this view; empty when it does not fit.
  BigEndianView sub(std::size_t offset, std::size_t length) const {
    if (!fits(offset, length)) return BigEndianView();
    return BigEndianView(data_ + offset, length);
  }

 private:
  const unsigned char* data_ = nullptr;
  std::size_t size_ = 0;
};

/// Parses the header of the atom at offset within region. Sets the atom's
/// type, header length and total size (a size of 0 runs to the end of the
/// region). False for a header that does not fit, a size below its header
/// or a size beyond the region.
bool atomHeader(const BigEndianView& region, std::size_t offset, uint32_t& type, std::size_t& header,
                uint64_t& size) {
  uint32_t size32;
  if (!region.u32(offset, size32) || !region.u32(offset + 4, type)) return false;
  header = 8;
  size = size32;
  if (size32 == 1) {
    if (!region.u64(offset + 8, size)) return false;
    header = 16;
  } else if (size32 == 0) {
    size = region.size() - offset;
  }
  return size >= header && size <= region.size() - offset;
}

/// The child atoms of a region, in order. The walk stops at the first
/// malformed child: what follows it cannot be located.
class ChildAtoms {
 public:
  explicit ChildAtoms(const BigEndianView& region) : region_(region) {}

  /// The next child's type and body; false at the end or at a malformed child.
  bool next(uint32_t& type, BigEndianView& body) {
    std::size_t header;
    uint64_t size;
    if (region_.size() - offset_ < 8) return false;
    if (!atomHeader(region_, offset_, type, header, size)) {
      malformed_ = true;
      return false;
    }
    body = region_.sub(offset_ + header, static_cast<std::size_t>(size) - header);
    offset_ += static_cast<std::size_t>(size);
    return true;
  }
  /// True when the walk stopped at a malformed child.
  bool malformed() const { return malformed_; }

 private:
  BigEndianView region_;
  std::size_t offset_ = 0;
  bool malformed_ = false;
};

/// The first child atom of each of a few wanted types inside region, found
/// in one walk. The walk stops at the first malformed child, as a walk per
/// type would, and as soon as every type is found.
template <std::size_t N>
class FirstChildren {
 public:
  FirstChildren(const BigEndianView& region, const uint32_t (&wanted)[N]) {
    const uint32_t* next = wanted;
    for (Child& child : children_) child.type = *next++;
    std::size_t missing = N;
    ChildAtoms children(region);
    uint32_t type;
    BigEndianView body;
    while (missing > 0 && children.next(type, body)) {
      for (Child& child : children_) {
        if (child.type == type && !child.found) {
          child.found = true;
          child.body = body;
          --missing;
        }
      }
    }
  }

  /// The body of the first child of the given type, if there was one.
  bool find(uint32_t type, BigEndianView& body) const {
    for (const Child& child : children_) {
      if (child.type == type && child.found) {
        body = child.body;
        return true;
      }
    }
    return false;
  }

 private:
  struct Child {
    uint32_t type;  // set by the constructor from wanted
    bool found = false;
    BigEndianView body;
  };
  Child children_[N];
};

/// The body of the first child atom of the given type inside region.
bool findChild(const BigEndianView& region, uint32_t wanted, BigEndianView& body) {
  return FirstChildren(region, {wanted}).find(wanted, body);
}

/// The first entry of a sample description atom (stsd body), checking the
/// entry count against the bytes present.
bool firstSampleEntry(const BigEndianView& stsd, BigEndianView& entry) {
  uint32_t count, size;
  if (!stsd.u32(4, count) || count == 0) return false;
  if (count > (stsd.size() - 8) / 8) return false;  // each entry needs at least 8 bytes
  if (!stsd.u32(8, size) || size < 8 || !stsd.fits(8, size)) return false;
  entry = stsd.sub(8, size);
  return true;
}

/// The tables of one track that the reader uses.
struct Track {
  uint32_t handler = 0;
  uint32_t trackId = 0;
  uint32_t timescale = 0;
  bool hasStsd = false, hasStts = false, hasStsz = false, hasStco = false, hasCo64 = false;
  BigEndianView stsd, stts, stsz, stco, co64;
};

Track parseTrack(const BigEndianView& trak) {
  Track track;
  const FirstChildren inTrak(trak, {kTkhd, kMdia});
  BigEndianView tkhd, mdia, hdlr, mdhd, minf, stbl;
  if (inTrak.find(kTkhd, tkhd)) {
    uint8_t version = 0;
    tkhd.u8(0, version);
    tkhd.u32(version == 1 ? 20 : 12, track.trackId);
  }
  if (!inTrak.find(kMdia, mdia)) return track;
  const FirstChildren inMdia(mdia, {kHdlr, kMdhd, kMinf});
  if (inMdia.find(kHdlr, hdlr)) hdlr.u32(8, track.handler);
  if (inMdia.find(kMdhd, mdhd)) {
    uint8_t version = 0;
    mdhd.u8(0, version);
    mdhd.u32(version == 1 ? 20 : 12, track.timescale);
  }
  if (!inMdia.find(kMinf, minf) || !findChild(minf, kStbl, stbl)) return track;
  const FirstChildren inStbl(stbl, {kStsd, kStts, kStsz, kStco, kCo64});
  track.hasStsd = inStbl.find(kStsd, track.stsd);
  track.hasStts = inStbl.find(kStts, track.stts);
  track.hasStsz = inStbl.find(kStsz, track.stsz);
  track.hasStco = inStbl.find(kStco, track.stco);
  track.hasCo64 = inStbl.find(kCo64, track.co64);
  return track;
}

/// The field mode of a video sample description entry from its 'fiel'
/// extension (the values are described with CQTVideoConfiguration).
uint32_t fieldModeOf(const BigEndianView& entry) {
  BigEndianView extensions = entry.sub(kVideoEntryFixedSize, entry.size() - kVideoEntryFixedSize);
  BigEndianView fiel;
  uint8_t count, order;
  if (!findChild(extensions, kFiel, fiel) || !fiel.u8(0, count) || !fiel.u8(1, order)) return 0;
  if (count != 2) return 0;
  if (order == 1 || order == 9) return 1;
  if (order == 6 || order == 14) return 2;
  return 3;
}

uint64_t gcd(uint64_t a, uint64_t b) {
  while (b != 0) {
    const uint64_t r = a % b;
    a = b;
    b = r;
  }
  return a;
}

/// A frame rate as a fraction.
struct Rate {
  uint32_t numerator = 0, denominator = 0;
};

/// numerator / denominator reduced, and halved until both fit 32 bits; a
/// zero denominator when nothing is left of it.
Rate reducedRate(uint64_t numerator, uint64_t denominator) {
  const uint64_t divisor = gcd(numerator, denominator);
  if (divisor > 1) {
    numerator /= divisor;
    denominator /= divisor;
  }
  while (numerator > UINT32_MAX || denominator > UINT32_MAX) {
    numerator >>= 1;
    denominator >>= 1;
  }
  return Rate{static_cast<uint32_t>(numerator), static_cast<uint32_t>(denominator)};
}

/// The rates that a rate measured from rounded durations snaps to.
const Rate kStandardRates[] = {{24000, 1001}, {24, 1}, {25, 1},       {30000, 1001}, {30, 1},
                               {48, 1},       {50, 1}, {60000, 1001}, {60, 1}};

/// What the frame rate needs from a track's sample durations, gathered as
/// runs of equal durations: from each time-to-sample entry and from each
/// fragment's samples in turn.
class DurationTally {
 public:
  explicit DurationTally(uint32_t timescale = 0)
      : timescale_(timescale), unit_(std::max<uint32_t>(1, timescale / 1000)) {}

  void add(uint64_t count, uint32_t duration) {
    if (count == 0) return;
    // The start times of the run's first and last samples bound the period
    // (the last sample's own duration is the writer's guess and bounds nothing).
    uint64_t span, lastStart;
    if (__builtin_mul_overflow(count - 1, static_cast<uint64_t>(duration), &span) ||
        __builtin_add_overflow(total_, span, &lastStart)) {
      overflow_ = true;
    } else {
      bound(samples_, total_);
      bound(samples_ + count - 1, lastStart);
    }
    if (samples_ == 0 || duration < min_) min_ = duration;
    if (samples_ == 0 || duration > max_) max_ = duration;
    if (__builtin_add_overflow(samples_, count, &samples_) ||
        __builtin_mul_overflow(count, static_cast<uint64_t>(duration), &span) ||
        __builtin_add_overflow(total_, span, &total_))
      overflow_ = true;
    // Adjacent runs of one duration are one run; on a tie the earlier run stays the longest.
    if (runCount_ > 0 && duration == runDuration_) {
      runCount_ += count;
    } else {
      runCount_ = count;
      runDuration_ = duration;
    }
    if (runCount_ > longestCount_) {
      longestCount_ = runCount_;
      longestDuration_ = runDuration_;
    }
  }

  uint64_t samples() const { return samples_; }

  /// The rate (see CQTVideoConfiguration); false when no duration gives one.
  bool rate(Rate& rate) const {
    if (timescale_ == 0 || samples_ == 0) return false;
    if (min_ == max_) {
      if (min_ == 0) return false;
      rate = reducedRate(timescale_, min_);
      return true;
    }
    uint64_t scaled;
    if (min_ > 0 && max_ - min_ <= unit_ && !overflow_ &&
        !__builtin_mul_overflow(static_cast<uint64_t>(timescale_), samples_, &scaled)) {
      // Durations that differ only by rounding: the standard rate whose
      // period every start time fits, the nearest to the measured rate when
      // a short clip fits several; else the measured rate itself. (The
      // measured rate alone can be a millisecond off at the end, where the
      // writer guessed the last duration: 59.97 for two seconds of 59.94.)
      const double measured = static_cast<double>(scaled) / static_cast<double>(total_);
      const Rate* best = nullptr;
      for (const Rate& standard : kStandardRates) {
        const double period = static_cast<double>(timescale_) * standard.denominator / standard.numerator;
        const double exact = static_cast<double>(standard.numerator) / standard.denominator;
        if (period >= low_ && period <= high_ &&
            (best == nullptr ||
             std::fabs(exact - measured) <
                 std::fabs(static_cast<double>(best->numerator) / best->denominator - measured)))
          best = &standard;
      }
      rate = best ? *best : reducedRate(scaled, total_);
      return rate.denominator != 0;
    }
    if (longestDuration_ == 0) return false;
    rate = reducedRate(timescale_, longestDuration_);
    return true;
  }

 private:
  /// Sample index (from 0) starts at time start: a clock that rounds time
  /// stamps to the nearest unit_ puts it within half a unit of index x period.
  void bound(uint64_t index, uint64_t start) {
    if (index == 0) return;
    const double at = static_cast<double>(start), n = static_cast<double>(index);
    low_ = std::max(low_, (at - unit_ / 2.0) / n);
    high_ = std::min(high_, (at + unit_ / 2.0) / n);
  }

  uint32_t timescale_, unit_;
  uint64_t samples_ = 0, total_ = 0;
  bool overflow_ = false;
  uint32_t min_ = 0, max_ = 0;
  uint64_t runCount_ = 0, longestCount_ = 0;
  uint32_t runDuration_ = 0, longestDuration_ = 0;
  double low_ = 0, high_ = HUGE_VAL;  // bounds of the period the start times allow, in clock units
};

/// Adds the entries of a time-to-sample table (stts body) to tally; false
/// when the table does not hold the entries it counts.
bool addTimeToSample(const BigEndianView& stts, DurationTally& tally) {
  uint32_t entries;
  if (!stts.u32(4, entries) || entries > (stts.size() - 8) / 8) return false;
  for (uint32_t i = 0; i < entries; ++i) {
    uint32_t count, delta;
    if (!stts.u32(8 + 8 * static_cast<std::size_t>(i), count) ||
        !stts.u32(12 + 8 * static_cast<std::size_t>(i), delta))
      return false;
    tally.add(count, delta);
  }
  return true;
}

/// The number of samples a sample size table (stsz body) lists; false when
/// it lists more sizes than it holds.
bool sampleCount(const BigEndianView& stsz, uint32_t& count) {
  uint32_t sampleSize;
  if (!stsz.u32(4, sampleSize) || !stsz.u32(8, count)) return false;
  return sampleSize != 0 || count <= (stsz.size() - 12) / 4;
}

/// What the fragments of a movie add to the tracks the reader uses.
struct Fragments {
  uint64_t videoSamples = 0;
  DurationTally videoDurations;  // carries on from the moov's table
  bool timecodeFound = false;    // the first timecode sample, when the moov has none
  uint64_t timecodeOffset = 0;
  uint32_t timecodeSize = 0;
};

/// The tracks whose fragments are read, and their defaults from 'mvex'.
struct FragmentTracks {
  BigEndianView mvex;
  uint32_t videoId = 0;
  bool hasTimecode = false;
  uint32_t timecodeId = 0;
};

/// Default sample duration and size of a track ('trex'), or of a fragment of it ('tfhd').
struct SampleDefaults {
  uint32_t duration = 0, size = 0;
};

SampleDefaults trackDefaults(const BigEndianView& mvex, uint32_t trackId) {
  SampleDefaults defaults;
  ChildAtoms children(mvex);
  uint32_t type, id;
  BigEndianView trex;
  while (children.next(type, trex)) {
    if (type == kTrex && trex.u32(4, id) && id == trackId) {
      trex.u32(12, defaults.duration);
      trex.u32(16, defaults.size);
      break;
    }
  }
  return defaults;
}

/// Reads one track fragment (traf body) of the 'moof' at file offset
/// moofOffset into into. base is where its data starts when 'tfhd' says
/// nothing; it is moved to the end of this fragment's data. False when a
/// box is malformed or the data lies outside the file.
bool readTrackFragment(const BigEndianView& traf, uint64_t moofOffset, uint64_t fileSize,
                       const FragmentTracks& tracks, uint64_t& base, Fragments& into) {
  BigEndianView tfhd;
  uint32_t tfhdFlags, trackId;
  if (!findChild(traf, kTfhd, tfhd) || !tfhd.u32(0, tfhdFlags) || !tfhd.u32(4, trackId)) return false;
  SampleDefaults defaults = trackDefaults(tracks.mvex, trackId);
  std::size_t at = 8;
  bool ok = true;
  if (tfhdFlags & 0x000001u) {  // base data offset
    ok = tfhd.u64(at, base);
    at += 8;
  } else if (tfhdFlags & 0x020000u) {  // default base is the moof
    base = moofOffset;
  }
  if (base > fileSize) return false;
  if (tfhdFlags & 0x000002u) at += 4;  // sample description index
  if (ok && (tfhdFlags & 0x000008u)) {
    ok = tfhd.u32(at, defaults.duration);
    at += 4;
  }
  if (ok && (tfhdFlags & 0x000010u)) ok = tfhd.u32(at, defaults.size);
  if (!ok) return false;

  const bool video = trackId == tracks.videoId;
  const bool timecode = tracks.hasTimecode && trackId == tracks.timecodeId;
  uint64_t next = base;  // where a run without its own data offset starts
  ChildAtoms children(traf);
  uint32_t type;
  BigEndianView trun;
  while (children.next(type, trun)) {
    if (type != kTrun) continue;

    uint32_t flags, count;
    if (!trun.u32(0, flags) || !trun.u32(4, count)) return false;
    std::size_t field = 8;
    uint64_t start = next;
    if (flags & 0x000001u) {  // data offset, signed, from the base
      uint32_t raw;
      if (!trun.u32(field, raw)) return false;
      const int64_t delta = static_cast<int32_t>(raw);
      if (delta < 0 && static_cast<uint64_t>(-delta) > base) return false;
      start = base + static_cast<uint64_t>(delta);
      field += 4;
    }
    if (flags & 0x000004u) field += 4;  // first sample flags
    const bool eachDuration = flags & 0x000100u, eachSize = flags & 0x000200u;
    const std::size_t record = 4u * ((eachDuration ? 1 : 0) + (eachSize ? 1 : 0) +
                                     ((flags & 0x000400u) ? 1 : 0) + ((flags & 0x000800u) ? 1 : 0));
    if (!trun.fits(field, 0) || (record > 0 && count > (trun.size() - field) / record)) return false;
    // Every sample has at least one byte of data, inside the file.
    if (start > fileSize || count > fileSize - start) return false;

    DurationTally durations = into.videoDurations;
    uint64_t bytes = 0;
    uint32_t firstSize = defaults.size;
    if (record == 0) {
      if (__builtin_mul_overflow(static_cast<uint64_t>(count), static_cast<uint64_t>(defaults.size), &bytes))
        return false;
      if (video) durations.add(count, defaults.duration);
    } else {
      for (uint32_t i = 0; i < count; ++i, field += record) {
        uint32_t duration = defaults.duration, sampleSize = defaults.size;
        if (eachDuration) trun.u32(field, duration);
        if (eachSize) trun.u32(field + (eachDuration ? 4 : 0), sampleSize);
        if (i == 0) firstSize = sampleSize;
        bytes += sampleSize;  // at most 2^32 samples of 2^32 bytes: no overflow in 64 bits
        if (video) durations.add(1, duration);
      }
    }
    if (bytes > fileSize - start) return false;
    if (video) {
      into.videoSamples += count;
      into.videoDurations = durations;
    }
    if (timecode && !into.timecodeFound && count > 0) {
      into.timecodeFound = true;
      into.timecodeOffset = start;
      into.timecodeSize = firstSize;
    }
    next = start + bytes;
  }
  base = next;
  return !children.malformed();
}

/// Reads one 'moof' body found at file offset moofOffset into into; false
/// (and into untouched) when any of its track fragments is malformed.
bool readFragment(const BigEndianView& moof, uint64_t moofOffset, uint64_t fileSize,
                  const FragmentTracks& tracks, Fragments& into) {
  Fragments fragments = into;
  uint64_t base = moofOffset;  // the first track fragment's data is counted from the moof
  ChildAtoms children(moof);
  uint32_t type;
  BigEndianView traf;
  while (children.next(type, traf))
    if (type == kTraf && !readTrackFragment(traf, moofOffset, fileSize, tracks, base, fragments))
      return false;
  if (children.malformed()) return false;
  into = fragments;
  return true;
}

/// Fills the video record from a video track, its samples in the moov and
/// those its fragments add; false when the track lacks what a picture track
/// must have, or has no samples.
bool readVideoTrack(const Track& track, const Fragments& fragments, CQTVideoConfiguration& video) {
  BigEndianView entry;
  if (!track.hasStsd || !firstSampleEntry(track.stsd, entry)) return false;
  if (entry.size() < kVideoEntryFixedSize) return false;
  uint32_t codec;
  uint16_t width, height;
  if (!entry.u32(4, codec) || !entry.u16(32, width) || !entry.u16(34, height)) return false;
  if (width == 0 || height == 0) return false;

  Rate rate;
  if (!fragments.videoDurations.rate(rate)) return false;

  uint64_t length = fragments.videoDurations.samples();  // without a size table, the timed samples
  if (track.hasStsz) {
    uint32_t count;
    if (!sampleCount(track.stsz, count)) return false;
    length = count + fragments.videoSamples;
  }
  if (length == 0 || length > UINT32_MAX) return false;

  video.width = width;
  video.height = height;
  video.codecType = codec;
  video.fieldMode = fieldModeOf(entry);
  video.frameRateNumerator = rate.numerator;
  video.frameRateDenominator = rate.denominator;
  video.frameRate = static_cast<double>(rate.numerator) / static_cast<double>(rate.denominator);
  video.videoLength = static_cast<uint32_t>(length);
  return true;
}

/// Channels of a sound description entry (versions 0, 1 and 2); 0 when unreadable.
uint16_t channelsOf(const Track& track) {
  BigEndianView entry;
  if (!track.hasStsd || !firstSampleEntry(track.stsd, entry) || entry.size() < kSoundEntryMinSize) return 0;
  uint16_t version = 0, channels = 0;
  if (!entry.u16(16, version)) return 0;
  if (version == 2) {
    uint32_t wide;
    if (!entry.u32(48, wide) || wide > UINT16_MAX) return 0;
    return static_cast<uint16_t>(wide);
  }
  entry.u16(24, channels);
  return channels;
}

/// Where the first timecode sample lies: the first chunk offset, and a
/// first sample size of at least four bytes when one is recorded.
bool firstTimecodeSample(const Track& track, uint64_t& offset) {
  uint32_t count;
  if (track.hasStco) {
    uint32_t first;
    if (!track.stco.u32(4, count) || count == 0 || count > (track.stco.size() - 8) / 4) return false;
    if (!track.stco.u32(8, first)) return false;
    offset = first;
  } else if (track.hasCo64) {
    if (!track.co64.u32(4, count) || count == 0 || count > (track.co64.size() - 8) / 8) return false;
    if (!track.co64.u64(8, offset)) return false;
  } else {
    return false;
  }
  if (track.hasStsz) {
    uint32_t sampleSize, samples, first = 0;
    if (!track.stsz.u32(4, sampleSize) || !track.stsz.u32(8, samples)) return false;
    if (sampleSize != 0) {
      first = sampleSize;
    } else if (samples == 0 || !track.stsz.u32(12, first)) {
      return false;
    }
    if (first < 4) return false;
  }
  return true;
}

/// A top-level atom: where it starts, its type, header length and size.
struct TopLevelAtom {
  uint64_t offset = 0;
  uint32_t type = 0;
  uint64_t header = 0, size = 0;
};

/// An open file read with pread, counting the bytes read.
class File {
 public:
  /// Opens without blocking: a FIFO, socket or device named like a movie
  /// must not hold the caller up (opening a FIFO for reading waits for a
  /// writer, a terminal could become the controlling one). usable() then
  /// refuses anything but a regular file.
  File(const std::string& path, uint64_t& counter)
      : fd_(zev::detail::UniqueFd::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY)), counter_(counter) {
    if (!fd_) error_ = errno;
  }
  File(const File&) = delete;
  File& operator=(const File&) = delete;

  /// True for an open regular file, which is then read in blocking mode.
  bool usable(uint64_t& size) {
    if (!fd_) return false;
    struct stat st;
    if (::fstat(fd_.get(), &st) != 0) {
      error_ = errno;
      return false;
    }
    if (!S_ISREG(st.st_mode) || st.st_size < 0) return false;
    // F_SETFL changes only the status flags it can (O_APPEND, O_ASYNC,
    // O_DIRECT, O_NOATIME, O_NONBLOCK), of which the open set O_NONBLOCK
    // alone: 0 clears it without reading the flags first.
    if (::fcntl(fd_.get(), F_SETFL, 0) == -1) {
      error_ = errno;
      return false;
    }
    size = static_cast<uint64_t>(st.st_size);
    return true;
  }

  /// The system error that stopped the open; 0 when none did.
  int error() const { return error_; }

  /// Reads exactly length bytes at offset. 0 when they were read, -1 at the
  /// end of the file (a file that shrank while being read), else the errno
  /// of the read that failed.
  int readAt(uint64_t offset, unsigned char* buffer, std::size_t length) {
    while (length > 0) {
      if (offset > static_cast<uint64_t>(INT64_MAX)) return -1;
      const ssize_t got = ::pread(fd_.get(), buffer, length, static_cast<off_t>(offset));
      if (got < 0 && errno == EINTR) continue;
      if (got < 0) return errno;
      if (got == 0) return -1;
      counter_ += static_cast<uint64_t>(got);
      buffer += got;
      length -= static_cast<std::size_t>(got);
      offset += static_cast<uint64_t>(got);
    }
    return 0;
  }

 private:
  zev::detail::UniqueFd fd_;
  int error_ = 0;
  uint64_t& counter_;
};

}  // namespace

/// The reader's work on one movie, stopped at each read of the file until
/// that read is done (see CQTReadSequence).
///
/// Atom headers are read through a window: one read fetches kHeaderWindow
/// bytes, so that the headers of neighbouring atoms, and the header and
/// start of a small 'moov', come in with a single read. Later reads take
/// what the window already holds from there, so no byte is read twice, and
/// nothing far beyond a header is read.
struct CQTReadSequence::Impl {
  static constexpr std::size_t kHeaderWindow = 512;

  explicit Impl(uint64_t size) : fileSize(size) { advance(); }

  /// The read asked for: length bytes at offset, into what target names.
  enum class Target { Window, Movie, Fragment, Timecode };
  struct Read {
    bool pending = false;
    uint64_t offset = 0;
    std::size_t length = 0;
    Target target = Target::Window;
  };

  /// Where the bytes of the pending read go; null (and the work ends with
  /// ENOMEM) when there is no memory for them.
  unsigned char* buffer() {
    if (!read.pending) return nullptr;
    if (read.target == Target::Window) return window + (read.offset - pendingWindowStart);
    if (!takeBody()) {
      read.pending = false;
      fail(ENOMEM);
      return nullptr;
    }
    return body.data + body.held;
  }

  /// The pending read is done: whole when every byte arrived; else error is
  /// the errno of the read that failed, 0 at the end of the file.
  void done(bool whole, int readError) {
    if (!read.pending) return;
    read.pending = false;
    if (!whole) {
      failedRead = true;
      if (readError != 0) fileError = readError;
    } else if (read.target == Target::Window) {
      windowStart = pendingWindowStart;
      windowLength = pendingWindowLength;
    } else {
      body.ready = true;
    }
    advance();
  }

  // --- What was found (valid once finished is set).
  bool finished = false;
  bool ok = false;
  int error = 0;  // the system error that made the read fail; 0 for a file refused
  CQTVideoConfiguration video;
  uint16_t audioChannels = 0;
  uint32_t soundTracks = 0;
  bool hasTimecode = false;
  uint32_t startFrame = 0;

  Read read;

 private:
  enum class Phase { LocateMovie, MovieBody, Fragments, FragmentBody, TimecodeSample, Done };
  enum class Header { Parsed, Refused, Wanted };

  /// Runs until a read is wanted or the work is finished.
  void advance() {
    while (!read.pending && phase != Phase::Done) {
      switch (phase) {
        case Phase::LocateMovie:
          locateStep();
          break;
        case Phase::MovieBody:
          if (!bodyArrived()) return;
          readMovie();
          break;
        case Phase::Fragments:
          fragmentStep();
          break;
        case Phase::FragmentBody:
          if (!bodyArrived()) return;
          fragmentArrived();
          break;
        case Phase::TimecodeSample:
          if (!bodyArrived()) return;
          if (body.ready) {
            BigEndianView(timecodeSample, 4).u32(0, startFrame);
            hasTimecode = true;
          }
          succeed();
          break;
        case Phase::Done:
          break;
      }
    }
  }

  void fail(int systemError) {
    phase = Phase::Done;
    finished = true;
    ok = false;
    error = systemError;
  }
  void succeed() {
    phase = Phase::Done;
    finished = true;
    ok = true;
  }

  /// True once, after the read asked for last failed.
  bool takeFailure() {
    const bool failed = failedRead;
    failedRead = false;
    return failed;
  }

  // --- The window.

  bool windowHolds(uint64_t offset, std::size_t length) const {
    return offset >= windowStart && offset - windowStart <= windowLength &&
           windowLength - static_cast<std::size_t>(offset - windowStart) >= length;
  }

  /// Asks for the window to be filled from offset; a header that begins in
  /// the window keeps the bytes already there.
  void fillWindow(uint64_t offset) {
    std::size_t kept = 0;
    if (offset >= windowStart && offset - windowStart < windowLength) {
      const std::size_t at = static_cast<std::size_t>(offset - windowStart);
      kept = windowLength - at;
      std::memmove(window, window + at, kept);
    }
    const std::size_t want = static_cast<std::size_t>(std::min<uint64_t>(kHeaderWindow, fileSize - offset));
    windowLength = 0;
    pendingWindowStart = offset;
    pendingWindowLength = want;
    read.pending = true;
    read.offset = offset + kept;
    read.length = want - kept;
    read.target = Target::Window;
  }

  /// The top-level atom whose header starts at offset. Refused at the end
  /// of the file, for a header that is cut or whose read failed, a size
  /// below its header, or a size (32- or 64-bit) that runs past the end of
  /// the file; Wanted when the window must be filled first.
  Header topLevelAtomAt(uint64_t offset, TopLevelAtom& atom) {
    if (offset > fileSize || fileSize - offset < 8) return Header::Refused;
    const std::size_t want = fileSize - offset >= 16 ? 16 : 8;
    if (!windowHolds(offset, want)) {
      if (takeFailure()) return Header::Refused;
      fillWindow(offset);
      return Header::Wanted;
    }
    const BigEndianView header(window + static_cast<std::size_t>(offset - windowStart), want);
    uint32_t size32;
    header.u32(0, size32);
    header.u32(4, atom.type);
    atom.offset = offset;
    atom.size = size32;
    atom.header = 8;
    if (size32 == 1) {
      if (!header.u64(8, atom.size)) return Header::Refused;
      atom.header = 16;
    } else if (size32 == 0) {
      atom.size = fileSize - offset;
    }
    return atom.size >= atom.header && atom.size <= fileSize - offset ? Header::Parsed : Header::Refused;
  }

  // --- Bodies: the moov, a moof, the timecode sample. What the window holds
  // of one is taken from it; only the rest is read.

  struct Body {
    uint64_t offset = 0;
    std::size_t length = 0, held = 0;
    Target target = Target::Movie;
    unsigned char* data = nullptr;
    bool taken = false;  // data holds it, with the window's part
    bool ready = false;  // every byte is there
  };

  /// Starts on the body of length bytes at offset, for target.
  void startBody(uint64_t offset, std::size_t length, Target target) {
    body = Body();
    body.offset = offset;
    body.length = length;
    body.target = target;
    if (length > 0 && offset >= windowStart && offset - windowStart < windowLength)
      body.held = std::min(length, windowLength - static_cast<std::size_t>(offset - windowStart));
    if (body.held == length) {
      if (!takeBody()) return fail(ENOMEM);
      body.ready = true;
      return;
    }
    read.pending = true;
    read.offset = offset + body.held;
    read.length = length - body.held;
    read.target = target;
  }

  /// Gives the body its memory and the window's part of it; false when
  /// there is no memory for it.
  bool takeBody() {
    if (body.taken) return true;
    switch (body.target) {
      case Target::Movie:
      case Target::Fragment: {
        std::vector<unsigned char>& storage = body.target == Target::Movie ? movie : fragment;
        try {
          storage.resize(body.length);
        } catch (const std::bad_alloc&) {
          return false;
        }
        body.data = storage.data();
        break;
      }
      case Target::Timecode:
        body.data = timecodeSample;
        break;
      case Target::Window:
        return false;
    }
    if (body.held > 0)
      std::memcpy(body.data, window + static_cast<std::size_t>(body.offset - windowStart), body.held);
    body.taken = true;
    return true;
  }

  /// True when the body's read has ended, well (body.ready) or not.
  bool bodyArrived() {
    if (body.ready) return true;
    return takeFailure();
  }

  // --- The steps.

  /// Walks the top-level atoms by their headers only and locates 'moov'.
  void locateStep() {
    if (locateCount >= kMaxTopLevelAtoms) return fail(fileError);
    TopLevelAtom atom;
    switch (topLevelAtomAt(locateOffset, atom)) {
      case Header::Wanted:
        return;
      case Header::Refused:
        return fail(fileError);
      case Header::Parsed:
        break;
    }
    if (atom.type == kMoov) {
      const uint64_t moovSize = atom.size - atom.header;
      if (moovSize > CQTStreaming::kMaxMovieAtomSize) return fail(0);
      moovEnd = atom.offset + atom.size;
      phase = Phase::MovieBody;
      return startBody(atom.offset + atom.header, static_cast<std::size_t>(moovSize), Target::Movie);
    }
    locateOffset += atom.size;
    ++locateCount;
  }

  /// The moov has arrived (or its read failed): one pass over the tracks,
  /// the first video track, every sound track, the first timecode track,
  /// and the first 'mvex'.
  void readMovie() {
    if (!body.ready) return fail(fileError);
    const BigEndianView moov(body.data, body.length);
    ChildAtoms children(moov);
    uint32_t type;
    BigEndianView trak;
    bool haveMvex = false;
    while (children.next(type, trak)) {
      if (type == kMvex && !haveMvex) {
        tracks.mvex = trak;
        haveMvex = true;
      } else if (type == kTrak) {
        const Track track = parseTrack(trak);
        if (track.handler == kVide && !haveVideo) {
          videoTrack = track;
          haveVideo = true;
        } else if (track.handler == kSoun) {
          if (soundTracks == 0 || audioChannels == 0) audioChannels = channelsOf(track);
          ++soundTracks;
        } else if (track.handler == kTmcd && !haveTimecode) {
          timecodeTrack = track;
          haveTimecode = true;
        }
      }
    }

    // The video samples of the moov, then those of the fragments, if any.
    fragments.videoDurations = DurationTally(videoTrack.timescale);
    if (!haveVideo || !videoTrack.hasStts || !addTimeToSample(videoTrack.stts, fragments.videoDurations))
      return fail(0);
    timecodeInMovie = haveTimecode && firstTimecodeSample(timecodeTrack, timecodeOffset);
    if (haveMvex) {
      tracks.videoId = videoTrack.trackId;
      tracks.hasTimecode = haveTimecode && !timecodeInMovie;
      tracks.timecodeId = timecodeTrack.trackId;
      walkOffset = moovEnd;
      phase = Phase::Fragments;
      return;
    }
    finishTracks();
  }

  /// One step of the walk over the top-level atoms after the moov: every
  /// 'moof' is read into fragments, within the caps; the walk ends quietly
  /// at what is cut or malformed.
  void fragmentStep() {
    if (walkCount >= kMaxFragmentWalkAtoms || fragmentsRead >= CQTStreaming::kMaxFragments) return endWalk();
    TopLevelAtom atom;
    switch (topLevelAtomAt(walkOffset, atom)) {
      case Header::Wanted:
        return;
      case Header::Refused:
        return endWalk();
      case Header::Parsed:
        break;
    }
    walkOffset += atom.size;
    if (atom.type != kMoof) {
      ++walkCount;
      return;
    }
    const uint64_t bodySize = atom.size - atom.header;
    if (bodySize > CQTStreaming::kMaxFragmentAtomSize) return endWalk();
    fragmentOffset = atom.offset;
    phase = Phase::FragmentBody;
    startBody(atom.offset + atom.header, static_cast<std::size_t>(bodySize), Target::Fragment);
  }

  void fragmentArrived() {
    if (!body.ready) return endWalk();
    phase = Phase::Fragments;
    ++fragmentsRead;
    if (!readFragment(BigEndianView(body.data, body.length), fragmentOffset, fileSize, tracks, fragments))
      return endWalk();
    ++walkCount;
  }

  /// The walk is over: a failed read of the system fails the movie.
  void endWalk() {
    if (fileError != 0) return fail(fileError);
    finishTracks();
  }

  /// The video record from the tracks, then the timecode sample, if any.
  void finishTracks() {
    if (!readVideoTrack(videoTrack, fragments, video)) return fail(0);
    if (!haveTimecode) return succeed();
    BigEndianView entry;
    uint32_t flags = 0;
    if (timecodeTrack.hasStsd && firstSampleEntry(timecodeTrack.stsd, entry) && entry.u32(20, flags))
      video.dropFrame = flags & 0x1u;
    uint32_t timecodeSize = 4;
    if (!timecodeInMovie && fragments.timecodeFound) {
      timecodeOffset = fragments.timecodeOffset;
      timecodeSize = fragments.timecodeSize;
    }
    if ((timecodeInMovie || fragments.timecodeFound) && timecodeSize >= 4 && timecodeOffset <= fileSize &&
        fileSize - timecodeOffset >= 4) {
      phase = Phase::TimecodeSample;
      return startBody(timecodeOffset, 4, Target::Timecode);
    }
    succeed();
  }

  const uint64_t fileSize;
  Phase phase = Phase::LocateMovie;
  int fileError = 0;        // the errno of the last read that failed
  bool failedRead = false;  // the read asked for last failed, not yet looked at

  unsigned char window[kHeaderWindow];
  uint64_t windowStart = 0;
  std::size_t windowLength = 0;
  uint64_t pendingWindowStart = 0;
  std::size_t pendingWindowLength = 0;

  Body body;
  std::vector<unsigned char> movie, fragment;
  unsigned char timecodeSample[4];

  uint64_t locateOffset = 0;
  unsigned locateCount = 0;
  uint64_t moovEnd = 0;

  bool haveVideo = false, haveTimecode = false, timecodeInMovie = false;
  Track videoTrack, timecodeTrack;
  uint64_t timecodeOffset = 0;

  Fragments fragments;
  FragmentTracks tracks;
  uint64_t walkOffset = 0, fragmentOffset = 0;
  unsigned walkCount = 0, fragmentsRead = 0;
};

CQTReadSequence::CQTReadSequence(uint64_t fileSize) : impl_(new (std::nothrow) Impl(fileSize)) {}

CQTReadSequence::~CQTReadSequence() { delete impl_; }

bool CQTReadSequence::NextRead(uint64_t& offset, std::size_t& length) const {
  if (impl_ == nullptr || !impl_->read.pending) return false;
  offset = impl_->read.offset;
  length = impl_->read.length;
  return true;
}

unsigned char* CQTReadSequence::ReadBuffer() { return impl_ ? impl_->buffer() : nullptr; }

void CQTReadSequence::ReadDone(bool whole, int error) {
  if (impl_) impl_->done(whole, error);
}

bool CQTReadSequence::Finished() const { return impl_ == nullptr || impl_->finished; }

CQTAtomConfiguration::~CQTAtomConfiguration() = default;

CQTVideoConfiguration::CQTVideoConfiguration()
    : width(0),
      height(0),
      fieldMode(0),
      dropFrame(0),
      codecType(0),
      frameRate(0.0),
      videoLength(0),
      frameRateNumerator(0),
      frameRateDenominator(0) {}

CQTAudioConfiguration::CQTAudioConfiguration() : audioChannelsPerTrack(0) {}

CQTStreaming::CQTStreaming() : audioTrackCount(0), bytesRead_(0), openError_(0) { Reset(); }

CQTStreaming::~CQTStreaming() = default;

void CQTStreaming::Reset() {
  open_ = false;
  video_ = CQTVideoConfiguration();
  audioChannels_ = 0;
  audioTrackCount = 0;
  hasTimecode_ = false;
  startFrame_ = 0;
}

bool CQTStreaming::OpenForReading(const std::string& path) {
  Reset();
  openError_ = 0;
  File file(path, bytesRead_);
  uint64_t fileSize = 0;
  if (!file.usable(fileSize)) {
    openError_ = file.error();
    return false;
  }
  // The same work a CQTReadSequence hands out, its reads made here in turn.
  CQTReadSequence::Impl movie(fileSize);
  while (movie.read.pending) {
    unsigned char* buffer = movie.buffer();
    if (buffer == nullptr) break;
    const int result = file.readAt(movie.read.offset, buffer, movie.read.length);
    movie.done(result == 0, result > 0 ? result : 0);
  }
  if (!movie.ok) {
    Reset();
    openError_ = movie.error;
    return false;
  }
  video_ = movie.video;
  audioChannels_ = movie.audioChannels;
  hasTimecode_ = movie.hasTimecode;
  startFrame_ = movie.startFrame;
  audioTrackCount = movie.soundTracks > UINT16_MAX ? UINT16_MAX : static_cast<uint16_t>(movie.soundTracks);
  open_ = true;
  return true;
}

bool CQTStreaming::GetConfiguration(CQTAtomConfiguration& config) {
  if (!open_) return false;
  if (auto* video = dynamic_cast<CQTVideoConfiguration*>(&config)) {
    *video = video_;
    return true;
  }
  if (auto* audio = dynamic_cast<CQTAudioConfiguration*>(&config)) {
    audio->audioChannelsPerTrack = audioChannels_;
    return true;
  }
  return false;
}

bool CQTStreaming::GetStartingTimecode(uint32_t& frameCount) {
  if (!open_ || !hasTimecode_) return false;
  frameCount = startFrame_;
  return true;
}
