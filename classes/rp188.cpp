// SPDX-License-Identifier: MIT
// vorta: CRP188 time code values: formats, frame arithmetic, RP188 register words and text.
#include "rp188.h"

#include <cstdlib>
#include <cstring>
#include <sstream>

namespace {

// Bits of the low word.
constexpr uint32_t kLowVaricamActive1 = 1u << 4;
constexpr uint32_t kLowVaricamActive0 = 1u << 5;
constexpr uint32_t kLowDropFrame = 1u << 10;
constexpr uint32_t kLowColorFrame = 1u << 11;
constexpr uint32_t kLowVaricamRateMask = (0xFu << 20) | (0xFu << 28);
constexpr uint32_t kLowBit27 = 1u << 27;
// Bits of the high word.
constexpr uint32_t kHighBit11 = 1u << 11;
constexpr uint32_t kHighBfg1 = 1u << 26;
constexpr uint32_t kHighBit27 = 1u << 27;
// Bits of the dbb word.
constexpr uint32_t kDbbInputFlag = 1u << 17;

inline uint32_t withBit(uint32_t word, uint32_t bit, bool on) { return on ? (word | bit) : (word & ~bit); }

inline bool isDigit(char c) { return c >= '0' && c <= '9'; }

// One digit character read on its own as a decimal number; anything that is
// not a digit reads as 0.
inline uint32_t digitValue(const std::string& text, std::size_t pos) {
  if (pos >= text.size()) return 0;
  const char c = text[pos];
  return isDigit(c) ? static_cast<uint32_t>(c - '0') : 0;
}

// Two decimal digits; v is always below 100 where this is used.
inline void putTwoDigits(char* out, unsigned int v) {
  out[0] = static_cast<char>('0' + v / 10);
  out[1] = static_cast<char>('0' + v % 10);
}

// Reads an unsigned decimal number from the start of a component of the
// time code text, as a formatted input stream does (leading blanks and a
// sign accepted). Returns false, leaving value alone, when there is no
// number. The common all-digit cases are decoded directly; everything else
// goes through the stream so that its exact rules apply.
bool readComponent(const char* text, std::size_t length, unsigned int& value) {
  if (length >= 1 && isDigit(text[0])) {
    if (length >= 2 && isDigit(text[1])) {
      value = static_cast<unsigned int>((text[0] - '0') * 10 + (text[1] - '0'));
    } else {
      value = static_cast<unsigned int>(text[0] - '0');
    }
    return true;
  }
  std::istringstream in(std::string(text, length));
  unsigned int read = 0;
  if (!(in >> read)) return false;
  value = read;
  return true;
}

// Per-format constants, inlined where the value is built (the public
// queries below resolve 0 to the stored format and call these).
inline uint32_t fpsOf(TimecodeFormat f) {
  switch (f) {
    case TCFormat24fps:
      return 24;
    case TCFormat25fps:
      return 25;
    case TCFormat50fps:
      return 50;
    case TCFormat60fps:
    case TCFormat60fpsDF:
      return 60;
    default:  // 30 and 30 drop, and the fallback for anything unknown
      return 30;
  }
}
inline bool isDropFrameFormat(TimecodeFormat f) { return f == TCFormat30fpsDF || f == TCFormat60fpsDF; }
inline bool is60_50Format(TimecodeFormat f) {
  return f == TCFormat50fps || f == TCFormat60fps || f == TCFormat60fpsDF;
}
inline bool isPalFormat(TimecodeFormat f) { return f == TCFormat25fps || f == TCFormat50fps; }

inline VexaFrameRate defaultRateOf(TimecodeFormat f) {
  // The drop-frame formats share the rate of their non-drop partners.
  switch (f) {
    case TCFormat24fps:
      return Rate24;
    case TCFormat25fps:
      return Rate25;
    case TCFormat30fps:
    case TCFormat30fpsDF:
      return Rate30;
    case TCFormat50fps:
      return Rate50;
    case TCFormat60fps:
    case TCFormat60fpsDF:
      return Rate60;
    default:
      return RateUnknown;
  }
}

// The Varicam rate code carried in binary groups 4 and 3; 0 for rates without one.
inline uint32_t varicamCodeOf(VexaFrameRate rate) {
  switch (rate) {
    case Rate60:
    case Rate5994:
      return 60;
    case Rate30:
    case Rate2997:
      return 30;
    case Rate25:
      return 25;
    case Rate24:
    case Rate2398:
      return 24;
    case Rate50:
      return 50;
    case Rate15:
    case Rate1498:
      return 15;
    default:
      return 0;
  }
}

inline uint32_t withVaricamCode(uint32_t low, uint32_t code) {
  return (low & ~kLowVaricamRateMask) | ((code / 10) << 28) | ((code % 10) << 20);
}

// The time code words built from the digits of a time code text: each digit
// character read on its own as a decimal number (anything else reads as 0)
// and placed in its field. In 60/50 formats the frame number, clamped to the
// last frame of the second, is halved into the digits and its lowest bit is
// returned in fieldID (-1 otherwise).
inline void wordsFromText(const std::string& t, TimecodeFormat f, uint32_t& low, uint32_t& high,
                          int& fieldID) {
  high = (digitValue(t, 0) & 3) << 24 | (digitValue(t, 1) & 0xF) << 16 | (digitValue(t, 3) & 7) << 8 |
         (digitValue(t, 4) & 0xF);
  low = (digitValue(t, 6) & 7) << 24 | (digitValue(t, 7) & 0xF) << 16;
  if (!is60_50Format(f)) {
    low |= (digitValue(t, 9) & 3) << 8 | (digitValue(t, 10) & 0xF);
    fieldID = -1;
    return;
  }
  const uint32_t fps = fpsOf(f);
  uint32_t n = digitValue(t, 9) * 10 + digitValue(t, 10);
  if (n >= fps) n = fps - 1;
  fieldID = static_cast<int>(n & 1);
  n /= 2;
  low |= (n % 10) | ((n / 10) & 3) << 8;
}

const char kHexDigits[] = "0123456789ABCDEF";
// Register nibbles turned into text digits: 10 to 15 read as 0.
const char kRegisterDigits[] = "0123456789000000";

}  // namespace

