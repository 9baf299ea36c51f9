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

const char kVersion[] = VORTA_VERSION;

void printMainHelp(std::ostream& out) {
  out << "usage: vorta COMMAND [options] [arguments]\n\n"
         "The recorder's console tool: clip catalogue, clip names, timecode and\n"
         "the other services of libvorta.\n\ncommands:\n";
  std::size_t width = 0;
  const auto all = vorta::cli::commands();
  for (const auto* command : all) width = std::max(width, command->name.size());
  for (const auto* command : all)
    out << "  " << command->name << std::string(width - command->name.size() + 2, ' ') << command->summary
        << "\n";
  out << "\nRun 'vorta help COMMAND' (or 'vorta COMMAND --help') for the options of a command,\n"
         "'vorta version' (or -V, --version) for the version.\n"
         "Exit status: 0 success, 1 failure, 2 usage error. Errors are reported on one\n"
         "line on standard error.\n";
}

// "unknown command 'x'", with the nearest command when one is near enough.
std::string unknownCommand(const std::string& word) {
  std::vector<std::string> names;
  for (const auto* command : vorta::cli::commands()) names.push_back(command->name);
  names.push_back("help");
  names.push_back("version");
  return "unknown command '" + word + "'" + vorta::cli::didYouMean(word, names);
}

// Flushes standard output; a write that failed on the way (a full disk, a
// closed pipe) turns the run into a failure, so that scripts see it.
int finish(const std::string& name, int status) {
  errno = 0;
  std::cout.flush();
  const bool flushed = std::fflush(stdout) == 0;
  const int error = errno;
  if (flushed && std::ferror(stdout) == 0 && std::cout.good()) return status;
  std::cerr << "vorta" << (name.empty() ? "" : " " + name)
            << ": cannot write the output: " << (error != 0 ? std::strerror(error) : "write error") << "\n";
  return 1;
}

int dispatch(std::vector<std::string> words) {
  if (words.empty()) {
    std::cerr << "vorta: no command given\nusage: vorta COMMAND [options] [arguments] (try 'vorta --help')\n";
    return 2;
  }
  const std::string first = words.front();
  if (first == "--help" || first == "-h" || first == "help") {
    if (first == "help" && words.size() > 1) {
      const auto* command = vorta::cli::findCommand(words[1]);
      if (command == nullptr) {
        std::cerr << "vorta: " << unknownCommand(words[1]) << " (try 'vorta --help')\n";
        return 2;
      }
      vorta::cli::printCommandHelp(std::cout, *command);
      return 0;
    }
    printMainHelp(std::cout);
    return 0;
  }
  // Build-time generators of the manual page and the bash completion.
  if (first == "--man") {
    std::ostringstream help;
    printMainHelp(help);
    vorta::cli::printManPage(std::cout, kVersion, help.str());
    return 0;
  }
  if (first == "--bash-completion") {
    vorta::cli::printBashCompletion(std::cout);
    return 0;
  }
  if (first == "--version" || first == "-V" || first == "version") {
    std::cout << "vorta " << kVersion << "\n";
    return 0;
  }

  const auto* command = vorta::cli::findCommand(first);
  if (command == nullptr) {
    std::cerr << "vorta: " << unknownCommand(first)
              << "\nusage: vorta COMMAND [options] [arguments] (try 'vorta --help')\n";
    return 2;
  }

  words.erase(words.begin());
  try {
    vorta::cli::Invocation invocation(*command, words);
    if (invocation.helpRequested()) {
      vorta::cli::printCommandHelp(std::cout, *command);
      return 0;
    }
    return command->run(invocation);
  } catch (const vorta::cli::UsageError& e) {
    std::cerr << "vorta " << command->name << ": " << e.what() << "\n"
              << vorta::cli::usageLine(*command) << " (try 'vorta help " << command->name << "')\n";
    return 2;
  } catch (const std::exception& e) {
    std::cerr << "vorta " << command->name << ": " << e.what() << "\n";
  }
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> words(argv + 1, argv + argc);
  const std::string name = words.empty() ? "" : words.front();
  return finish(vorta::cli::findCommand(name) != nullptr ? name : "", dispatch(std::move(words)));
}
