// SPDX-License-Identifier: MIT
// vorta tool: the one way every command writes scan modes, frame rates and
// times, in tables and in JSON alike.
#pragma once

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <string>
#include <vector>

#include "output.h"

namespace vorta {
namespace cli {

/// The scan mode as a word: progressive, top-first, bottom-first, or unknown.
inline std::string scanModeWord(int32_t mode) {
  switch (mode) {
    case 0:
      return "progressive";
    case 1:
      return "top-first";
    case 2:
      return "bottom-first";
    default:
      return "unknown";
  }
}

/// The frame rate as a decimal of at most three places: 25, 59.94, 23.976.
inline std::string rateDecimal(double fps) {
  if (!std::isfinite(fps)) return "?";
  char text[32];
  std::snprintf(text, sizeof text, "%.3f", fps);
  std::string out = text;
  while (out.back() == '0') out.pop_back();
  if (out.back() == '.') out.pop_back();
  return out;
}

/// The frame rate as the rational a movie's time scale gives: "30000/1001",
/// "25/1"; the nearest fraction with a denominator up to 10000 for others.
inline std::string rateRational(double fps) {
  if (!std::isfinite(fps) || fps <= 0 || fps > 1e6) return "0/1";
  const double ntsc = fps * 1001.0 / 1000.0;
  if (std::fabs(ntsc - std::round(ntsc)) < 1e-4 && std::fabs(fps - std::round(fps)) > 1e-4)
    return std::to_string(static_cast<long long>(std::round(ntsc)) * 1000) + "/1001";
  // Continued fraction, stopped at the last convergent within the bound.
  long long p0 = 0, q0 = 1, p1 = 1, q1 = 0;
  double x = fps;
  for (int i = 0; i < 20; ++i) {
    const double a = std::floor(x);
    const long long p2 = static_cast<long long>(a) * p1 + p0, q2 = static_cast<long long>(a) * q1 + q0;
    if (q2 > 10000) break;
    p0 = p1;
    q0 = q1;
    p1 = p2;
    q1 = q2;
    if (std::fabs(static_cast<double>(p1) / static_cast<double>(q1) - fps) < 1e-9 || x - a < 1e-9) break;
    x = 1.0 / (x - a);
  }
  return std::to_string(p1) + "/" + std::to_string(q1);
}

/// A time as ISO 8601 in local time with its zone: 2026-01-01T11:00:00+01:00.
inline std::string isoTime(std::time_t when) {
  std::tm local{};
  if (localtime_r(&when, &local) == nullptr) return std::to_string(static_cast<long long>(when));
  char text[64];
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S%z", &local);
  std::string out = text;
  if (out.size() > 5) out.insert(out.size() - 2, ":");  // +0100 -> +01:00
  return out;
}

/// A clip's picture as clips, scan and probe show it.
struct Picture {
  std::string fourCC;
  int width, height;
  double rate;
  int scanMode;
  long long frames;
  Value audio, startTimecode;  // from the attribute block
};

/// The picture's columns. At 80 columns audio channels, frames and start
/// time codes give way first, then scan modes, codecs, rates and sizes.
inline std::vector<Column> pictureColumns() {
  return {{"fourCC", "CODEC", Column::Left, 4},
          {"", "SIZE", Column::Right, 2},
          {"width"},
          {"height"},
          {"frameRate", "RATE", Column::Right, 3},
          {"frameRateRational"},
          {"scanMode", "SCAN", Column::Left, 5},
          {"videoLength", "FRAMES", Column::Right, 8},
          {"", "AUDIO", Column::Right, 9},
          {"", "START TC", Column::Left, 7}};
}

/// Appends the picture's values to row, each passed through as (for "-" in
/// a clip taken by name only, or nothing for a file not read).
template <typename As>
void appendPictureValues(std::vector<Value>& row, const Picture& p, As as) {
  row.push_back(as(text(p.fourCC)));
  row.push_back(as(text(std::to_string(p.width) + "x" + std::to_string(p.height))));
  row.push_back(as(integer(p.width)));
  row.push_back(as(integer(p.height)));
  row.push_back(as(real(p.rate, rateDecimal(p.rate))));
  row.push_back(as(text(rateRational(p.rate))));
  row.push_back(as(text(scanModeWord(p.scanMode))));
  row.push_back(as(integer(p.frames)));
  row.push_back(as(p.audio));
  row.push_back(as(p.startTimecode));
}

/// The picture's values, as appendPictureValues gives them.
template <typename As>
std::vector<Value> pictureValues(const Picture& p, As as) {
  std::vector<Value> row;
  appendPictureValues(row, p, as);
  return row;
}

}  // namespace cli
}  // namespace vorta
