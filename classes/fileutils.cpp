// vorta: clip record helpers (take numbers, orderings, the playable filter).
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <string>

#include "clip.h"

Clip NULL_CLIP;

Clip::Clip() { std::memset(static_cast<void*>(this), 0, sizeof(*this)); }

int32_t Clip::extractTake(std::string name) {
  if (name.empty()) return 0;

  std::string::size_type start;
  const std::string::size_type tk = name.rfind("TK");
  if (tk != std::string::npos) {
    start = tk + 2;
  } else {
    const std::string::size_type underscore = name.rfind('_');
    if (underscore == std::string::npos) return -1;
    start = underscore + 1;
  }

  // The digits end at the first dot of the whole name. When that dot is
  // missing or lies before the digits, the unsigned length wraps and the
  // substring runs to the end of the name; "A.B_03" therefore reads 3.
  const std::string::size_type dot = name.find('.');
  const std::string digits = name.substr(start, dot - start);

  // The device's strtol saturates at the 32-bit limits; clamp so that every
  // build gives the device's answer.
  errno = 0;
  const long value = std::strtol(digits.c_str(), nullptr, 10);
  if (value > INT32_MAX) return INT32_MAX;
  if (value < INT32_MIN) return INT32_MIN;
  return static_cast<int32_t>(value);
}

namespace {
// A name field may fill all 4096 bytes without a terminator.
std::string nameOf(const Clip& c) { return std::string(c.name, strnlen(c.name, Clip::kNameSize)); }
}  // namespace

bool Clip::compare_clips_by_take(const Clip& a, const Clip& b) {
  return extractTake(nameOf(a)) > extractTake(nameOf(b));
}

bool Clip::compare_clips_by_time(const Clip& a, const Clip& b) { return a.modTime < b.modTime; }

bool unplayable(const Clip& c) {
  // Read the raw byte: a record that came through shared memory may hold a
  // value other than 0 or 1, and only 1 counts as playable.
  unsigned char byte;
  std::memcpy(&byte, &c.playable, 1);
  return (byte ^ 1u) != 0;
}