// ---------------------------------------------------------------------------
// Construction and lifetime

CRP188::CRP188() { Init(); }

CRP188::CRP188(unsigned int frameCount, TimecodeFormat format) {
  Init();
  SetRP188(frameCount, format);
}

CRP188::CRP188(unsigned int frames, unsigned int seconds, unsigned int minutes, unsigned int hours,
               TimecodeFormat format) {
  Init();
  SetRP188(frames, seconds, minutes, hours, format);
}

CRP188::CRP188(std::string& text, TimecodeFormat format) {
  Init();
  SetRP188(text, format);
}

CRP188::CRP188(const RP188_STRUCT& regs, TimecodeFormat format) {
  Init();
  SetRP188(regs, format);
}

CRP188::CRP188(const CRP188& other) {
  Init();
  CopyFrom(other);
}

CRP188& CRP188::operator=(const CRP188& other) {
  if (this != &other) {
    FreeGlyphs();
    CopyFrom(other);
  }
  return *this;
}

CRP188::~CRP188() { FreeGlyphs(); }

void CRP188::Init() {
  format_ = TCFormatUnknown;
  valid_ = false;
  inputFlag_ = false;
  varicamActive0_ = false;
  varicamActive1_ = false;
  fieldID_ = 0;
  dropFrame_ = false;
  colorFrame_ = false;
  varicamRate_ = 0;
  bfg0_ = bfg1_ = bfg2_ = false;
  timecodeString_.clear();
  userBitsString_.clear();
  frames_ = seconds_ = minutes_ = hours_ = 0;
  for (unsigned int& group : binaryGroup_) group = 0;
  regDBB_ = regLow_ = regHigh_ = 0;
  glyphs_ = nullptr;  // a new object owns no glyphs yet
  ClearBurnIn();
}

void CRP188::FreeGlyphs() {
  std::free(glyphs_);
  glyphs_ = nullptr;
  burnInReady_ = false;
}

