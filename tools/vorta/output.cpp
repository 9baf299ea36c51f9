// SPDX-License-Identifier: MIT
// vorta tool: the one output layer: typed results as tables, JSON, CSV or TSV, every text made safe.
#include "output.h"

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <thread>

#include "cli.h"

namespace vorta {
namespace cli {

namespace {

// The length of the well-formed UTF-8 sequence at text[i] and its code
// point; 0 when no well-formed sequence starts there.
std::size_t sequenceAt(const std::string& text, std::size_t i, char32_t& point) {
  const unsigned char lead = static_cast<unsigned char>(text[i]);
  std::size_t length;
  char32_t least;
  if (lead < 0x80) {
    point = lead;
    return 1;
  } else if (lead >= 0xC2 && lead <= 0xDF) {
    length = 2, point = lead & 0x1F, least = 0x80;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    length = 3, point = lead & 0x0F, least = 0x800;
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    length = 4, point = lead & 0x07, least = 0x10000;
  } else {
    return 0;
  }
  if (length > text.size() - i) return 0;
  for (std::size_t k = 1; k < length; ++k) {
    const unsigned char next = static_cast<unsigned char>(text[i + k]);
    if ((next & 0xC0) != 0x80) return 0;
    point = point << 6 | (next & 0x3F);
  }
  if (point < least || point > 0x10FFFF || (point >= 0xD800 && point <= 0xDFFF)) return 0;
  return length;
}

// Characters that move the cursor, change the terminal's state or reorder
// what follows: C0 and C1 controls, DEL, and the bidirectional controls.
bool isControl(char32_t c) {
  return c < 0x20 || (c >= 0x7F && c <= 0x9F) || c == 0x200E || c == 0x200F || (c >= 0x202A && c <= 0x202E) ||
         (c >= 0x2066 && c <= 0x2069);
}

void escapeByte(std::string& out, unsigned char c) {
  static const char named[] = "abtnvfr";  // \a (7) to \r (13)
  out += '\\';
  if (c >= 7 && c <= 13) {
    out += named[c - 7];
    return;
  }
  out += static_cast<char>('0' + (c >> 6));
  out += static_cast<char>('0' + ((c >> 3) & 7));
  out += static_cast<char>('0' + (c & 7));
}

// Terminal columns a code point of shown text takes: 0 for combining marks
// and zero-width characters, 2 for the wide East Asian ranges and emoji.
std::size_t columnsOf(char32_t c) {
  if (c < 0x300) return 1;  // every range below starts above Latin
  if ((c >= 0x300 && c <= 0x36F) || (c >= 0x1AB0 && c <= 0x1AFF) || (c >= 0x1DC0 && c <= 0x1DFF) ||
      (c >= 0x20D0 && c <= 0x20FF) || (c >= 0xFE20 && c <= 0xFE2F) || (c >= 0x200B && c <= 0x200D) ||
      c == 0xFEFF)
    return 0;
  if ((c >= 0x1100 && c <= 0x115F) || (c >= 0x2E80 && c <= 0xA4CF && c != 0x303F) ||
      (c >= 0xAC00 && c <= 0xD7A3) || (c >= 0xF900 && c <= 0xFAFF) || (c >= 0xFE30 && c <= 0xFE4F) ||
      (c >= 0xFF00 && c <= 0xFF60) || (c >= 0xFFE0 && c <= 0xFFE6) || (c >= 0x1F300 && c <= 0x1F64F) ||
      (c >= 0x1F900 && c <= 0x1F9FF) || (c >= 0x20000 && c <= 0x3FFFD))
    return 2;
  return 1;
}

// The code points of shown text with their widths.
std::vector<std::pair<std::string, std::size_t>> glyphs(const std::string& text) {
  std::vector<std::pair<std::string, std::size_t>> out;
  for (std::size_t i = 0; i < text.size();) {
    char32_t point = 0;
    const std::size_t length = std::max<std::size_t>(sequenceAt(text, i, point), 1);
    out.emplace_back(text.substr(i, length), columnsOf(point));
    i += length;
  }
  return out;
}

// The columns shown text takes: the sum of its glyphs' widths, counted
// without taking the glyphs apart (a table measures every cell).
std::size_t widthOf(const std::string& text) {
  std::size_t width = 0;
  for (std::size_t i = 0; i < text.size();) {
    if (static_cast<unsigned char>(text[i]) < 0x80) {  // one column, whatever it is
      ++width;
      ++i;
      continue;
    }
    char32_t point = 0;
    const std::size_t length = std::max<std::size_t>(sequenceAt(text, i, point), 1);
    width += columnsOf(point);
    i += length;
  }
  return width;
}

// text cut to width columns: "...", at the end or in the middle.
std::string cut(const std::string& text, std::size_t width, Column::Fit fit) {
  if (fit == Column::Keep || widthOf(text) <= width) return text;
  const auto all = glyphs(text);
  const std::size_t room = width > 3 ? width - 3 : 0;
  const std::size_t headRoom = fit == Column::End ? room : (room + 1) / 2;
  std::string head, tail;
  std::size_t used = 0;
  for (const auto& glyph : all) {
    if (used + glyph.second > headRoom) break;
    head += glyph.first;
    used += glyph.second;
  }
  used = 0;
  for (auto it = all.rbegin(); fit == Column::Middle && it != all.rend(); ++it) {
    if (used + it->second > room - headRoom) break;
    tail.insert(0, it->first);
    used += it->second;
  }
  return head + (width > 3 ? "..." : "") + tail;
}

// A JSON string of text: as it is when UTF-8 without NUL, else with U+FFFD
// for every byte that is not (the caller adds the exact bytes).
std::string jsonText(const std::string& text, bool& lossy) {
  lossy = false;
  std::string out;
  for (std::size_t i = 0; i < text.size();) {
    char32_t point = 0;
    const std::size_t length = sequenceAt(text, i, point);
    if (length == 0 || point == 0) {
      out += "\xEF\xBF\xBD";
      lossy = true;
      ++i;
    } else {
      out.append(text, i, length);
      i += length;
    }
  }
  return out;
}

cJSON* jsonItem(const Value& value) {
  bool lossy = false;
  switch (value.kind) {
    case Value::Null:
      return cJSON_CreateNull();
    case Value::Bool:
      return cJSON_CreateBool(value.number != 0);
    case Value::Number:
      return cJSON_CreateNumber(value.number);
    case Value::Pairs: {
      cJSON* object = cJSON_CreateObject();
      for (const auto& pair : value.pairs())
        cJSON_AddStringToObject(object, jsonText(pair.first, lossy).c_str(),
                                jsonText(pair.second, lossy).c_str());
      return object;
    }
    default:
      return cJSON_CreateString(jsonText(value.text, lossy).c_str());
  }
}

int gStderr = 2;

// A byte shown as it is, as wide as one column: printable ASCII but the
// backslash (which shown() doubles).
bool plainByte(char c) { return c >= 0x20 && c < 0x7F && c != '\\'; }

}  // namespace

std::string shown(const std::string& text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size();) {
    // Printable ASCII but the backslash, most of any text, goes as it is, a run at a time.
    std::size_t plain = i;
    while (plain < text.size() && plainByte(text[plain])) ++plain;
    if (plain > i) {
      out.append(text, i, plain - i);
      i = plain;
      continue;
    }
    char32_t point = 0;
    const std::size_t length = sequenceAt(text, i, point);
    if (length == 0 || isControl(point)) {
      for (std::size_t k = 0; k < std::max<std::size_t>(length, 1); ++k)
        escapeByte(out, static_cast<unsigned char>(text[i + k]));
      i += std::max<std::size_t>(length, 1);
    } else {
      if (point == '\\')
        out += "\\\\";
      else
        out.append(text, i, length);
      i += length;
    }
  }
  return out;
}

bool isUtf8(const std::string& text) {
  bool lossy = false;
  jsonText(text, lossy);
  return !lossy;
}

std::string hexBytes(const std::string& text) {
  static const char digits[] = "0123456789ABCDEF";
  std::string out;
  for (unsigned char c : text) {
    if (!out.empty()) out += ' ';
    out += digits[c >> 4];
    out += digits[c & 15];
  }
  return out;
}

struct Value::Extra {
  std::vector<std::pair<std::string, std::string>> pairs;
  std::string display;
  bool hasDisplay = false;
};

Value::Value() = default;
Value::Value(Kind k, std::string shown, double n) : kind(k), number(n), text(std::move(shown)) {}
Value::Value(const Value& other)
    : kind(other.kind),
      number(other.number),
      text(other.text),
      extra_(other.extra_ ? new Extra(*other.extra_) : nullptr) {}
Value& Value::operator=(const Value& other) {
  if (this != &other) *this = Value(other);
  return *this;
}
Value::Value(Value&& other) noexcept = default;
Value& Value::operator=(Value&& other) noexcept = default;
Value::~Value() = default;

Value::Extra& Value::extra() {
  if (!extra_) extra_.reset(new Extra());
  return *extra_;
}

const std::vector<std::pair<std::string, std::string>>& Value::pairs() const {
  static const std::vector<std::pair<std::string, std::string>> none;
  return extra_ ? extra_->pairs : none;
}

void Value::setPairs(std::vector<std::pair<std::string, std::string>> entries) {
  extra().pairs = std::move(entries);
}

Value Value::shows(std::string display) const {
  Value copy = *this;
  copy.extra().display = std::move(display);
  copy.extra().hasDisplay = true;
  return copy;
}

const std::string& Value::display() const { return extra_ && extra_->hasDisplay ? extra_->display : text; }

Value text(std::string bytes) { return Value(Value::Text, std::move(bytes)); }
Value integer(long long number) {
  return Value(Value::Number, std::to_string(number), static_cast<double>(number));
}
Value real(double number, std::string display) { return Value(Value::Number, std::move(display), number); }
Value flag(bool on) { return Value(Value::Bool, on ? "yes" : "no", on); }
Value none(std::string display) { return Value(Value::Null, std::move(display)); }
Value absent() { return Value(); }
Value pairs(std::vector<std::pair<std::string, std::string>> entries) {
  Value value(Value::Pairs, "");
  value.setPairs(std::move(entries));
  return value;
}

void addJson(cJSON* object, const std::string& key, const Value& value) {
  if (value.kind == Value::Absent) return;
  cJSON_AddItemToObject(object, key.c_str(), jsonItem(value));
  if (value.kind == Value::Text && !isUtf8(value.text))
    cJSON_AddStringToObject(object, (key + "Hex").c_str(), hexBytes(value.text).c_str());
}

void addJson(cJSON* object, const std::string& key, const std::vector<std::string>& texts) {
  cJSON* list = cJSON_AddArrayToObject(object, key.c_str());
  bool lossy = false;
  for (const std::string& item : texts) {
    cJSON_AddItemToArray(list, jsonItem(text(item)));
    lossy = lossy || !isUtf8(item);
  }
  if (!lossy) return;
  cJSON* bytes = cJSON_AddArrayToObject(object, (key + "Hex").c_str());
  for (const std::string& item : texts)
    cJSON_AddItemToArray(bytes,
                         isUtf8(item) ? cJSON_CreateNull() : cJSON_CreateString(hexBytes(item).c_str()));
}

void Rows::add(std::vector<Value> row) {
  row.resize(columns_.size());
  rows_.push_back(std::move(row));
}

cJSON* Rows::json(bool asArrays) const {
  cJSON* list = cJSON_CreateArray();
  for (const auto& row : rows_) {
    cJSON* item = asArrays ? cJSON_CreateArray() : cJSON_CreateObject();
    for (std::size_t c = 0; c < columns_.size(); ++c) {
      if (columns_[c].key.empty()) continue;
      if (asArrays)
        cJSON_AddItemToArray(item, jsonItem(row[c]));
      else
        addJson(item, columns_[c].key, row[c]);
    }
    cJSON_AddItemToArray(list, item);
  }
  return list;
}

void Rows::table(std::ostream& out, std::size_t width, bool wide) const {
  std::vector<std::size_t> shownColumns;
  for (std::size_t c = 0; c < columns_.size(); ++c)
    if (!columns_[c].header.empty()) shownColumns.push_back(c);
  const std::size_t n = shownColumns.size();
  // Line 0 is the header row, line k row k - 1. Most cells are plain text
  // (printable ASCII but the backslash), shown as they are and as wide as
  // they are long; only the others are escaped, when measured and again when
  // written, so that no copy of a table of thousands of rows is held.
  const auto cellOf = [&](std::size_t line, std::size_t i) -> const std::string& {
    return line == 0 ? columns_[shownColumns[i]].header : rows_[line - 1][shownColumns[i]].display();
  };
  const auto plain = [](const std::string& text) { return std::all_of(text.begin(), text.end(), plainByte); };
  // The cell as shown, in spare when it had to be escaped, and its width.
  const auto shownCell = [&](const std::string& raw, std::string& spare,
                             std::size_t& columns) -> const std::string& {
    if (plain(raw)) {
      columns = raw.size();
      return raw;
    }
    spare = shown(raw);
    columns = widthOf(spare);
    return spare;
  };
  std::vector<std::size_t> widths(n);
  // A column with nothing in it is left out, unless every column is asked for.
  std::vector<bool> visible(n, wide || rows_.empty());
  std::string spare;
  for (std::size_t line = 0; line <= rows_.size(); ++line)
    for (std::size_t i = 0; i < n; ++i) {
      std::size_t columns = 0;
      const std::string& cell = shownCell(cellOf(line, i), spare, columns);
      widths[i] = std::max(widths[i], columns);
      if (line > 0 && !cell.empty()) visible[i] = true;
    }
  const auto total = [&] {
    std::size_t sum = 0;
    for (std::size_t i = 0; i < widths.size(); ++i)
      if (visible[i]) sum += widths[i] + (sum == 0 ? 0 : 2);
    return sum;
  };
  // Too wide: shorten the widest cells of the columns that may be shortened
  // to 30 columns, then drop columns by their order, then shorten further.
  const auto shorten = [&](std::size_t least) {
    while (total() > width) {
      std::size_t widest = widths.size();
      for (std::size_t i = 0; i < widths.size(); ++i) {
        const Column& column = columns_[shownColumns[i]];
        if (visible[i] && column.fit != Column::Keep && widths[i] > std::max(column.header.size(), least) &&
            (widest == widths.size() || widths[i] > widths[widest]))
          widest = i;
      }
      if (widest == widths.size()) return;
      --widths[widest];
    }
  };
  if (!wide) shorten(30);
  while (!wide && total() > width) {
    std::size_t victim = widths.size();
    for (std::size_t i = 0; i < widths.size(); ++i)
      if (visible[i] && columns_[shownColumns[i]].drop > 0 &&
          (victim == widths.size() || columns_[shownColumns[i]].drop > columns_[shownColumns[victim]].drop))
        victim = i;
    if (victim == widths.size()) break;
    visible[victim] = false;
  }
  if (!wide) shorten(8);
  std::string text;
  for (std::size_t line = 0; line <= rows_.size(); ++line) {
    std::size_t pending = 0;  // padding owed before the next cell
    bool first = true;
    for (std::size_t i = 0; i < n; ++i) {
      if (!visible[i]) continue;
      const Column& column = columns_[shownColumns[i]];
      std::size_t used = 0;
      const std::string* cell = &shownCell(cellOf(line, i), spare, used);
      // Only a cell wider than its column is cut (a column that keeps its
      // cells is never narrower than they are).
      std::string shortened;
      if (used > widths[i] && column.fit != Column::Keep) {
        shortened = cut(*cell, widths[i], column.fit);
        cell = &shortened;
        used = widthOf(shortened);
      }
      const std::size_t pad = widths[i] - used;
      if (!first) pending += 2;
      first = false;
      if (cell->empty()) {  // owed to the next cell; a line never ends in blanks
        pending += widths[i];
        continue;
      }
      if (column.align == Column::Right) pending += pad;
      text.append(pending, ' ');
      text += *cell;
      pending = column.align == Column::Left ? pad : 0;
    }
    text += '\n';
    // Written out in pieces of a few kilobytes, not held whole.
    if (text.size() >= 16384) {
      out << text;
      text.clear();
    }
  }
  out << text;
}

void Rows::delimited(std::ostream& out, bool tabs) const {
  const auto field = [tabs](const std::string& raw) {
    const std::string cell = shown(raw);
    if (tabs || cell.find_first_of(",\"") == std::string::npos) return cell;
    std::string quoted = "\"";
    for (char c : cell) quoted += c == '"' ? std::string("\"\"") : std::string(1, c);
    return quoted + "\"";
  };
  const char* end = tabs ? "\n" : "\r\n";
  const char separator = tabs ? '\t' : ',';
  std::string line;
  for (const Column& column : columns_)
    if (!column.header.empty())
      line += (line.empty() ? "" : std::string(1, separator)) + field(column.header);
  out << line << end;
  for (const auto& row : rows_) {
    line.clear();
    bool first = true;
    for (std::size_t c = 0; c < columns_.size(); ++c) {
      if (columns_[c].header.empty()) continue;
      if (!first) line += separator;
      line += field(row[c].display());
      first = false;
    }
    out << line << end;
  }
}

void printJson(std::ostream& out, const cJSON* json) {
  char* printed = cJSON_Print(json);
  if (printed == nullptr) throw Failure("out of memory while writing JSON");
  out << printed << "\n";
  cJSON_free(printed);
}

Format formatOf(const Invocation& in) {
  const Format formats[] = {Format::Json, Format::Csv, Format::Tsv, Format::Quiet};
  const char* names[] = {"json", "csv", "tsv", "quiet"};
  Format chosen = Format::Text;
  for (std::size_t i = 0; i < 4; ++i) {
    if (!in.flag(names[i])) continue;
    if (chosen != Format::Text) throw UsageError("--json, --csv, --tsv and --quiet exclude each other");
    chosen = formats[i];
  }
  return chosen;
}

Option jsonOption() { return {"json", "", "print the result as JSON"}; }

std::vector<Option> outputOptions(bool table, bool quiet) {
  std::vector<Option> options{jsonOption()};
  if (table) {
    options.push_back({"csv", "", "print the table as CSV (RFC 4180), every column, with a header row"});
    options.push_back({"tsv", "", "print the table as tab-separated values; tabs and newlines escaped"});
    options.push_back({"wide", "", "show every column in full, however wide the terminal"});
  }
  if (quiet) options.push_back({"quiet", "", "print nothing but errors"});
  return options;
}

std::size_t terminalWidth() {
  if (const char* columns = std::getenv("COLUMNS")) {
    char* end = nullptr;
    const long value = std::strtol(columns, &end, 10);
    if (end != columns && *end == '\0' && value > 0 && value < 100000) return static_cast<std::size_t>(value);
  }
  struct winsize size {};
  if (::isatty(1) && ::ioctl(1, TIOCGWINSZ, &size) == 0 && size.ws_col > 0) return size.ws_col;
  return 80;
}

void emit(const Invocation& in, const Rows& rows, const JsonObject* json) {
  switch (formatOf(in)) {
    case Format::Json:
      if (json != nullptr) {
        printJson(std::cout, json->get());
      } else {
        JsonTree list(rows.json());
        printJson(std::cout, list.get());
      }
      return;
    case Format::Csv:
    case Format::Tsv:
      rows.delimited(std::cout, formatOf(in) == Format::Tsv);
      return;
    case Format::Quiet:
      return;
    default:
      rows.table(std::cout, terminalWidth(), in.flag("wide"));
  }
}

void emit(const Invocation& in, const JsonObject& json, const std::string& sentence) {
  const Format format = formatOf(in);
  if (format == Format::Json)
    printJson(std::cout, json.get());
  else if (format != Format::Quiet)
    say(sentence);
}

void say(const std::string& line) { std::cout << shown(line) << "\n"; }

void sayError(const std::string& text) {
  const std::string line = shown(text) + "\n";
  std::cout.flush();
  for (std::size_t done = 0; done < line.size();) {
    const ssize_t n = ::write(gStderr, line.data() + done, line.size() - done);
    if (n <= 0) break;
    done += static_cast<std::size_t>(n);
  }
}

void warn(const std::string& command, const std::string& text) {
  sayError("vorta" + (command.empty() ? "" : " " + command) + ": " + text);
}

std::string count(std::size_t n, const std::string& noun) {
  return std::to_string(n) + " " + noun + (n == 1 ? "" : "s");
}

struct SafeStderr::Pump {
  int saved = -1;
  int in = -1;
  std::thread thread;
};

SafeStderr::SafeStderr() {
  int ends[2];
  std::fflush(stderr);
  if (::pipe2(ends, O_CLOEXEC) != 0) return;
  const int saved = ::fcntl(2, F_DUPFD_CLOEXEC, 3);
  if (saved < 0 || ::dup2(ends[1], 2) < 0) {
    if (saved >= 0) ::close(saved);
    ::close(ends[0]);
    ::close(ends[1]);
    return;
  }
  ::close(ends[1]);
  pump_.reset(new Pump{saved, ends[0], {}});
  gStderr = saved;
  // The pump takes no signal: those meant for the command (a shared
  // string's owner waits for SIGTERM) must not end the process through it.
  sigset_t all, old;
  sigfillset(&all);
  pthread_sigmask(SIG_BLOCK, &all, &old);
  pump_->thread = std::thread([in = ends[0], saved] {
    std::string pending;
    char buffer[4096];
    const auto flush = [&](const std::string& line) {
      const std::string safe = shown(line) + "\n";
      for (std::size_t done = 0; done < safe.size();) {
        const ssize_t n = ::write(saved, safe.data() + done, safe.size() - done);
        if (n <= 0) return;
        done += static_cast<std::size_t>(n);
      }
    };
    for (ssize_t n; (n = ::read(in, buffer, sizeof buffer)) != 0;) {
      if (n < 0) {
        if (errno == EINTR) continue;
        break;
      }
      pending.append(buffer, static_cast<std::size_t>(n));
      for (std::string::size_type end; (end = pending.find('\n')) != std::string::npos;) {
        flush(pending.substr(0, end));
        pending.erase(0, end + 1);
      }
    }
    if (!pending.empty()) flush(pending);
  });
  pthread_sigmask(SIG_SETMASK, &old, nullptr);
}

SafeStderr::~SafeStderr() {
  if (!pump_) return;
  std::fflush(stderr);
  ::dup2(pump_->saved, 2);  // closes the pipe's last writer: the pump reads to its end
  pump_->thread.join();
  ::close(pump_->in);
  ::close(pump_->saved);
  gStderr = 2;
}

int stderrFd() { return gStderr; }

}  // namespace cli
}  // namespace vorta
