// SPDX-License-Identifier: MIT
// vorta tool: command registry, argument parsing and output helpers.
#pragma once

#include <functional>
#include <iosfwd>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "output.h"

namespace vorta {
namespace cli {

/// A bad argument: reported on one line with a pointer to the command's help; exit status 2.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// A failure of the work itself: reported on one line; exit status 1.
class Failure : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct Option {
  std::string name;       // long name without the dashes, e.g. "json"
  std::string valueName;  // placeholder of its value, e.g. "N"; empty for a flag
  std::string help;
  std::vector<std::string> choices = {};  // the words its value is one of, for the completion
};

/// The elements of a and then those of b (options, columns, values).
template <typename T>
std::vector<T> join(std::vector<T> a, const std::vector<T>& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

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
  /// The words of the argument after a first word, for the completion:
  /// {"get", parameter names} completes 'vorta param get NAME'.
  std::vector<std::pair<std::string, std::vector<std::string>>> secondWords = {};
  bool daemon = false;  // its standard error outlives the tool: left as it is
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

/// " (did you mean 'x'?)" for the candidate nearest to word when it is close
/// enough to be a typo of it (or word is the start of just one candidate); "" otherwise.
std::string didYouMean(const std::string& word, const std::vector<std::string>& candidates);

/// Prints the usage line and the help of one command.
void printCommandHelp(std::ostream& out, const Command& command);
std::string usageLine(const Command& command);

/// The options every command that has them also takes before its name
/// ('vorta --prefix demo clips'), as git takes -C.
const std::vector<std::string>& globalOptions();

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