// Copies every field; the glyph buffer is duplicated, never shared. Expects
// this object to own no glyph buffer.
void CRP188::CopyFrom(const CRP188& other) {
  format_ = other.format_;
  valid_ = other.valid_;
  inputFlag_ = other.inputFlag_;
  varicamActive0_ = other.varicamActive0_;
  varicamActive1_ = other.varicamActive1_;
  fieldID_ = other.fieldID_;
  dropFrame_ = other.dropFrame_;
  colorFrame_ = other.colorFrame_;
  varicamRate_ = other.varicamRate_;
  bfg0_ = other.bfg0_;
  bfg1_ = other.bfg1_;
  bfg2_ = other.bfg2_;
  timecodeString_ = other.timecodeString_;
  userBitsString_ = other.userBitsString_;
  frames_ = other.frames_;
  seconds_ = other.seconds_;
  minutes_ = other.minutes_;
  hours_ = other.hours_;
  for (int i = 0; i < 8; ++i) binaryGroup_[i] = other.binaryGroup_[i];
  regDBB_ = other.regDBB_;
  regLow_ = other.regLow_;
  regHigh_ = other.regHigh_;
  burnInReady_ = other.burnInReady_;
  burnFormat_ = other.burnFormat_;
  burnHeight_ = other.burnHeight_;
  burnWidth_ = other.burnWidth_;
  burnRowBytes_ = other.burnRowBytes_;
  burnGlyphHeight_ = other.burnGlyphHeight_;
  burnHorizontalStart_ = other.burnHorizontalStart_;
  burnVerticalStart_ = other.burnVerticalStart_;
  glyphs_ = nullptr;
  if (other.glyphs_ == nullptr) return;
  const uint64_t size =
      other.burnRowBytes_ > 0 && other.burnGlyphHeight_ > 0
          ? 15ull * static_cast<uint64_t>(other.burnRowBytes_) * static_cast<uint64_t>(other.burnGlyphHeight_)
          : 0;
  if (size > 0 && size <= static_cast<uint64_t>(static_cast<std::size_t>(-1)))
    glyphs_ = static_cast<unsigned char*>(std::malloc(static_cast<std::size_t>(size)));
  if (glyphs_ == nullptr) {
    // Nothing to draw from: burn-in has to be set up again on this copy.
    burnInReady_ = false;
    return;
  }
  std::memcpy(glyphs_, other.glyphs_, static_cast<std::size_t>(size));
}

// ---------------------------------------------------------------------------
// Format queries

bool CRP188::FormatIsDropFrame(TimecodeFormat format) const {
  return isDropFrameFormat(format == TCFormatUnknown ? format_ : format);
}

bool CRP188::FormatIs60_50fps(TimecodeFormat format) const {
  return is60_50Format(format == TCFormatUnknown ? format_ : format);
}

bool CRP188::FormatIsPAL(TimecodeFormat format) const {
  return isPalFormat(format == TCFormatUnknown ? format_ : format);
}

unsigned int CRP188::FramesPerSecond(TimecodeFormat format) const {
  return fpsOf(format == TCFormatUnknown ? format_ : format);
}

unsigned int CRP188::MaxFramesPerDay(TimecodeFormat format) const {
  const TimecodeFormat f = format == TCFormatUnknown ? format_ : format;
  const uint32_t fps = fpsOf(f);
  if (!isDropFrameFormat(f)) return fps * 86400u;
  // The frames dropped per minute follow the stored format, not the argument.
  const uint32_t drop = format_ == TCFormat60fpsDF ? 4 : 2;
  const uint32_t fpm = fps * 60;
  return ((fpm - drop) * 9 + fpm) * 144;
}

VexaFrameRate CRP188::DefaultFrameRateForTimecodeFormat(TimecodeFormat format) const {
  return defaultRateOf(format == TCFormatUnknown ? format_ : format);
}

// ---------------------------------------------------------------------------
// Frame arithmetic (unsigned 32-bit throughout)

