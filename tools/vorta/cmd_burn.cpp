// SPDX-License-Identifier: MIT
// vorta burn: burns a time code into a test frame of a frame-buffer format and writes it as a PNG.

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <iostream>
#include <string>
#include <vector>

#include "cli.h"
#include "png_output.h"
#include "rp188.h"

namespace {

using namespace vorta::cli;

constexpr int kMaxSide = 8192;

struct PixelName {
  const char* name;
  VexaFrameBufferFormat format;
};
const PixelName kPixels[] = {{"v210", FBF10BitYCbCr},
                             {"ycbcr8", FBF8BitYCbCr},
                             {"argb", FBFARGB},
                             {"rgba", FBFRGBA},
                             {"rgb10", FBF10BitRGB}};

struct FormatName {
  const char* name;
  TimecodeFormat format;
};
const FormatName kFormats[] = {{"24", TCFormat24fps},     {"25", TCFormat25fps}, {"30", TCFormat30fps},
                               {"30df", TCFormat30fpsDF}, {"50", TCFormat50fps}, {"60", TCFormat60fps},
                               {"60df", TCFormat60fpsDF}};

struct ModeName {
  const char* name;
  TimecodeBurnMode mode;
};
const ModeName kModes[] = {
    {"timecode", BurnTimecode}, {"userbits", BurnUserBits}, {"counter", BurnCounter}, {"dashes", BurnDashes}};

template <typename Entry, std::size_t N>
const Entry& lookup(const Entry (&table)[N], const std::string& text, const std::string& option) {
  std::string names;
  for (const Entry& entry : table) {
    if (text == entry.name) return entry;
    names += names.empty() ? "" : ", ";
    names += entry.name;
  }
  throw UsageError("--" + option + " must be one of " + names + ", not '" + text + "'");
}

template <typename Entry, std::size_t N>
std::vector<std::string> namesOf(const Entry (&table)[N]) {
  std::vector<std::string> names;
  for (const Entry& entry : table) names.push_back(entry.name);
  return names;
}

// "1920x1080": width and height, each 1 to 8192.
SIZE parseSize(const std::string& text) {
  const std::size_t x = text.find('x');
  if (x == std::string::npos) throw UsageError("--size must be WIDTHxHEIGHT, not '" + text + "'");
  SIZE size;
  size.cx = static_cast<int32_t>(parseInteger(text.substr(0, x), 1, kMaxSide, "the width of --size"));
  size.cy = static_cast<int32_t>(parseInteger(text.substr(x + 1), 1, kMaxSide, "the height of --size"));
  return size;
}

// HH:MM:SS:FF with any separators (";" before the frames in drop frame).
void checkTimecode(const std::string& text) {
  bool ok = text.size() == 11;
  for (std::size_t i = 0; ok && i < text.size(); ++i)
    if (i % 3 != 2 && (text[i] < '0' || text[i] > '9')) ok = false;
  if (!ok) throw UsageError("--tc must look like HH:MM:SS:FF, not '" + text + "'");
}

// Eight hexadecimal digits, binary group 8 first; blanks are ignored.
bool parseUserBits(const std::string& text, unsigned int groups[8]) {
  int n = 0;
  for (char c : text) {
    if (c == ' ') continue;
    int v;
    if (c >= '0' && c <= '9')
      v = c - '0';
    else if (c >= 'A' && c <= 'F')
      v = c - 'A' + 10;
    else if (c >= 'a' && c <= 'f')
      v = c - 'a' + 10;
    else
      return false;
    if (n == 8) return false;
    groups[7 - n++] = static_cast<unsigned int>(v);
  }
  return n == 8;
}

// ---------------------------------------------------------------------------
// Test frames: a mid grey in each format, and the conversion back to RGB.

constexpr int kGrey10 = 414;  // 40 % between video black 64 and white 940
constexpr int kGrey8Luma = 104;
constexpr int kGrey8 = 102;

// A frame buffer with one spare line in front of the picture, so that the
// burn-in may be given a start up to a line before the picture's (see run).
struct Frame {
  VexaFrameBufferFormat format;
  int width;
  int height;
  int pitch;
  std::vector<unsigned char> bytes;
  unsigned char* picture() { return bytes.data() + pitch; }
  const unsigned char* picture() const { return bytes.data() + pitch; }
};

void putLE32(unsigned char* p, uint32_t w) {
  p[0] = static_cast<unsigned char>(w);
  p[1] = static_cast<unsigned char>(w >> 8);
  p[2] = static_cast<unsigned char>(w >> 16);
  p[3] = static_cast<unsigned char>(w >> 24);
}
uint32_t getLE32(const unsigned char* p) {
  return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 | static_cast<uint32_t>(p[2]) << 16 |
         static_cast<uint32_t>(p[3]) << 24;
}
uint32_t getBE32(const unsigned char* p) {
  return static_cast<uint32_t>(p[0]) << 24 | static_cast<uint32_t>(p[1]) << 16 |
         static_cast<uint32_t>(p[2]) << 8 | static_cast<uint32_t>(p[3]);
}

Frame greyFrame(VexaFrameBufferFormat format, SIZE size) {
  Frame f{format, size.cx, size.cy, 0, {}};
  switch (format) {
    case FBF10BitYCbCr:
      f.pitch = (f.width + 47) / 48 * 128;  // lines padded to 48 pixels, as V210 frame buffers are
      break;
    case FBF8BitYCbCr:
      f.pitch = f.width * 2;
      break;
    default:
      f.pitch = f.width * 4;
      break;
  }
  f.bytes.assign(static_cast<std::size_t>(f.pitch) * (static_cast<std::size_t>(f.height) + 1), 0);
  for (int y = 0; y < f.height; ++y) {
    unsigned char* line = f.picture() + static_cast<std::size_t>(y) * static_cast<std::size_t>(f.pitch);
    if (format == FBF10BitYCbCr) {
      const uint32_t a = 512u | kGrey10 << 10 | 512u << 20;     // Cb Y Cr
      const uint32_t b = kGrey10 | 512u << 10 | kGrey10 << 20;  // Y C Y
      for (int i = 0; i + 16 <= f.pitch; i += 16) {
        putLE32(line + i, a);
        putLE32(line + i + 4, b);
        putLE32(line + i + 8, a);
        putLE32(line + i + 12, b);
      }
    } else if (format == FBF8BitYCbCr) {
      for (int x = 0; x < f.width; ++x) {
        line[2 * x] = 128;
        line[2 * x + 1] = kGrey8Luma;
      }
    } else if (format == FBF10BitRGB) {
      const uint32_t w = static_cast<uint32_t>(kGrey10) << 22 | kGrey10 << 12 | kGrey10 << 2;
      for (int x = 0; x < f.width; ++x) {
        line[4 * x] = static_cast<unsigned char>(w >> 24);
        line[4 * x + 1] = static_cast<unsigned char>(w >> 16);
        line[4 * x + 2] = static_cast<unsigned char>(w >> 8);
        line[4 * x + 3] = static_cast<unsigned char>(w);
      }
    } else {
      // ARGB: alpha first; RGBA: alpha last. Opaque grey either way.
      for (int x = 0; x < f.width; ++x) {
        unsigned char* p = line + 4 * x;
        p[0] = p[1] = p[2] = p[3] = kGrey8;
        p[format == FBFARGB ? 0 : 3] = 255;
      }
    }
  }
  return f;
}

unsigned char clampByte(double v) {
  return static_cast<unsigned char>(std::min(255.0, std::max(0.0, v * 255.0 + 0.5)));
}

// Video-range Y'CbCr (BT.709) to 8-bit R'G'B'; y, cb, cr already normalised
// (y 0-1, cb and cr -0.5 to 0.5).
void ycbcrToRgb(double y, double cb, double cr, unsigned char* rgb) {
  rgb[0] = clampByte(y + 1.5748 * cr);
  rgb[1] = clampByte(y - 0.1873 * cb - 0.4681 * cr);
  rgb[2] = clampByte(y + 1.8556 * cb);
}

// One line of the frame as 8-bit RGB.
void lineToRgb(const Frame& f, int y, unsigned char* rgb) {
  const unsigned char* line = f.picture() + static_cast<std::size_t>(y) * static_cast<std::size_t>(f.pitch);
  switch (f.format) {
    case FBF10BitYCbCr:
      for (int x = 0; x < f.width; x += 6) {
        const unsigned char* g = line + x / 6 * 16;
        int s[12];  // Cb0 Y0 Cr0 Y1 Cb1 Y2 Cr1 Y3 Cb2 Y4 Cr2 Y5
        for (int w = 0; w < 4; ++w) {
          const uint32_t word = getLE32(g + 4 * w);
          for (int k = 0; k < 3; ++k) s[3 * w + k] = static_cast<int>((word >> (10 * k)) & 0x3FF);
        }
        for (int i = 0; i < 6 && x + i < f.width; ++i) {
          const int pair = i / 2;
          ycbcrToRgb((s[4 * pair + 1 + 2 * (i % 2)] - 64) / 876.0, (s[4 * pair] - 512) / 896.0,
                     (s[4 * pair + 2] - 512) / 896.0, rgb + 3 * (x + i));
        }
      }
      break;
    case FBF8BitYCbCr:
      for (int x = 0; x < f.width; ++x) {
        const int pair = x & ~1;
        const int cb = line[2 * pair];
        const int cr = pair + 1 < f.width ? line[2 * pair + 2] : 128;
        ycbcrToRgb((line[2 * x + 1] - 16) / 219.0, (cb - 128) / 224.0, (cr - 128) / 224.0, rgb + 3 * x);
      }
      break;
    case FBF10BitRGB:
      for (int x = 0; x < f.width; ++x) {
        const uint32_t word = getBE32(line + 4 * x);
        for (int c = 0; c < 3; ++c)
          rgb[3 * x + c] = clampByte((static_cast<int>((word >> (22 - 10 * c)) & 0x3FF) - 64) / 876.0);
      }
      break;
    default: {
      const int first = f.format == FBFARGB ? 1 : 0;  // alpha is not shown
      for (int x = 0; x < f.width; ++x)
        for (int c = 0; c < 3; ++c) rgb[3 * x + c] = line[4 * x + first + c];
      break;
    }
  }
}

void writePng(const Frame& f, const std::string& path) {
  writeRgbPng(path, f.width, f.height, [&f](int y, unsigned char* out) { lineToRgb(f, y, out); });
}

int run(Invocation& in) {
  const std::optional<std::string> out = in.value("out");
  if (!out || out->empty()) throw UsageError("--out FILE is required");
  const SIZE size = parseSize(in.value("size").value_or("1920x1080"));
  const std::string pixelName = in.value("pixel").value_or("v210");
  const PixelName& pixel = lookup(kPixels, pixelName, "pixel");
  const std::string formatName = in.value("format").value_or("30");
  const FormatName& format = lookup(kFormats, formatName, "format");
  const std::string modeName = in.value("mode").value_or("timecode");
  const ModeName& mode = lookup(kModes, modeName, "mode");
  std::string tc = in.value("tc").value_or("01:00:00:00");
  checkTimecode(tc);
  const int value = static_cast<int>(in.integer("value", INT_MIN, INT_MIN, INT_MAX));
  const int verticalPercent = static_cast<int>(in.integer("vertical-percent", 0, 0, 100));

  CRP188 timecode(tc, format.format);
  if (const std::optional<std::string> bits = in.value("user-bits")) {
    unsigned int groups[8];
    if (!parseUserBits(*bits, groups))
      throw UsageError("--user-bits must be 8 hexadecimal digits, group 8 first, not '" + *bits + "'");
    RP188_STRUCT regs;
    timecode.GetRP188Reg(regs);
    for (int i = 0; i < 4; ++i) {
      const int shift = 4 + 8 * i;
      regs.low = (regs.low & ~(0xFu << shift)) | groups[i] << shift;
      regs.high = (regs.high & ~(0xFu << shift)) | groups[4 + i] << shift;
    }
    timecode.SetRP188(regs, format.format);
  }

  if (!timecode.InitBurnIn(pixel.format, size, verticalPercent))
    throw Failure("the time code does not fit in a " + std::to_string(size.cx) + "x" +
                  std::to_string(size.cy) + " frame" +
                  (verticalPercent != 0 ? " at " + std::to_string(verticalPercent) + " %" : ""));
  BurnInGeometry g{};
  timecode.GetBurnInGeometry(g);
  Frame frame = greyFrame(pixel.format, size);
  // The library places eleven cells centred and puts the field marker in a
  // twelfth to their right. To centre all twelve, the frame is handed over
  // half a cell early, which moves every cell left by that much; the spare
  // line in front of the picture keeps that address inside the buffer.
  const bool marker = in.flag("field-marker") && mode.mode == BurnTimecode && timecode.FormatIs60_50fps();
  const int shift = marker && g.horizontalStart >= g.rowBytes / 2 ? g.rowBytes / 2 : 0;
  timecode.BurnTC(reinterpret_cast<char*>(frame.picture() - shift), frame.pitch, mode.mode, value,
                  in.flag("field-marker"));
  writePng(frame, *out);

  // Where the cells went, in pixels.
  const int start = g.horizontalStart - shift;
  const int x =
      pixel.format == FBF10BitYCbCr ? start / 16 * 6 : start / (pixel.format == FBF8BitYCbCr ? 2 : 4);
  const int cellWidth = pixel.format == FBF10BitYCbCr ? g.rowBytes / 16 * 6
                                                      : g.rowBytes / (pixel.format == FBF8BitYCbCr ? 2 : 4);
  const int cells = marker ? 12 : 11;
  std::string shown;
  int field = 0;
  if (mode.mode == BurnTimecode) {
    shown = timecode.GetRP188CString();
    if (marker) {
      // The frame digits show half the frame number; the marker which field.
      unsigned int frames = 0, seconds = 0, minutes = 0, hours = 0;
      std::sscanf(shown.c_str(), "%u%*c%u%*c%u%*c%u", &hours, &minutes, &seconds, &frames);
      field = frames % 2 == 0 ? 1 : 2;
      char drawn[32];
      std::snprintf(drawn, sizeof drawn, "%.9s%02u", shown.c_str(), frames / 2);
      shown +=
          " drawn as " + std::string(drawn) +
          (field == 2 ? " with field marker '*' (second field)" : " with a blank field marker (first field)");
    }
  } else if (mode.mode == BurnUserBits) {
    shown = "user bits " + std::string(timecode.GetRP188UserBitsCString());
  } else if (mode.mode == BurnCounter) {
    unsigned int count = 0;
    timecode.GetFrameCount(count);
    shown = value == INT_MIN ? "frame count " + std::to_string(count) : "counter " + std::to_string(value);
  } else {
    shown = "dashes";
  }
  if (in.flag("field-marker") && !marker)
    shown += " (no field marker: only for time codes in 50 and 60 formats)";
  JsonObject marking;
  marking.set("field", integer(field)).set("glyph", text(field == 2 ? "*" : " "));
  JsonObject json;
  json.set("file", text(*out))
      .set("width", integer(size.cx))
      .set("height", integer(size.cy))
      .set("pixel", text(pixel.name))
      .set("mode", text(mode.name))
      .set("shown", text(shown))
      .set("format", text(format.name))
      .set("cells", integer(cells));
  if (marker)
    json.set("fieldMarker", std::move(marking));
  else
    json.set("fieldMarker", none(""));
  json.set("cellWidth", integer(cellWidth))
      .set("cellHeight", integer(g.glyphHeight))
      .set("x", integer(x))
      .set("line", integer(g.verticalStart));
  emit(in, json,
       *out + ": " + std::to_string(size.cx) + "x" + std::to_string(size.cy) + " " + pixel.name + ", " +
           shown + " (" + format.name + "), " + std::to_string(cells) + " cells of " +
           std::to_string(cellWidth) + "x" + std::to_string(g.glyphHeight) + " pixels from x " +
           std::to_string(x) + ", line " + std::to_string(g.verticalStart));
  return 0;
}

const Command kBurn{
    "burn",
    "burn a time code into a test frame and write it as a PNG",
    "--out FILE [options]",
    "Fills a mid-grey frame of the given size and frame-buffer format, burns the\n"
    "time code into it the way the recorder does (eleven glyph cells centred\n"
    "horizontally, 80 % down the frame unless --vertical-percent says otherwise;\n"
    "with --field-marker twelve cells, centred too),\n"
    "converts the frame to RGB and writes it as a PNG.\n"
    "\n"
    "Pixel formats: v210 (10-bit 4:2:2 Y'CbCr, V210 packing), ycbcr8 (8-bit\n"
    "4:2:2, chroma then luma), argb and rgba (8 bits per component), rgb10\n"
    "(10-bit R'G'B' in big-endian words). Both 8-bit RGB formats receive the\n"
    "bytes 0, L, L, L per glyph pixel, so an rgba frame shows the glyphs cyan.\n"
    "Modes: timecode (HH:MM:SS:FF, \";\" before the frames in drop frame),\n"
    "userbits (the eight user-bit groups; 10 to 14 show as : ; - blank *),\n"
    "counter (--value with 9 digits; without --value the time code's frame\n"
    "count with 7 digits), dashes (--:--:--:--).",
    {{"out", "FILE", "the PNG to write (required)"},
     {"size", "WxH", "frame size in pixels (default 1920x1080)"},
     {"pixel", "FORMAT", "v210, ycbcr8, argb, rgba or rgb10 (default v210)", namesOf(kPixels)},
     {"tc", "HH:MM:SS:FF", "the time code (default 01:00:00:00)"},
     {"format", "NAME", "24, 25, 30, 30df, 50, 60 or 60df (default 30)", namesOf(kFormats)},
     {"mode", "MODE", "timecode, userbits, counter or dashes (default timecode)", namesOf(kModes)},
     {"value", "N", "the number the counter shows"},
     {"user-bits", "HEX", "eight hexadecimal user-bit groups, group 8 first"},
     {"field-marker", "",
      "in 50 and 60 formats: halve the frame number and mark the second field with * in a twelfth cell"},
     {"vertical-percent", "N", "top of the cells at N % of the frame height (default 80)"},
     jsonOption()},
    run,
    0,
    0,
};
VORTA_REGISTER_COMMAND(kBurn);

}  // namespace
