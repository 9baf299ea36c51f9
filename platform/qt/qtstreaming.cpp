// SPDX-License-Identifier: MIT
// vorta platform: the QuickTime movie reader. Every field of the file goes
// through one bounds-checked big-endian reader; the file is untrusted.
#include "qtstreaming.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <vector>

namespace {

constexpr uint32_t fourcc(const char (&s)[5]) {
  return (static_cast<uint32_t>(static_cast<unsigned char>(s[0])) << 24) |
         (static_cast<uint32_t>(static_cast<unsigned char>(s[1])) << 16) |
         (static_cast<uint32_t>(static_cast<unsigned char>(s[2])) << 8) |
         static_cast<uint32_t>(static_cast<unsigned char>(s[3]));
}

constexpr uint32_t kMoov = fourcc("moov");
constexpr uint32_t kTrak = fourcc("trak");
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

// A walk over the top level stops after this many atoms: each is at least
// eight bytes, but a huge file of tiny atoms must not cost a read per atom.
constexpr unsigned kMaxTopLevelAtoms = 4096;
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

/// The body of the first child atom of the given type inside region. Stops
/// at the first malformed child: what follows it cannot be located.
bool findChild(const BigEndianView& region, uint32_t wanted, BigEndianView& body) {
  std::size_t offset = 0;
  while (region.size() - offset >= 8) {
    uint32_t type;
    std::size_t header;
    uint64_t size;
    if (!atomHeader(region, offset, type, header, size)) return false;
    if (type == wanted) {
      body = region.sub(offset + header, static_cast<std::size_t>(size) - header);
      return true;
    }
    offset += static_cast<std::size_t>(size);
  }
  return false;
}

/// Follows a path of atom types from region; false when any step is missing.
bool findPath(BigEndianView region, std::initializer_list<uint32_t> path, BigEndianView& body) {
  for (uint32_t type : path) {
    if (!findChild(region, type, region)) return false;
  }
  body = region;
  return true;
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
  uint32_t timescale = 0;
  bool hasStsd = false, hasStts = false, hasStsz = false, hasStco = false, hasCo64 = false;
  BigEndianView stsd, stts, stsz, stco, co64;
};

Track parseTrack(const BigEndianView& trak) {
  Track track;
  BigEndianView mdia, hdlr, mdhd, stbl;
  if (!findChild(trak, kMdia, mdia)) return track;
  if (findChild(mdia, kHdlr, hdlr)) hdlr.u32(8, track.handler);
  if (findChild(mdia, kMdhd, mdhd)) {
    uint8_t version = 0;
    mdhd.u8(0, version);
    mdhd.u32(version == 1 ? 20 : 12, track.timescale);
  }
  if (!findPath(mdia, {kMinf, kStbl}, stbl)) return track;
  track.hasStsd = findChild(stbl, kStsd, track.stsd);
  track.hasStts = findChild(stbl, kStts, track.stts);
  track.hasStsz = findChild(stbl, kStsz, track.stsz);
  track.hasStco = findChild(stbl, kStco, track.stco);
  track.hasCo64 = findChild(stbl, kCo64, track.co64);
  return track;
}

/// The field mode of a video sample description entry from its 'fiel'
/// extension: 0 when absent or one field; for two fields 1 top first,
/// 2 bottom first, and any other order as stored.
uint32_t fieldModeOf(const BigEndianView& entry) {
  BigEndianView extensions = entry.sub(kVideoEntryFixedSize, entry.size() - kVideoEntryFixedSize);
  BigEndianView fiel;
  uint8_t count, order;
  if (!findChild(extensions, kFiel, fiel) || !fiel.u8(0, count) || !fiel.u8(1, order)) return 0;
  if (count != 2) return 0;
  if (order == 1) return 1;
  if (order == 6) return 2;
  return order;
}

/// Fills the video record from a video track; false when the track lacks
/// what a picture track must have.
bool readVideoTrack(const Track& track, CQTVideoConfiguration& video) {
  BigEndianView entry;
  if (!track.hasStsd || !track.hasStts || !firstSampleEntry(track.stsd, entry)) return false;
  if (entry.size() < kVideoEntryFixedSize) return false;
  uint32_t codec;
  uint16_t width, height;
  if (!entry.u32(4, codec) || !entry.u16(32, width) || !entry.u16(34, height)) return false;
  if (width == 0 || height == 0 || track.timescale == 0) return false;

  // Frame rate from the most frequent sample duration; length from stsz.
  uint32_t entries;
  if (!track.stts.u32(4, entries) || entries == 0 || entries > (track.stts.size() - 8) / 8) return false;
  uint64_t total = 0;
  uint32_t bestCount = 0, duration = 0;
  for (uint32_t i = 0; i < entries; ++i) {
    uint32_t count, delta;
    if (!track.stts.u32(8 + 8 * static_cast<std::size_t>(i), count) ||
        !track.stts.u32(12 + 8 * static_cast<std::size_t>(i), delta))
      return false;
    total += count;
    if (count > bestCount) {
      bestCount = count;
      duration = delta;
    }
  }
  if (duration == 0) return false;

  uint64_t length = total;
  if (track.hasStsz) {
    uint32_t sampleSize, count;
    if (!track.stsz.u32(4, sampleSize) || !track.stsz.u32(8, count)) return false;
    if (sampleSize == 0 && count > (track.stsz.size() - 12) / 4) return false;
    length = count;
  }
  if (length == 0 || length > UINT32_MAX) return false;

  video.width = width;
  video.height = height;
  video.codecType = codec;
  video.fieldMode = fieldModeOf(entry);
  video.frameRate = static_cast<double>(track.timescale) / static_cast<double>(duration);
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

/// An open file read with pread, counting the bytes read.
///
/// Atom headers are read through a small window: one read fetches
/// kHeaderWindow bytes, so that the headers of neighbouring atoms, and the
/// header and start of a small 'moov', come in with a single system call.
/// Later reads take what the window already holds from there, so no byte is
/// read from the file twice, and nothing far beyond a header is read.
class File {
 public:
  static constexpr std::size_t kHeaderWindow = 512;

  /// Opens without blocking: a FIFO, socket or device named like a movie
  /// must not hold the caller up (opening a FIFO for reading waits for a
  /// writer, a terminal could become the controlling one). usable() then
  /// refuses anything but a regular file.
  File(const std::string& path, uint64_t& counter) : counter_(counter) {
    fd_ = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
    if (fd_ < 0) error_ = errno;
  }
  ~File() {
    if (fd_ >= 0) ::close(fd_);
  }
  File(const File&) = delete;
  File& operator=(const File&) = delete;

  /// True for an open regular file, which is then read in blocking mode.
  bool usable(uint64_t& size) {
    if (fd_ < 0) return false;
    struct stat st;
    if (::fstat(fd_, &st) != 0) {
      error_ = errno;
      return false;
    }
    if (!S_ISREG(st.st_mode) || st.st_size < 0) return false;
    const int flags = ::fcntl(fd_, F_GETFL);
    if (flags == -1 || ::fcntl(fd_, F_SETFL, flags & ~O_NONBLOCK) == -1) {
      error_ = errno;
      return false;
    }
    size = static_cast<uint64_t>(st.st_size);
    return true;
  }

  /// The system error that stopped the open or a read; 0 when none did.
  int error() const { return error_; }

  /// Reads exactly length bytes at offset; false on error or end of file
  /// (a file that shrank while being read).
  bool readAt(uint64_t offset, unsigned char* buffer, std::size_t length) {
    if (length > 0 && offset >= windowStart_ && offset - windowStart_ < windowLength_) {
      const std::size_t at = static_cast<std::size_t>(offset - windowStart_);
      const std::size_t held = std::min(length, windowLength_ - at);
      std::memcpy(buffer, window_ + at, held);
      buffer += held;
      length -= held;
      offset += held;
    }
    return readFile(offset, buffer, length);
  }

  /// Reads the length bytes (at most kHeaderWindow) of an atom header at
  /// offset, through the window; fileSize bounds what the window fetches.
  bool readHeaderAt(uint64_t offset, unsigned char* buffer, std::size_t length, uint64_t fileSize) {
    if (length > kHeaderWindow || offset > fileSize || fileSize - offset < length) return false;
    if (offset < windowStart_ || offset - windowStart_ > windowLength_ ||
        windowLength_ - static_cast<std::size_t>(offset - windowStart_) < length) {
      // A header that begins in the window keeps the bytes already there.
      std::size_t kept = 0;
      if (offset >= windowStart_ && offset - windowStart_ < windowLength_) {
        const std::size_t at = static_cast<std::size_t>(offset - windowStart_);
        kept = windowLength_ - at;
        std::memmove(window_, window_ + at, kept);
      }
      const std::size_t want = static_cast<std::size_t>(std::min<uint64_t>(kHeaderWindow, fileSize - offset));
      windowLength_ = 0;
      if (!readFile(offset + kept, window_ + kept, want - kept)) return false;
      windowStart_ = offset;
      windowLength_ = want;
    }
    std::memcpy(buffer, window_ + static_cast<std::size_t>(offset - windowStart_), length);
    return true;
  }

 private:
  bool readFile(uint64_t offset, unsigned char* buffer, std::size_t length) {
    while (length > 0) {
      if (offset > static_cast<uint64_t>(INT64_MAX)) return false;
      const ssize_t got = ::pread(fd_, buffer, length, static_cast<off_t>(offset));
      if (got < 0 && errno == EINTR) continue;
      if (got < 0) error_ = errno;
      if (got <= 0) return false;
      counter_ += static_cast<uint64_t>(got);
      buffer += got;
      length -= static_cast<std::size_t>(got);
      offset += static_cast<uint64_t>(got);
    }
    return true;
  }

  int fd_;
  int error_ = 0;
  uint64_t& counter_;
  unsigned char window_[kHeaderWindow];
  uint64_t windowStart_ = 0;
  std::size_t windowLength_ = 0;
};

/// Walks the top-level atoms by their headers only and locates 'moov'.
bool locateMovie(File& file, uint64_t fileSize, uint64_t& bodyOffset, uint64_t& bodySize) {
  uint64_t offset = 0;
  for (unsigned n = 0; n < kMaxTopLevelAtoms && fileSize - offset >= 8; ++n) {
    unsigned char raw[16];
    const std::size_t want = fileSize - offset >= 16 ? 16 : 8;
    if (!file.readHeaderAt(offset, raw, want, fileSize)) return false;
    const BigEndianView header(raw, want);
    uint32_t size32, type;
    header.u32(0, size32);
    header.u32(4, type);
    uint64_t size = size32, headerSize = 8;
    if (size32 == 1) {
      if (!header.u64(8, size)) return false;
      headerSize = 16;
    } else if (size32 == 0) {
      size = fileSize - offset;
    }
    if (size < headerSize || size > fileSize - offset) return false;
    if (type == kMoov) {
      bodyOffset = offset + headerSize;
      bodySize = size - headerSize;
      return true;
    }
    offset += size;
  }
  return false;
}

}  // namespace

CQTAtomConfiguration::~CQTAtomConfiguration() = default;

CQTVideoConfiguration::CQTVideoConfiguration()
    : width(0), height(0), fieldMode(0), dropFrame(0), codecType(0), frameRate(0.0), videoLength(0) {}

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
  uint64_t fileSize = 0, moovOffset = 0, moovSize = 0;
  if (!file.usable(fileSize) || !locateMovie(file, fileSize, moovOffset, moovSize)) {
    openError_ = file.error();
    return false;
  }
  if (moovSize > kMaxMovieAtomSize) return false;