void CRP188::ConvertFrameCount(unsigned int frameCount, TimecodeFormat format, unsigned int& hours,
                               unsigned int& minutes, unsigned int& seconds, unsigned int& frames) const {
  const TimecodeFormat resolved = format == TCFormatUnknown ? format_ : format;
  const uint32_t fps = fpsOf(resolved);
  const uint32_t fpm = fps * 60;
  if (!isDropFrameFormat(resolved)) {
    uint32_t rest = frameCount % (fps * 86400u);
    const uint32_t fph = fps * 3600;
    hours = rest / fph;
    rest %= fph;
    minutes = rest / fpm;
    rest %= fpm;
    seconds = rest / fps;
    frames = rest % fps;
    return;
  }
  // As in MaxFramesPerDay, the drop count comes from the stored format.
  const uint32_t drop = format_ == TCFormat60fpsDF ? 4 : 2;
  const uint32_t fpmDrop = fpm - drop;
  const uint32_t tenMin = fpmDrop * 9 + fpm;
  const uint32_t hour = tenMin * 6;
  const uint32_t day = hour * 24;

  uint32_t rest = frameCount % day;
  const uint32_t h = rest / hour;
  rest %= hour;
  const uint32_t t = rest / tenMin;
  uint32_t m = t * 10;
  uint32_t r = rest % tenMin;
  if (r >= fpm) {
    // Past the first minute of the ten, which keeps all its frame numbers.
    r -= fpm;
    m = t * 10 + 1 + r / fpmDrop;
    r %= fpmDrop;
  }
  uint32_t s = 0;
  if (m % 10 == 0) {
    s = r / fps;
    r %= fps;
  } else if (r >= fps - drop) {
    r -= fps - drop;
    s = r / fps + 1;
    r %= fps;
  }
  uint32_t f = r;
  // The first frame numbers of a dropping minute do not exist.
  if (s == 0 && m % 10 != 0) f += drop;
  hours = h;
  minutes = m;
  seconds = s;
  frames = f;
}

void CRP188::ConvertTimecode(unsigned int& frameCount, TimecodeFormat format, unsigned int hours,
                             unsigned int minutes, unsigned int seconds, unsigned int frames) const {
  const TimecodeFormat resolved = format == TCFormatUnknown ? format_ : format;
  const uint32_t fps = fpsOf(resolved);
  const uint32_t fpm = fps * 60;
  if (!isDropFrameFormat(resolved)) {
    frameCount = fps * ((hours * 60 + minutes) * 60 + seconds) + frames;
    return;
  }
  // The drop count follows the argument as passed: 0 gives 2 even when the
  // stored format is 60 drop frame.
  const uint32_t drop = format == TCFormat60fpsDF ? 4 : 2;
  const uint32_t fpmDrop = fpm - drop;
  const uint32_t tenMin = fpmDrop * 9 + fpm;
  uint32_t count = tenMin * (minutes / 10 + hours * 6);
  if (minutes % 10 != 0) count += fpmDrop * (minutes % 10 - 1) + fpm;
  if (static_cast<int32_t>(seconds) > 0) {
    uint32_t s = seconds;
    // Whether this minute drops is judged by the stored minutes, not the
    // minutes argument; GetFrameCount passes the stored minutes anyway.
    if (minutes_ % 10 != 0) {
      count += fps - drop;
      s = seconds - 1;
    }
    count += s * fps;
  }
  if (seconds != 0 || minutes % 10 == 0) {
    count += frames;
  } else if (frames >= drop) {
    count += frames - drop;
  }
  frameCount = count;
}

bool CRP188::GetFrameCount(unsigned int& frameCount) const {
  ConvertTimecode(frameCount, format_, hours_, minutes_, seconds_, frames_);
  return valid_;
}

unsigned int CRP188::AddFrames(unsigned int n) {
  unsigned int current = 0;
  GetFrameCount(current);
  const uint32_t next = (current + n) % MaxFramesPerDay(TCFormatUnknown);
  SetRP188(next, format_);
  return next;
}

unsigned int CRP188::SubtractFrames(unsigned int n) {
  unsigned int current = 0;
  GetFrameCount(current);
  const uint32_t max = MaxFramesPerDay(TCFormatUnknown);
  const uint32_t d = n % max;
  const uint32_t next = d > current ? max + current - d : current - d;
  SetRP188(next, format_);
  return next;
}

