// SPDX-License-Identifier: MIT
// vorta tool: the one output layer: typed results as tables, JSON, CSV or TSV, every text made safe.
#pragma once

#include <cjson/cJSON.h>

#include <iosfwd>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace vorta {
namespace cli {

class Invocation;
struct Option;

/// Text from anywhere (a medium, a segment, an argument, the library) as it
/// may be shown on a terminal, on one line: control characters, bytes that
/// are not UTF-8, C1 and bidirectional controls and the backslash itself are
/// written as C escapes, as `ls -b` writes names (\n, \t, \033, \377, \\).
std::string shown(const std::string& text);
/// Whether text is well-formed UTF-8.
bool isUtf8(const std::string& text);
/// "C3 A9 41": the bytes of text as upper-case hexadecimal pairs.
std::string hexBytes(const std::string& text);

/// One value of a result: typed for JSON, with the text tables, CSV and TSV show.
/// A table of a full medium holds thousands: what few values have (a display
/// of their own, pairs) lives apart, so that a value is small.
struct Value {
  enum Kind { Absent, Null, Bool, Number, Text, Pairs };
  Value();
  Value(Kind k, std::string shown, double n = 0);
  Value(const Value& other);
  Value(Value&& other) noexcept;
  Value& operator=(const Value& other);
  Value& operator=(Value&& other) noexcept;
  ~Value();
  Kind kind = Absent;  // Absent: left out of JSON, an empty cell
  double number = 0;   // Number; Bool: 1 or 0
  std::string text;    // Text: the bytes; every kind: what a table shows
  /// Pairs: the entries of the JSON object.
  const std::vector<std::pair<std::string, std::string>>& pairs() const;
  void setPairs(std::vector<std::pair<std::string, std::string>> entries);
  /// The same value, shown as display in tables.
  Value shows(std::string display) const;
  const std::string& display() const;

 private:
  struct Extra;
  std::unique_ptr<Extra> extra_;
  Extra& extra();
};
Value text(std::string bytes);
Value integer(long long value);
Value real(double value, std::string display);
Value flag(bool value);                                                 // shown yes or no
Value none(std::string display);                                        // JSON null
Value absent();                                                         // no JSON key, an empty cell
Value pairs(std::vector<std::pair<std::string, std::string>> entries);  // a JSON object of texts

/// Owning handle of a cJSON tree.
struct JsonDeleter {
  void operator()(cJSON* json) const { cJSON_Delete(json); }
};
using JsonTree = std::unique_ptr<cJSON, JsonDeleter>;

/// A column of a result. key names it in JSON ("" for a column only tables
/// show); header names it in tables, CSV and TSV ("" for a key only JSON has).
/// When a table is wider than the terminal, the cells of Middle and End
/// columns are shortened there to 30 columns, then the columns with the
/// highest drop go (0: never), then those cells are shortened further, down
/// to their header's width.
struct Column {
  enum Align { Left, Right };
  enum Fit { Keep, Middle, End };
  std::string key;
  std::string header = "";
  Align align = Left;
  int drop = 0;
  Fit fit = Keep;
};

/// A result as rows of typed values, one per column. A table leaves out the
/// columns that are empty in every row, unless wide.
class Rows {
 public:
  explicit Rows(std::vector<Column> columns) : columns_(std::move(columns)) {}
  void add(std::vector<Value> row);
  bool empty() const { return rows_.empty(); }
  std::size_t size() const { return rows_.size(); }
  /// A JSON array of objects, one per row (of arrays when asArrays).
  cJSON* json(bool asArrays = false) const;
  /// A table with a header row, fitted to width columns unless wide.
  void table(std::ostream& out, std::size_t width, bool wide) const;
  /// Every table column with a header row: RFC 4180 CSV, or TSV when tabs.
  void delimited(std::ostream& out, bool tabs) const;

 private:
  std::vector<Column> columns_;
  std::vector<std::vector<Value>> rows_;
};

/// Adds value under key; text that is not UTF-8 is added with U+FFFD for each
/// bad byte and its exact bytes under key + "Hex" (hexBytes).
void addJson(cJSON* object, const std::string& key, const Value& value);
/// Adds an array of texts under key; when one is not UTF-8, key + "Hex" is
/// an array of the same length holding its hexBytes (null for the others).
void addJson(cJSON* object, const std::string& key, const std::vector<std::string>& texts);

/// A JSON object built field by field, every string made safe by addJson.
class JsonObject {
 public:
  JsonObject() : node_(cJSON_CreateObject()) {}
  JsonObject& set(const std::string& key, const Value& value) {
    addJson(node_.get(), key, value);
    return *this;
  }
  JsonObject& set(const std::string& key, const std::vector<std::string>& texts) {
    addJson(node_.get(), key, texts);
    return *this;
  }
  JsonObject& set(const std::string& key, const Rows& rows, bool asArrays = false) {
    cJSON_AddItemToObject(node_.get(), key.c_str(), rows.json(asArrays));
    return *this;
  }
  JsonObject& set(const std::string& key, JsonObject&& child) {
    cJSON_AddItemToObject(node_.get(), key.c_str(), child.node_.release());
    return *this;
  }
  const cJSON* get() const { return node_.get(); }

 private:
  JsonTree node_;
};

/// Prints a JSON document followed by a newline.
void printJson(std::ostream& out, const cJSON* json);

/// How a command prints its result: --json, --csv, --tsv, --quiet or text.
enum class Format { Text, Json, Csv, Tsv, Quiet };
Format formatOf(const Invocation& in);
/// --json.
Option jsonOption();
/// --json, and for commands that print a table --csv, --tsv and --wide, and
/// --quiet where it is offered.
std::vector<Option> outputOptions(bool table, bool quiet = false);
/// The width tables are fitted to: $COLUMNS, else the terminal's, else 80.
std::size_t terminalWidth();

/// Prints rows as the invocation asks: a table (nothing for --quiet), CSV or
/// TSV; JSON is json when given, else the rows' array.
void emit(const Invocation& in, const Rows& rows, const JsonObject* json = nullptr);
/// Prints a result that is no table: json for --json, nothing for --quiet,
/// else the sentence.
void emit(const Invocation& in, const JsonObject& json, const std::string& sentence);
/// Prints one line to standard output, made safe by shown().
void say(const std::string& line);
/// Prints one line to standard error, made safe by shown().
void sayError(const std::string& line);
/// Prints "vorta COMMAND: text" on one line to standard error, made safe by shown().
void warn(const std::string& command, const std::string& text);
/// "1 clip", "3 clips".
std::string count(std::size_t n, const std::string& noun);

/// While it lives, what the library writes to standard error goes through
/// shown() line by line (the library prints the paths it fails on, and a
/// name on the medium must not drive the terminal); the tool's own messages
/// (warn) and the scan's progress line reach the terminal directly.
class SafeStderr {
 public:
  SafeStderr();
  ~SafeStderr();
  SafeStderr(const SafeStderr&) = delete;
  SafeStderr& operator=(const SafeStderr&) = delete;

 private:
  struct Pump;
  std::unique_ptr<Pump> pump_;
};
/// The terminal's standard error, also while SafeStderr holds descriptor 2.
int stderrFd();

}  // namespace cli
}  // namespace vorta