  std::vector<unsigned char> movie;
  try {
    movie.resize(static_cast<std::size_t>(moovSize));
  } catch (const std::bad_alloc&) {
    openError_ = ENOMEM;
    return false;
  }
  if (!file.readAt(moovOffset, movie.data(), movie.size())) {
    openError_ = file.error();
    return false;
  }
  const BigEndianView moov(movie.data(), movie.size());

  // One pass over the tracks: the first video track, every sound track,
  // the first timecode track.
  bool haveVideo = false, haveTimecode = false;
  Track videoTrack, timecodeTrack;
  uint32_t soundTracks = 0;
  std::size_t offset = 0;
  while (moov.size() - offset >= 8) {
    uint32_t type;
    std::size_t header;
    uint64_t size;
    if (!atomHeader(moov, offset, type, header, size)) break;
    if (type == kTrak) {
      const Track track = parseTrack(moov.sub(offset + header, static_cast<std::size_t>(size) - header));
      if (track.handler == kVide && !haveVideo) {
        videoTrack = track;
        haveVideo = true;
      } else if (track.handler == kSoun) {
        if (soundTracks == 0 || audioChannels_ == 0) audioChannels_ = channelsOf(track);
        ++soundTracks;
      } else if (track.handler == kTmcd && !haveTimecode) {
        timecodeTrack = track;
        haveTimecode = true;
      }
    }
    offset += static_cast<std::size_t>(size);
  }

  CQTVideoConfiguration video;
  if (!haveVideo || !readVideoTrack(videoTrack, video)) {
    Reset();
    return false;
  }

  if (haveTimecode) {
    BigEndianView entry;
    uint32_t flags = 0;
    if (timecodeTrack.hasStsd && firstSampleEntry(timecodeTrack.stsd, entry) && entry.u32(20, flags))
      video.dropFrame = flags & 0x1u;
    uint64_t sampleOffset = 0;
    unsigned char sample[4];
    if (firstTimecodeSample(timecodeTrack, sampleOffset) && sampleOffset <= fileSize &&
        fileSize - sampleOffset >= 4 && file.readAt(sampleOffset, sample, 4)) {
      BigEndianView(sample, 4).u32(0, startFrame_);
      hasTimecode_ = true;
    }
  }

  video_ = video;
  audioTrackCount = soundTracks > UINT16_MAX ? UINT16_MAX : static_cast<uint16_t>(soundTracks);
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