bool CRP188::operator==(const CRP188& other) const {
  if (!other.valid_) return false;
  return frames_ == other.frames_ && seconds_ == other.seconds_ && minutes_ == other.minutes_ &&
         hours_ == other.hours_;
}

// ---------------------------------------------------------------------------
// Setters of the whole value

bool CRP188::SetRP188(unsigned int frameCount, TimecodeFormat format) {
  if (format != TCFormatUnknown) format_ = format;
  unsigned int hours = 0, minutes = 0, seconds = 0, frames = 0;
  ConvertFrameCount(frameCount, format_, hours, minutes, seconds, frames);
  return SetRP188(frames, seconds, minutes, hours, format_);
}

bool CRP188::SetRP188(unsigned int frames, unsigned int seconds, unsigned int minutes, unsigned int hours,
                      TimecodeFormat format) {
  if (format != TCFormatUnknown) format_ = format;
  const bool dropFrame = isDropFrameFormat(format_);
  const uint32_t fps = fpsOf(format_);

  // Carry over-large components upwards; afterwards every component fits in
  // two digits (frames < fps <= 60, seconds and minutes < 60, hours < 24).
  if (frames >= fps) {
    seconds += frames / fps;
    frames %= fps;
  }
  if (seconds > 59) {
    minutes += seconds / 60;
    seconds %= 60;
  }
  if (minutes > 59) {
    hours += minutes / 60;
    minutes %= 60;
  }
  if (hours > 23) hours %= 24;

  // Frame numbers that a dropping minute skips move up to its first frame.
  if (seconds == 0 && minutes % 10 != 0) {
    if (format_ == TCFormat30fpsDF && frames < 2) {
      frames = 2;
    } else if (format_ == TCFormat60fpsDF && frames < 4) {
      frames = 4;
    }
  }

  frames_ = frames;
  seconds_ = seconds;
  minutes_ = minutes;
  hours_ = hours;

  char text[11];
  putTwoDigits(text, hours);
  text[2] = ':';
  putTwoDigits(text + 3, minutes);
  text[5] = ':';
  putTwoDigits(text + 6, seconds);
  text[8] = dropFrame ? ';' : ':';
  putTwoDigits(text + 9, frames);
  timecodeString_.assign(text, sizeof text);

  // The register words are rebuilt from the text (ConvertTcStrToReg), then
  // the flags are set as SetVaricamFrameActive(false, 0 and 1),
  // SetDropFrame, SetColorFrame(false), SetVaricamRate of the format's
  // default rate, SetFieldID(0) outside 60/50 and SetBFGBits(false, false,
  // false) would set them; done in place because this is the hot path.
  const bool pal = isPalFormat(format_);
  uint32_t low = 0;
  uint32_t high = 0;
  int fieldID = -1;
  wordsFromText(timecodeString_, format_, low, high, fieldID);
  if (fieldID >= 0) {
    fieldID_ = static_cast<unsigned int>(fieldID);
    if (pal) {
      high = withBit(high, kHighBit27, fieldID != 0);
    } else {
      low = withBit(low, kLowBit27, fieldID != 0);
    }
  }
  valid_ = true;
  inputFlag_ = false;
  varicamActive0_ = false;
  varicamActive1_ = false;
  low &= ~(kLowVaricamActive0 | kLowVaricamActive1);
  dropFrame_ = dropFrame;
  low = withBit(low, kLowDropFrame, dropFrame);
  colorFrame_ = false;
  low &= ~kLowColorFrame;
  low = withVaricamCode(low, varicamCodeOf(defaultRateOf(format_)));
  if (!is60_50Format(format_)) {
    fieldID_ = 0;
    if (pal) {
      high &= ~kHighBit27;
    } else {
      low &= ~kLowBit27;
    }
  }
  high &= ~kHighBfg1;
  if (pal) {
    low &= ~kLowBit27;
    high &= ~kHighBit11;
  } else {
    high &= ~(kHighBit11 | kHighBit27);
  }
  regDBB_ = 0;
  regLow_ = low;
  regHigh_ = high;
  return true;
}

