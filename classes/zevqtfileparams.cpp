// SPDX-License-Identifier: MIT
// vorta: the QuickTime file scanner and CFileParams::create, which picks a scanner by file name.
#include "zevqtfileparams.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <new>

#include "qtstreaming.h"
#include "rp188.h"

namespace {

/// Codec codes the recorder plays and their encode types. Anything else,
/// DNxHD among them, is refused here by design.
struct CodecEntry {
  uint32_t codecType;
  uint32_t encodeType;
};
const CodecEntry kCodecs[] = {
    {0x6170636E, ENCODE_PRORES_422},         // 'apcn'
    {0x61706368, ENCODE_PRORES_422_HQ},      // 'apch'
    {0x61706373, ENCODE_PRORES_422_LT},      // 'apcs'
    {0x6170636F, ENCODE_PRORES_422_PROXY},   // 'apco'
    {0x61703468, ENCODE_PRORES_4444},        // 'ap4h'
    {0x32767579, ENCODE_UNCOMPRESSED_2VUY},  // '2vuy'
    {0x76323130, ENCODE_UNCOMPRESSED_V210},  // 'v210'
};

/// The encode type of a codec code; false for a codec the recorder does not play.
bool encodeTypeOf(uint32_t codecType, uint32_t& encodeType) {
  for (const CodecEntry& entry : kCodecs) {
    if (entry.codecType == codecType) {
      encodeType = entry.encodeType;
      return true;
    }
  }
  return false;
}

/// The time code format for a frame rate truncated to an integer.
TimecodeFormat timecodeFormatFor(int rate, bool dropFrame) {
  switch (rate) {
    case 23:
    case 24:
      return TCFormat24fps;
    case 25:
      return TCFormat25fps;
    case 29:
    case 30:
      return dropFrame ? TCFormat30fpsDF : TCFormat30fps;
    case 50:
      return TCFormat50fps;
    case 59:
    case 60:
      return dropFrame ? TCFormat60fpsDF : TCFormat60fps;
    default:
      return TCFormatUnknown;
  }
}

/// The frame rate truncated toward zero; rates outside the int range (or
/// NaN) count as 0, which no table entry uses.
int truncatedRate(double rate) {
  if (!(rate > -2147483648.0 && rate < 2147483648.0)) return 0;
  return static_cast<int>(rate);
}

/// A text built into a fixed buffer the way snprintf fills one: whatever
/// does not fit before the buffer's last byte is cut, and the text always
/// ends with a null.
class FixedText {
 public:
  template <std::size_t N>
  explicit FixedText(char (&buffer)[N]) : at_(buffer), room_(N - 1) {
    *at_ = '\0';
  }

  void add(const char* text, std::size_t length) {
    const std::size_t kept = std::min(length, room_);
    std::memcpy(at_, text, kept);
    at_ += kept;
    room_ -= kept;
    *at_ = '\0';
  }
  void add(const char* text) { add(text, std::strlen(text)); }
  /// An int in decimal, as "%d" prints it.
  void add(int value) {
    char digits[sizeof "-2147483648"];
    const std::to_chars_result end = std::to_chars(digits, digits + sizeof digits, value);
    add(digits, static_cast<std::size_t>(end.ptr - digits));
  }

 private:
  char* at_;
  std::size_t room_;
};

}  // namespace

CFileParams* CFileParams::create(const char* path) {
  if (path == nullptr) return nullptr;
  // A substring test, not an extension test, and only these two spellings:
  // the names the recorder itself writes.
  if (std::strstr(path, ".mov") == nullptr && std::strstr(path, ".MOV") == nullptr) return nullptr;
  try {
    return new CZEVQTFileParams(path);
  } catch (const std::bad_alloc&) {
    errno = ENOMEM;  // the caller tells this from a refused name by errno
    return nullptr;
  }
}

CZEVQTFileParams::CZEVQTFileParams(const char* path) : CFileParams(path), valid(false), readError(0) {
  valid = scanFile(path);
}

CZEVQTFileParams::~CZEVQTFileParams() = default;

bool CZEVQTFileParams::FileIsValid() { return valid; }

bool CZEVQTFileParams::scanFile(const char* path) {
  CQTStreaming reader;
  CQTVideoConfiguration video;
  CQTAudioConfiguration audio;
  if (!reader.OpenForReading(std::string(path ? path : ""))) {
    readError = reader.OpenError();
    return false;
  }
  reader.GetConfiguration(video);
  reader.GetConfiguration(audio);

  width = video.width;
  height = video.height;
  videoLength = video.videoLength;
  frameRate = video.frameRate;
  // Other field modes leave scanMode alone, though the Format text below
  // still calls such a clip interlaced.
  if (video.fieldMode <= 2) scanMode = static_cast<int32_t>(video.fieldMode);

  fourCC[0] = static_cast<char>((video.codecType >> 24) & 0xFF);
  fourCC[1] = static_cast<char>((video.codecType >> 16) & 0xFF);
  fourCC[2] = static_cast<char>((video.codecType >> 8) & 0xFF);
  fourCC[3] = static_cast<char>(video.codecType & 0xFF);

  uint32_t encodeType = 0;
  if (!encodeTypeOf(video.codecType, encodeType)) return false;

  const int rate = truncatedRate(frameRate);
  const char* suffix = video.fieldMode == 0 ? "p" : (rate == 23 || rate == 24) ? "psf" : "i";
  // Each text goes into a buffer of fixed size and is cut there when longer,
  // as snprintf cuts it. The integers are written directly: "%d" and, for a
  // rate that is a whole number other than -0, "%.0lf" print the same
  // digits.
  char format[32];
  FixedText formatText(format);
  formatText.add(width);
  formatText.add("x", 1);
  formatText.add(height);
  formatText.add(suffix);
  if (frameRate == static_cast<double>(rate) && !std::signbit(frameRate)) {
    formatText.add(rate);
  } else {
    // The room left is never more than the whole buffer; a longer text is
    // cut to it.
    char digits[sizeof format];
    if (std::snprintf(digits, sizeof digits, frameRate == static_cast<double>(rate) ? "%.0lf" : "%.2lf",
                      frameRate) < 0)
      format[0] = '\0';
    else
      formatText.add(digits);
  }

  char encode[16];
  FixedText(encode).add(static_cast<int>(encodeType));

  // The product of two 16-bit counts, as a 32-bit value printed signed.
  const uint32_t product = static_cast<uint32_t>(audio.audioChannelsPerTrack) * reader.audioTrackCount;
  char channels[8];
  FixedText(channels).add(static_cast<int>(static_cast<int32_t>(product)));

  AddAttribute(zev::media::MediaFormat, format);
  AddAttribute(zev::media::MediaVideoEncodeType, encode);
  AddAttribute(zev::media::MediaAudioChannels, channels);

  const TimecodeFormat tcFormat = timecodeFormatFor(truncatedRate(frameRate), video.dropFrame != 0);
  uint32_t frameCount = 0;
  if (!reader.GetStartingTimecode(frameCount)) frameCount = 0;
  const CRP188 start(frameCount, tcFormat);
  AddAttribute(zev::media::MediaStartingTimecode, start.GetRP188CString());
  return true;
}
