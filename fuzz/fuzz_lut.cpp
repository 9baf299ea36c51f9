// SPDX-License-Identifier: MIT
// Fuzz target: LUT_Utils::parse over arbitrary file contents (written to a temporary file).
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "lut_utils.h"

namespace {

// One file per fuzzing process, rewritten for every input.
const std::string& scratchFile() {
  static const std::string path = [] {
    char name[] = "/tmp/fuzz_lut_XXXXXX";
    const int fd = mkstemp(name);
    if (fd < 0) std::abort();
    close(fd);
    std::atexit([] { std::remove(scratchFile().c_str()); });
    return std::string(name);
  }();
  return path;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string& path = scratchFile();
  FILE* file = std::fopen(path.c_str(), "wb");
  if (file == nullptr) std::abort();
  if (size > 0 && std::fwrite(data, 1, size, file) != size) std::abort();
  std::fclose(file);

  // A small capacity so that both the stored and the checked-only paths run.
  int16_t red[8], green[8], blue[8];
  int32_t count = -1;
  std::string message;
  const bool ok = zev::utils::LUT_Utils::parse(path, red, green, blue, 8, count, message);
  if (count < 0 || count > 8) std::abort();
  if (ok != message.empty()) std::abort();
  return 0;
}