bool CRP188::SetRP188(unsigned int frames, unsigned int seconds, unsigned int minutes, unsigned int hours,
                      VexaFrameRate rate, bool dropFrame, bool doubleRate) {
  TimecodeFormat format;
  switch (rate) {
    case Rate60:
    case Rate5994:
      format = TCFormat60fps;
      break;
    case Rate30:
    case Rate2997:
      format = TCFormat30fps;
      break;
    case Rate25:
      format = TCFormat25fps;
      break;
    case Rate24:
    case Rate2398:
      format = TCFormat24fps;
      break;
    case Rate50:
      format = TCFormat50fps;
      break;
    default:  // an unknown rate gives 30 drop frame whatever the flags say
      format = TCFormat30fpsDF;
      break;
  }
  if ((rate == Rate30 || rate == Rate2997) && doubleRate) {
    format = dropFrame ? TCFormat60fpsDF : TCFormat60fps;
  } else if (rate == Rate25 && doubleRate) {
    format = TCFormat50fps;
  } else if (dropFrame) {
    if (format == TCFormat30fps) format = TCFormat30fpsDF;
    if (format == TCFormat60fps) format = TCFormat60fpsDF;
  }
  return SetRP188(frames, seconds, minutes, hours, format);
}

bool CRP188::SetRP188(const RP188_STRUCT& regs, TimecodeFormat format) {
  if (format != TCFormatUnknown) format_ = format;
  const uint32_t low = regs.low;
  const uint32_t high = regs.high;
  const bool dropFrame = (low & kLowDropFrame) != 0;
  const bool pal = isPalFormat(format_);

  char text[11];
  if (is60_50Format(format_)) {
    // The frame digits carry half the frame number; the field ID its lowest bit.
    const uint32_t id = ((pal ? high : low) & (pal ? kHighBit27 : kLowBit27)) != 0 ? 1 : 0;
    const uint32_t n = (((low >> 8) & 3) * 10 + (low & 0xF)) * 2 + id;
    text[9] = static_cast<char>('0' + n / 10);
    text[10] = static_cast<char>('0' + n % 10);
  } else {
    text[9] = kRegisterDigits[(low >> 8) & 3];
    text[10] = kRegisterDigits[low & 0xF];
  }
  text[0] = kRegisterDigits[(high >> 24) & 3];
  text[1] = kRegisterDigits[(high >> 16) & 0xF];
  text[2] = ':';
  text[3] = kRegisterDigits[(high >> 8) & 7];
  text[4] = kRegisterDigits[high & 0xF];
  text[5] = ':';
  text[6] = kRegisterDigits[(low >> 24) & 7];
  text[7] = kRegisterDigits[(low >> 16) & 0xF];
  text[8] = dropFrame ? ';' : ':';
  timecodeString_.assign(text, sizeof text);
  // Every tens digit above is a decimal digit (at most 3 or 7), so each
  // component is read back from the text whole.
  ConvertTcStrToVal();

  // The words are kept as given, not re-encoded from the digits.
  regDBB_ = regs.dbb;
  regLow_ = low;
  regHigh_ = high;

  varicamActive0_ = (low & kLowVaricamActive0) != 0;
  varicamActive1_ = (low & kLowVaricamActive1) != 0;
  dropFrame_ = dropFrame;
  colorFrame_ = (low & kLowColorFrame) != 0;
  inputFlag_ = (regs.dbb & kDbbInputFlag) != 0;
  valid_ = true;
  // Taken from the binary groups as they stand, before any refresh from the
  // new words; only RP188ToUserBits refreshes them.
  varicamRate_ = binaryGroup_[3] * 10 + binaryGroup_[2];
  if (pal) {
    fieldID_ = (high & kHighBit27) != 0 ? 1 : 0;
    bfg0_ = (low & kLowBit27) != 0;
    bfg2_ = (high & kHighBit11) != 0;
  } else {
    fieldID_ = (low & kLowBit27) != 0 ? 1 : 0;
    bfg0_ = (high & kHighBit11) != 0;
    bfg2_ = (high & kHighBit27) != 0;
  }
  bfg1_ = (high & kHighBfg1) != 0;
  return true;
}

