// SPDX-License-Identifier: MIT
// vorta tc: time code arithmetic, text and RP188 register words by hand.
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <string>
#include <vector>

#include "cli.h"
#include "rp188.h"

namespace {

using namespace vorta::cli;

struct FormatName {
  const char* name;
  TimecodeFormat format;
};

const FormatName kFormatNames[] = {
    {"24", TCFormat24fps}, {"25", TCFormat25fps}, {"30", TCFormat30fps},     {"30df", TCFormat30fpsDF},
    {"50", TCFormat50fps}, {"60", TCFormat60fps}, {"60df", TCFormat60fpsDF},
};

TimecodeFormat parseFormat(const std::string& text) {
  for (const FormatName& entry : kFormatNames)
    if (text == entry.name) return entry.format;
  throw UsageError("unknown format '" + text + "' (use 24, 25, 30, 30df, 50, 60 or 60df)");
}

std::string formatName(TimecodeFormat format) {
  for (const FormatName& entry : kFormatNames)
    if (entry.format == format) return entry.name;
  return "unknown";
}

bool isDigit(char c) { return c >= '0' && c <= '9'; }

// A time code text is HH?MM?SS?FF: digits at 0,1 3,4 6,7 9,10, any separators.
bool looksLikeTimecode(const std::string& text) {
  if (text.size() != 11) return false;
  for (std::size_t pos : {0, 1, 3, 4, 6, 7, 9, 10})
    if (!isDigit(text[pos])) return false;
  return true;
}

// A register word: up to eight hexadecimal digits, with or without "0x".
uint32_t parseWord(const std::string& text) {
  std::string digits = text;
  if (digits.size() > 2 && digits[0] == '0' && (digits[1] == 'x' || digits[1] == 'X')) digits.erase(0, 2);
  bool ok = !digits.empty() && digits.size() <= 8;
  for (char c : digits) ok = ok && std::isxdigit(static_cast<unsigned char>(c)) != 0;
  if (!ok) throw UsageError("not a register word: '" + text + "' (up to 8 hexadecimal digits)");
  return static_cast<uint32_t>(std::strtoul(digits.c_str(), nullptr, 16));
}

std::string hexWord(uint32_t word) {
  char buf[16];
  std::snprintf(buf, sizeof buf, "0x%08X", static_cast<unsigned int>(word));
  return buf;
}

unsigned int countOption(const Invocation& in, const std::string& name) {
  return static_cast<unsigned int>(in.integer(name, 0, 0, 0xFFFFFFFFll));
}

// The components of a time code text must lie within the format: hours to
// 23, minutes and seconds to 59, frames below the frame rate, and none of
// the labels drop frame skips (frames 0 and 1, or 0 to 3 at 60, of each
// minute but every tenth).
void checkRange(const std::string& text, TimecodeFormat format) {
  const auto field = [&](std::size_t pos) { return (text[pos] - '0') * 10 + (text[pos + 1] - '0'); };
  const int hours = field(0), minutes = field(3), seconds = field(6), frames = field(9);
  const CRP188 probe(0u, format);
  const int fps = static_cast<int>(probe.FramesPerSecond());
  std::string problem;
  if (hours > 23)
    problem = "hours go to 23";
  else if (minutes > 59)
    problem = "minutes go to 59";
  else if (seconds > 59)
    problem = "seconds go to 59";
  else if (frames >= fps)
    problem = "frames go to " + std::to_string(fps - 1) + " at " + formatName(format);
  else if (probe.FormatIsDropFrame() && seconds == 0 && minutes % 10 != 0 &&
           frames < (format == TCFormat60fpsDF ? 4 : 2))
    problem = "drop frame skips this label";
  if (!problem.empty())
    throw UsageError("time code " + text + " is outside the format: " + problem +
                     " (--unchecked passes it to the library, which carries it over)");
}

int run(Invocation& in) {
  const TimecodeFormat format = parseFormat(in.value("format").value_or("30"));
  formatOf(in);
  const bool decode = in.flag("decode");
  const bool fromFrames = in.value("frames").has_value();
  const std::vector<std::string>& args = in.args();

  CRP188 tc;
  if (decode) {
    if (fromFrames) throw UsageError("--decode and --frames cannot be combined");
    if (args.size() != 3) throw UsageError("--decode needs three register words: DBB LOW HIGH");
    const RP188_STRUCT regs{parseWord(args[0]), parseWord(args[1]), parseWord(args[2])};
    tc.SetRP188(regs, format);
  } else if (fromFrames) {
    if (!args.empty()) throw UsageError("give either a time code or --frames N, not both");
    const unsigned int frames = countOption(in, "frames");
    const unsigned int day = CRP188(0u, format).MaxFramesPerDay();
    if (frames >= day && !in.flag("unchecked"))
      throw UsageError("--frames must be below " + std::to_string(day) + ", the frames of a day at " +
                       formatName(format) + " (--unchecked passes it to the library, which wraps it)");
    tc.SetRP188(frames, format);
  } else {
    if (args.size() != 1)
      throw UsageError(args.empty() ? "give a time code, --frames N or --decode DBB LOW HIGH"
                                    : "too many arguments");
    std::string text = args[0];
    if (!looksLikeTimecode(text)) throw UsageError("not a time code: '" + text + "' (expected HH:MM:SS:FF)");
    if (!in.flag("unchecked")) checkRange(text, format);
    tc.SetRP188(text, format);
  }
  if (in.value("add")) tc.AddFrames(countOption(in, "add"));
  if (in.value("subtract")) tc.SubtractFrames(countOption(in, "subtract"));

  unsigned int frames = 0;
  tc.GetFrameCount(frames);
  RP188_STRUCT regs{};
  tc.GetRP188Reg(regs);
  const std::string userBits = tc.GetRP188UserBitsCString();

  if (formatOf(in) == Format::Json) {
    printJson(std::cout, JsonObject()
                             .set("timecode", text(tc.GetRP188CString()))
                             .set("frames", integer(frames))
                             .set("format", text(formatName(tc.GetFormat())))
                             .set("dropFrame", flag(tc.IsDropFrame()))
                             .set("dbb", text(hexWord(regs.dbb)))
                             .set("low", text(hexWord(regs.low)))
                             .set("high", text(hexWord(regs.high)))
                             .set("userBits", text(userBits))
                             .get());
    return 0;
  }
  std::cout << "timecode   " << tc.GetRP188CString() << "\n"
            << "frames     " << frames << "\n"
            << "format     " << formatName(tc.GetFormat()) << "\n";
  if (in.flag("regs") || decode) {
    std::cout << "dbb        " << hexWord(regs.dbb) << "\n"
              << "low        " << hexWord(regs.low) << "\n"
              << "high       " << hexWord(regs.high) << "\n"
              << "user bits  " << userBits << "\n";
  }
  return 0;
}

const Command kTc{
    "tc",
    "convert and step SMPTE time codes, show their RP188 register words",
    "[TIMECODE | --frames N | --decode DBB LOW HIGH]",
    "Reads a time code given as text (HH:MM:SS:FF; any separators), as a frame\n"
    "count since midnight (--frames) or as three RP188 register words in\n"
    "hexadecimal (--decode), optionally moves it by --add or --subtract frames\n"
    "(wrapping at a day), and prints its text, frame count and format.\n"
    "Formats: 24, 25, 30, 30df, 50, 60, 60df (default 30); the drop-frame\n"
    "text has ';' before the frames. A time code or frame count outside the\n"
    "format (25:00:00:00, frame 40 at 30, a label drop frame skips, a count\n"
    "past the day) is refused; with --unchecked it goes to the library, which\n"
    "carries components over (10:20:30:40 at 30 is 10:20:31:10) and wraps\n"
    "counts at a day. --regs also prints the register words and the user bits.\n"
    "Examples: vorta tc 01:00:00:00 --format 30df --add 1800\n"
    "          vorta tc --frames 107892 --format 30df\n"
    "          vorta tc --decode 0 0x30000402 0x00000001 --format 30df",
    {{"format",
      "F",
      "time code format: 24, 25, 30, 30df, 50, 60 or 60df (default 30)",
      {"24", "25", "30", "30df", "50", "60", "60df"}},
     {"frames", "N", "start from frame count N since midnight"},
     {"decode", "", "start from the register words DBB LOW HIGH given as arguments"},
     {"add", "N", "add N frames"},
     {"subtract", "N", "subtract N frames"},
     {"regs", "", "also print the register words and user bits"},
     {"unchecked", "", "pass values outside the format to the library unchanged"},
     jsonOption()},
    run,
    0,
    3,
};
VORTA_REGISTER_COMMAND(kTc);

}  // namespace
