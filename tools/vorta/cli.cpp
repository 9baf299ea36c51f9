// SPDX-License-Identifier: MIT
// vorta tool: command registry, argument parsing and output helpers.
#include "cli.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ostream>

#include <sys/stat.h>

namespace vorta {
namespace cli {

namespace {
std::vector<const Command*>& registry() {
  static std::vector<const Command*> all;
  return all;
}

const Option* findOption(const Command& command, const std::string& name) {
  for (const Option& option : command.options)
    if (option.name == name) return &option;
  return nullptr;
}

bool looksLikeNumber(const std::string& word) {
  return word.size() > 1 && word[0] == '-' && (std::isdigit(static_cast<unsigned char>(word[1])) != 0);
}
}  // namespace

bool registerCommand(const Command* command) {
  registry().push_back(command);
  return true;
}

std::vector<const Command*> commands() {
  std::vector<const Command*> sorted = registry();
  std::sort(sorted.begin(), sorted.end(),
            [](const Command* a, const Command* b) { return a->name < b->name; });
  return sorted;
}

const Command* findCommand(const std::string& name) {
  for (const Command* command : registry())
    if (command->name == name) return command;
  return nullptr;
}

Invocation::Invocation(const Command& command, const std::vector<std::string>& words) : command_(&command) {
  bool optionsEnded = false;
  for (std::size_t i = 0; i < words.size(); ++i) {
    const std::string& word = words[i];
    if (optionsEnded || word == "-" || word.empty() || word[0] != '-' || looksLikeNumber(word)) {
      args_.push_back(word);
      continue;
    }
    if (word == "--") {
      optionsEnded = true;
      continue;
    }
    if (word == "--help" || word == "-h") {
      help_ = true;
      return;
    }
    std::vector<std::string> known{"--help"};
    for (const Option& option : command.options) known.push_back("--" + option.name);
    if (word.compare(0, 2, "--") != 0)
      throw UsageError("unknown option '" + word + "'" + didYouMean(word, known));
    std::string name = word.substr(2);
    std::optional<std::string> inlineValue;
    const std::string::size_type eq = name.find('=');
    if (eq != std::string::npos) {
      inlineValue = name.substr(eq + 1);
      name.erase(eq);
    }
    const Option* option = findOption(command, name);
    if (option == nullptr)
      throw UsageError("unknown option '--" + name + "'" + didYouMean("--" + name, known));
    if (option->valueName.empty()) {
      if (inlineValue) throw UsageError("option '--" + name + "' takes no value");
      values_[name] = "";
    } else if (inlineValue) {
      values_[name] = *inlineValue;
    } else {
      if (i + 1 >= words.size())
        throw UsageError("option '--" + name + "' needs a value " + option->valueName);
      values_[name] = words[++i];
    }
  }
  if (args_.size() < command.minArgs) throw UsageError("missing argument");
  if (args_.size() > command.maxArgs) throw UsageError("too many arguments");
}

bool Invocation::flag(const std::string& name) const { return values_.count(name) != 0; }

std::optional<std::string> Invocation::value(const std::string& name) const {
  const auto it = values_.find(name);
  if (it == values_.end()) return std::nullopt;
  return it->second;
}

long long Invocation::integer(const std::string& name, long long fallback, long long min,
                              long long max) const {
  const std::optional<std::string> text = value(name);
  if (!text) return fallback;
  return parseInteger(*text, min, max, "--" + name);
}

long long parseInteger(const std::string& text, long long min, long long max, const std::string& what) {
  errno = 0;
  char* end = nullptr;
  const long long value = std::strtoll(text.c_str(), &end, 10);
  if (text.empty() || end == nullptr || *end != '\0' || errno == ERANGE)
    throw UsageError(what + " must be a whole number, not '" + text + "'");
  if (value < min || value > max)
    throw UsageError(what + " must be between " + std::to_string(min) + " and " + std::to_string(max));
  return value;
}

namespace {
// Edits between a and b: insertions, deletions, substitutions and swaps of
// neighbours (the usual typing slips) count one each.
std::size_t editDistance(const std::string& a, const std::string& b) {
  std::vector<std::vector<std::size_t>> d(a.size() + 1, std::vector<std::size_t>(b.size() + 1));
  for (std::size_t i = 0; i <= a.size(); ++i) d[i][0] = i;
  for (std::size_t j = 0; j <= b.size(); ++j) d[0][j] = j;
  for (std::size_t i = 1; i <= a.size(); ++i)
    for (std::size_t j = 1; j <= b.size(); ++j) {
      d[i][j] =
          std::min({d[i - 1][j] + 1, d[i][j - 1] + 1, d[i - 1][j - 1] + (a[i - 1] == b[j - 1] ? 0 : 1)});
      if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1])
        d[i][j] = std::min(d[i][j], d[i - 2][j - 2] + 1);
    }
  return d[a.size()][b.size()];
}
}  // namespace