bool CRP188::SetRP188(std::string& text, TimecodeFormat format) {
  if (format != TCFormatUnknown) format_ = format;
  timecodeString_ = text;
  ConvertTcStrToVal();
  return SetRP188(frames_, seconds_, minutes_, hours_, format_);
}

// ---------------------------------------------------------------------------
// Flag setters and readers

void CRP188::SetDropFrame(bool dropFrame) {
  dropFrame_ = dropFrame;
  regLow_ = withBit(regLow_, kLowDropFrame, dropFrame);
}

void CRP188::SetColorFrame(bool colorFrame) {
  colorFrame_ = colorFrame;
  regLow_ = withBit(regLow_, kLowColorFrame, colorFrame);
}

void CRP188::SetVaricamFrameActive(bool active, unsigned int frame) {
  if (frame != 0) {
    varicamActive1_ = active;
    regLow_ = withBit(regLow_, kLowVaricamActive1, active);
  } else {
    varicamActive0_ = active;
    regLow_ = withBit(regLow_, kLowVaricamActive0, active);
  }
}

void CRP188::SetVaricamRate(VexaFrameRate rate) { regLow_ = withVaricamCode(regLow_, varicamCodeOf(rate)); }

void CRP188::SetFieldID(unsigned int id) {
  fieldID_ = id;
  if (isPalFormat(format_)) {
    regHigh_ = withBit(regHigh_, kHighBit27, id != 0);
  } else {
    regLow_ = withBit(regLow_, kLowBit27, id != 0);
  }
}

void CRP188::SetBFGBits(bool bfg0, bool bfg1, bool bfg2) {
  regHigh_ = withBit(regHigh_, kHighBfg1, bfg1);
  if (isPalFormat(format_)) {
    regLow_ = withBit(regLow_, kLowBit27, bfg0);
    regHigh_ = withBit(regHigh_, kHighBit11, bfg2);
  } else {
    regHigh_ = withBit(regHigh_, kHighBit11, bfg0);
    regHigh_ = withBit(regHigh_, kHighBit27, bfg2);
  }
}

void CRP188::SetSource(unsigned char source) {
  regDBB_ = (regDBB_ & 0x00FFFFFFu) | (static_cast<uint32_t>(source) << 24);
}

unsigned char CRP188::GetSource() const { return static_cast<unsigned char>(regDBB_ >> 24); }

unsigned int CRP188::GetFieldID() const {
  if (isPalFormat(format_)) return (regHigh_ & kHighBit27) != 0 ? 1 : 0;
  return (regLow_ & kLowBit27) != 0 ? 1 : 0;
}

bool CRP188::GetRP188Reg(RP188_STRUCT& regs) const {
  regs.dbb = regDBB_;
  regs.low = regLow_;
  regs.high = regHigh_;
  return valid_;
}

unsigned int CRP188::UDW(unsigned int n) const {
  if (n >= 1 && n <= 8) return (regLow_ >> (4 * (n - 1))) & 0xF;
  if (n >= 9 && n <= 16) return (regHigh_ >> (4 * (n - 9))) & 0xF;
  return 0;
}

unsigned int CRP188::BinaryGroup(unsigned int n) {
  RP188ToUserBits();
  if (n >= 1 && n <= 8) return binaryGroup_[n - 1];
  return 0;
}

unsigned int CRP188::VaricamFrameRate() { return BinaryGroup(4) * 10 + BinaryGroup(3); }

TimecodeFormat CRP188::GetFormat() const { return format_; }
bool CRP188::IsValid() const { return valid_; }
bool CRP188::IsDropFrame() const { return dropFrame_; }
bool CRP188::IsColorFrame() const { return colorFrame_; }
bool CRP188::GetInputFlag() const { return inputFlag_; }
bool CRP188::GetVaricamFrameActive(unsigned int frame) const {
  return frame != 0 ? varicamActive1_ : varicamActive0_;
}
unsigned int CRP188::GetVaricamRate() const { return varicamRate_; }
void CRP188::GetBFGBits(bool& bfg0, bool& bfg1, bool& bfg2) const {
  bfg0 = bfg0_;
  bfg1 = bfg1_;
  bfg2 = bfg2_;
}

