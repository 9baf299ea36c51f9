// Fuzz target: the QuickTime movie reader on arbitrary bytes written to a .mov file.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "qtstreaming.h"

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
  CQTStreaming reader;
  if (reader.OpenForReading(path)) {
    CQTVideoConfiguration video;
    CQTAudioConfiguration audio;
    uint32_t start = 0;
    reader.GetConfiguration(video);
    reader.GetConfiguration(audio);
    reader.GetStartingTimecode(start);
    if (video.width <= 0 || video.height <= 0 || video.videoLength == 0 || !(video.frameRate > 0)) std::abort();
  }
  unlink(path.c_str());
  return 0;
}