std::string didYouMean(const std::string& word, const std::vector<std::string>& candidates) {
  if (word.empty()) return "";
  const std::string* best = nullptr;
  std::size_t bestDistance = 0;
  std::size_t prefixed = 0;
  const std::string* prefix = nullptr;
  for (const std::string& candidate : candidates) {
    const std::size_t distance = editDistance(word, candidate);
    if (best == nullptr || distance < bestDistance) {
      best = &candidate;
      bestDistance = distance;
    }
    if (candidate.compare(0, word.size(), word) == 0) {
      ++prefixed;
      prefix = &candidate;
    }
  }
  // A typo: at most one edit in a short word, two in a longer one.
  const std::size_t allowed = word.size() <= 4 ? 1 : 2;
  if (best != nullptr && bestDistance <= allowed) return " (did you mean '" + *best + "'?)";
  if (prefixed == 1) return " (did you mean '" + *prefix + "'?)";
  return "";
}

std::string usageLine(const Command& command) {
  std::string line = "usage: vorta " + command.name;
  if (!command.options.empty()) line += " [options]";
  if (!command.synopsis.empty()) line += " " + command.synopsis;
  return line;
}

void printCommandHelp(std::ostream& out, const Command& command) {
  out << usageLine(command) << "\n\n" << command.summary << "\n";
  if (!command.description.empty()) out << "\n" << command.description << "\n";
  out << "\noptions:\n";
  std::vector<std::pair<std::string, std::string>> lines;
  for (const Option& option : command.options) {
    std::string left = "--" + option.name;
    if (!option.valueName.empty()) left += " " + option.valueName;
    lines.emplace_back(left, option.help);
  }
  lines.emplace_back("-h, --help", "show this help");
  std::size_t width = 0;
  for (const auto& line : lines) width = std::max(width, line.first.size());
  for (const auto& line : lines)
    out << "  " << line.first << std::string(width - line.first.size() + 2, ' ') << line.second << "\n";
}

const std::vector<std::string>& globalOptions() {
  static const std::vector<std::string> names{"prefix", "params"};
  return names;
}

std::string paramsFilePath(const Invocation& in, bool create) {
  if (const auto option = in.value("params")) return *option;
  if (const char* env = std::getenv("VORTA_PARAMS"); env != nullptr && *env != '\0') return env;
  std::string dir;
  if (const char* state = std::getenv("XDG_STATE_HOME"); state != nullptr && *state == '/') {
    dir = std::string(state) + "/vorta";
  } else if (const char* home = std::getenv("HOME"); home != nullptr && *home == '/') {
    dir = std::string(home) + "/.local/state/vorta";
  } else {
    throw Failure("no place for the parameter file: give --params FILE or set VORTA_PARAMS");
  }
  if (create) {
    // mkdir -p: each missing level in turn.
    for (std::string::size_type slash = dir.find('/', 1);; slash = dir.find('/', slash + 1)) {
      const std::string level = dir.substr(0, slash);
      if (::mkdir(level.c_str(), 0755) != 0 && errno != EEXIST)
        throw Failure("cannot create " + level + ": " + std::strerror(errno));
      if (slash == std::string::npos) break;
    }
  }
  return dir + "/params.json";
}

}  // namespace cli
}  // namespace vorta
