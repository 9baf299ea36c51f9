// SPDX-License-Identifier: MIT
// vorta: the recorder's console tool. Dispatches to the registered commands.
#include <algorithm>
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
  out << "\nRun 'vorta COMMAND --help' for the options of a command.\n"
         "Errors are reported on one line on standard error, with exit status 2.\n";
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> words(argv + 1, argv + argc);
  if (words.empty()) {
    std::cerr << "vorta: no command given\nusage: vorta COMMAND [options] [arguments] (try 'vorta --help')\n";
    return 2;
  }
  const std::string first = words.front();
  if (first == "--help" || first == "-h" || first == "help") {
    if (first == "help" && words.size() > 1) {
      const auto* command = vorta::cli::findCommand(words[1]);
      if (command == nullptr) {
        std::cerr << "vorta: unknown command '" << words[1] << "' (try 'vorta --help')\n";
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
  if (first == "--version") {
    std::cout << "vorta " << kVersion << "\n";
    return 0;
  }

  const auto* command = vorta::cli::findCommand(first);
  if (command == nullptr) {
    std::cerr << "vorta: unknown command '" << first
              << "'\nusage: vorta COMMAND [options] [arguments] (try 'vorta --help')\n";
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
              << vorta::cli::usageLine(*command) << " (try 'vorta " << command->name << " --help')\n";
  } catch (const std::exception& e) {
    std::cerr << "vorta " << command->name << ": " << e.what() << "\n";
  }
  return 2;
}
