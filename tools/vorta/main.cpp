// SPDX-License-Identifier: MIT
// vorta: the recorder's console tool. Dispatches to the registered commands.
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "cli.h"
#include "docgen.h"

namespace {

using namespace vorta::cli;

const char kVersion[] = VORTA_VERSION;

void printMainHelp(std::ostream& out) {
  out << "usage: vorta [--prefix NAME] [--params FILE] COMMAND [options] [arguments]\n\n"
         "The recorder's console tool: clip catalogue, clip names, timecode and\n"
         "the other services of libvorta.\n\ncommands:\n";
  std::size_t width = 0;
  const auto all = commands();
  for (const auto* command : all) width = std::max(width, command->name.size());
  for (const auto* command : all)
    out << "  " << command->name << std::string(width - command->name.size() + 2, ' ') << command->summary
        << "\n";
  out << "\nRun 'vorta help COMMAND' (or 'vorta COMMAND --help') for the options of a command,\n"
         "'vorta version' (or -V, --version) for the version. --prefix and --params may\n"
         "also come before the command, for every command that has them.\n"
         "Exit status: 0 success, 1 failure, 2 usage error. Errors are reported on one\n"
         "line on standard error.\n";
}

// "unknown command 'x'", with the nearest command when one is near enough.
std::string unknownCommand(const std::string& word) {
  std::vector<std::string> names;
  for (const auto* command : commands()) names.push_back(command->name);
  return "unknown command '" + word + "'" + didYouMean(word, names) + "; see 'vorta --help'";
}

int runHelp(Invocation& in) {
  if (in.args().empty()) {
    printMainHelp(std::cout);
    return 0;
  }
  const auto* command = findCommand(in.args()[0]);
  if (command == nullptr) {
    warn("help", unknownCommand(in.args()[0]));
    return 2;
  }
  printCommandHelp(std::cout, *command);
  return 0;
}

const Command kHelp{
    "help",
    "show the commands, or the options of one command",
    "[COMMAND]",
    "Without COMMAND, lists every command; with it, shows its usage, what it\n"
    "does and its options, as 'vorta COMMAND --help' does.",
    {},
    runHelp,
    0,
    1,
};
VORTA_REGISTER_COMMAND(kHelp);

int runVersion(Invocation&) {
  std::cout << "vorta " << kVersion << "\n";
  return 0;
}

const Command kVersionCommand{
    "version", "print the version of vorta",
    "",        "Prints \"vorta\" and the version, as -V and --version do.",
    {},        runVersion,
    0,         0,
};
VORTA_REGISTER_COMMAND(kVersionCommand);

// Flushes standard output; a write that failed on the way (a full disk, a
// closed pipe) turns the run into a failure, so that scripts see it.
int finish(const std::string& name, int status) {
  errno = 0;
  std::cout.flush();
  const bool flushed = std::fflush(stdout) == 0;
  const int error = errno;
  if (flushed && std::ferror(stdout) == 0 && std::cout.good()) return status;
  warn(name, std::string("cannot write the output: ") + (error != 0 ? std::strerror(error) : "write error"));
  return 1;
}

// Runs the command; errors become one line on standard error.
int run(const Command& command, const std::vector<std::string>& words) {
  try {
    Invocation invocation(command, words);
    if (invocation.helpRequested()) {
      printCommandHelp(std::cout, command);
      return 0;
    }
    std::unique_ptr<SafeStderr> safe(command.daemon ? nullptr : new SafeStderr);
    return command.run(invocation);
  } catch (const UsageError& e) {
    warn(command.name, std::string(e.what()) + "; see 'vorta " + command.name + " --help'");
    return 2;
  } catch (const std::exception& e) {
    warn(command.name, e.what());
  }
  return 1;
}

int dispatch(std::vector<std::string> words, std::string& name) {
  // The options common to many commands, given before the command's name,
  // go in front of its own words; given again after it, the later one wins.
  std::vector<std::string> leading;
  while (!words.empty()) {
    const std::string& word = words.front();
    const auto global =
        std::find_if(globalOptions().begin(), globalOptions().end(), [&](const std::string& g) {
          return word == "--" + g || word.compare(0, g.size() + 3, "--" + g + "=") == 0;
        });
    if (global == globalOptions().end()) break;
    const bool inlineValue = word.find('=') != std::string::npos;
    if (!inlineValue && words.size() < 2) {
      warn("", "option '" + word + "' needs a value; see 'vorta --help'");
      return 2;
    }
    leading.insert(leading.end(), words.begin(), words.begin() + (inlineValue ? 1 : 2));
    words.erase(words.begin(), words.begin() + (inlineValue ? 1 : 2));
  }
  if (words.empty()) {
    warn("", "no command given; see 'vorta --help'");
    return 2;
  }
  const std::string first = words.front();
  if (first == "--help" || first == "-h") {
    printMainHelp(std::cout);
    return 0;
  }
  if (first == "--version" || first == "-V") {
    Invocation bare(kVersionCommand, {});
    return runVersion(bare);
  }
  // Build-time generators of the manual page and the bash completion.
  if (first == "--man") {
    std::ostringstream help;
    printMainHelp(help);
    printManPage(std::cout, kVersion, help.str());
    return 0;
  }
  if (first == "--bash-completion") {
    printBashCompletion(std::cout);
    return 0;
  }
  const auto* command = findCommand(first);
  if (command == nullptr) {
    warn("", unknownCommand(first));
    return 2;
  }
  name = first;
  words.erase(words.begin());
  words.insert(words.begin(), leading.begin(), leading.end());
  return run(*command, words);
}

}  // namespace

int main(int argc, char** argv) {
  std::string name;
  const int status = dispatch(std::vector<std::string>(argv + 1, argv + argc), name);
  return finish(name, status);
}
