// SPDX-License-Identifier: MIT
// vorta tool: command registry, argument parsing and output helpers.
#pragma once

#include <cjson/cJSON.h>

#include <functional>
#include <iosfwd>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace vorta {
namespace cli {

/// A bad argument: reported on one line, followed by the command's usage; exit status 2.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// A failure of the work itself: reported on one line; exit status 2.
class Failure : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct Option {
  std::string name;       // long name without the dashes, e.g. "json"
  std::string valueName;  // placeholder of its value, e.g. "N"; empty for a flag
  std::string help;
};

class Invocation;

struct Command {
  std::string name;
  std::string summary;      // one line, for `vorta --help`
  std::string synopsis;     // what follows the command name in the usage line
  std::string description;  // the body of `vorta NAME --help`
  std::vector<Option> options;
  std::function<int(Invocation&)> run;
  std::size_t minArgs = 0;
  std::size_t maxArgs = static_cast<std::size_t>(-1);
};

/// Registers a command; called from static initialisers of the cmd_*.cpp files.
bool registerCommand(const Command* command);
/// The registered commands, sorted by name.
std::vector<const Command*> commands();
const Command* findCommand(const std::string& name);

/// The parsed arguments of one run of a command.
class Invocation {
 public:
  /// Parses argv (the words after the command name). Throws UsageError for
  /// an unknown option, a missing value or a wrong number of arguments.
  /// Sets helpRequested() for --help or -h and then checks nothing else.
  Invocation(const Command& command, const std::vector<std::string>& words);

  const Command& command() const { return *command_; }
  bool helpRequested() const { return help_; }
  const std::vector<std::string>& args() const { return args_; }
  bool flag(const std::string& name) const;
  std::optional<std::string> value(const std::string& name) const;
  /// The option's value as a decimal integer within [min, max]; fallback when absent.
  long long integer(const std::string& name, long long fallback, long long min, long long max) const;

 private:
  const Command* command_;
  bool help_ = false;
  std::vector<std::string> args_;
  std::map<std::string, std::string> values_;
};

/// Parses a whole decimal integer within [min, max]; what names the value in the error.
long long parseInteger(const std::string& text, long long min, long long max, const std::string& what);

/// Prints the usage line and the help of one command.
void printCommandHelp(std::ostream& out, const Command& command);
std::string usageLine(const Command& command);

/// A text table with a header row; columns are padded to their widest cell.
class Table {
 public:
  enum Align { Left, Right };
  explicit Table(std::vector<std::string> headers, std::vector<Align> align = {});
  void addRow(std::vector<std::string> cells);
  void print(std::ostream& out) const;
  bool empty() const { return rows_.empty(); }

 private:
  std::vector<std::string> headers_;
  std::vector<Align> align_;
  std::vector<std::vector<std::string>> rows_;
};

/// Owning handle of a cJSON tree.
struct JsonDeleter {
  void operator()(cJSON* json) const { cJSON_Delete(json); }
};
using Json = std::unique_ptr<cJSON, JsonDeleter>;

/// Prints a JSON document followed by a newline.
void printJson(std::ostream& out, const cJSON* json);

/// "C3 A9 41": the bytes of text as upper-case hexadecimal pairs.
std::string hexBytes(const std::string& text);

/// Number of characters a UTF-8 text shows as (for padding table cells).
std::size_t displayWidth(const std::string& text);

/// The parameter file shared by separate vorta runs: the --params option
/// when given, else $VORTA_PARAMS, else ~/.local/state/vorta/params.json
/// ($XDG_STATE_HOME when set). Creates its directory when create is true.
std::string paramsFilePath(const Invocation& in, bool create);

}  // namespace cli
}  // namespace vorta

#define VORTA_CLI_CONCAT_(a, b) a##b
#define VORTA_CLI_CONCAT(a, b) VORTA_CLI_CONCAT_(a, b)
/// Registers a Command object defined in the same file.
#define VORTA_REGISTER_COMMAND(command) \
  static const bool VORTA_CLI_CONCAT(vorta_registered_, __LINE__) = ::vorta::cli::registerCommand(&(command))
