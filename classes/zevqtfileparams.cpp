// SPDX-License-Identifier: MIT
// vorta: the QuickTime file scanner and CFileParams::create, which picks a scanner by file name.
#include "zevqtfileparams.h"

#include <cerrno>
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
  // Each text goes into a buffer of fixed size and is cut there when longer
  // (a result below zero, an output error, leaves the text empty).
  char format[32];
  if (std::snprintf(format, sizeof format,
                    frameRate == static_cast<double>(rate) ? "%dx%d%s%.0lf" : "%dx%d%s%.2lf", width, height,
                    suffix, frameRate) < 0)
    format[0] = '\0';

  char encode[16];
  if (std::snprintf(encode, sizeof encode, "%d", static_cast<int>(encodeType)) < 0) encode[0] = '\0';

  // The product of two 16-bit counts, as a 32-bit value printed signed.
  const uint32_t product = static_cast<uint32_t>(audio.audioChannelsPerTrack) * reader.audioTrackCount;
  char channels[8];
  if (std::snprintf(channels, sizeof channels, "%d", static_cast<int>(static_cast<int32_t>(product))) < 0)
    channels[0] = '\0';

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