// ---------------------------------------------------------------------------
// Register and text conversions

void CRP188::ConvertTcStrToReg() {
  // The dbb word, and with it the source byte, is cleared too.
  regDBB_ = 0;
  int fieldID = -1;
  wordsFromText(timecodeString_, format_, regLow_, regHigh_, fieldID);
  if (fieldID >= 0) SetFieldID(static_cast<unsigned int>(fieldID));
}

void CRP188::ConvertTcStrToVal() {
  unsigned int* const components[4] = {&hours_, &minutes_, &seconds_, &frames_};
  const std::size_t size = timecodeString_.size();
  const char* data = timecodeString_.data();
  for (std::size_t i = 0; i < 4; ++i) {
    const std::size_t pos = i * 3;
    if (pos >= size) break;
    const std::size_t length = size - pos < 2 ? size - pos : 2;
    readComponent(data + pos, length, *components[i]);
  }
}

void CRP188::RP188ToUserBits() {
  for (int i = 0; i < 4; ++i) {
    binaryGroup_[i] = (regLow_ >> (4 + 8 * i)) & 0xF;
    binaryGroup_[4 + i] = (regHigh_ >> (4 + 8 * i)) & 0xF;
  }
  const char text[11] = {kHexDigits[binaryGroup_[7]], kHexDigits[binaryGroup_[6]], ' ',
                         kHexDigits[binaryGroup_[5]], kHexDigits[binaryGroup_[4]], ' ',
                         kHexDigits[binaryGroup_[3]], kHexDigits[binaryGroup_[2]], ' ',
                         kHexDigits[binaryGroup_[1]], kHexDigits[binaryGroup_[0]]};
  userBitsString_.assign(text, sizeof text);
}

// ---------------------------------------------------------------------------
// Text

bool CRP188::GetRP188Str(std::string& out) const {
  out = timecodeString_;
  return valid_;
}

const char* CRP188::GetRP188CString() const { return timecodeString_.c_str(); }

bool CRP188::GetRP188Frms(unsigned int& frames) const {
  frames = frames_;
  return valid_;
}

bool CRP188::GetRP188Secs(unsigned int& seconds) const {
  seconds = seconds_;
  return valid_;
}

bool CRP188::GetRP188Mins(unsigned int& minutes) const {
  minutes = minutes_;
  return valid_;
}

bool CRP188::GetRP188Hrs(unsigned int& hours) const {
  hours = hours_;
  return valid_;
}

const char* CRP188::GetRP188UserBitsCString() {
  RP188ToUserBits();
  return userBitsString_.c_str();
}

bool CRP188::GetRP188UserBitsStr(std::string& out) {
  RP188ToUserBits();
  out = userBitsString_;
  return valid_;
}

std::string CRP188::GetTimeCodeString(bool withFieldMarker) {
  const int32_t values[4] = {static_cast<int32_t>(hours_), static_cast<int32_t>(minutes_),
                             static_cast<int32_t>(seconds_), static_cast<int32_t>(frames_)};
  std::string out;
  out.reserve(12);
  int marker = -1;
  for (int i = 0; i < 4; ++i) {
    int32_t v = values[i];
    if (i == 3) {
      out += FormatIsDropFrame(TCFormatUnknown) ? ';' : ':';
      if (FormatIs60_50fps(TCFormatUnknown) && withFieldMarker) {
        marker = (v % 2 == 0) ? 13 : 14;
        v /= 2;
      }
    } else if (i > 0) {
      out += ':';
    }
    const int32_t tens = v / 10;
    // Glyph codes run to 15; anything above draws as the blank glyph 13 ('=').
    if (tens < 0) {
      out += '0';
    } else if (tens > 15) {
      out += '=';
    } else {
      out += static_cast<char>('0' + tens);
    }
    const int32_t units = v - tens * 10;
    out += static_cast<char>('0' + (units > 0 ? units : 0));
  }
  if (marker >= 0) out += static_cast<char>('0' + marker);
  return out;
}
