// SPDX-License-Identifier: MIT
// Fuzz target: the QuickTime scanner (and its movie reader) on arbitrary bytes written to a .mov file.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "qtstreaming.h"
#include "zevqtfileparams.h"

namespace {

/// Writes the input to a fresh temporary .mov file; returns its path or "".
std::string writeInput(const uint8_t* data, size_t size) {
  const char* dir = std::getenv("TMPDIR");
  std::string path = std::string(dir && *dir ? dir : "/tmp") + "/fuzz_qt_XXXXXX.mov";
  const int fd = mkstemps(&path[0], 4);
  if (fd < 0) return "";
  size_t done = 0;
  while (done < size) {
    const ssize_t n = write(fd, data + done, size - done);
    if (n <= 0) break;
    done += static_cast<size_t>(n);
  }
  close(fd);
  return path;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string path = writeInput(data, size);
  if (path.empty()) return 0;
  CFileParams* params = CFileParams::create(path.c_str());
  if (params == nullptr) std::abort();  // the name always ends in .mov
  if (params->FileIsValid()) {
    if (params->width <= 0 || params->height <= 0 || params->videoLength == 0 || !(params->frameRate > 0))
      std::abort();
    params->attributes.getAttributesMap();
  }
  delete params;

  // The reader itself: a rate that is its fraction, a known field mode, and
  // no more bytes read than the file holds (twice over, for the few
  // headers read again) plus a header window.
  CQTStreaming reader;
  if (reader.OpenForReading(path)) {
    CQTVideoConfiguration video;
    reader.GetConfiguration(video);
    if (video.frameRateDenominator == 0 || video.videoLength == 0 || video.fieldMode > 3 ||
        video.frameRate != static_cast<double>(video.frameRateNumerator) / video.frameRateDenominator)
      std::abort();
  }
  if (reader.BytesRead() > 2 * static_cast<uint64_t>(size) + 4096) std::abort();
  unlink(path.c_str());
  return 0;
}
