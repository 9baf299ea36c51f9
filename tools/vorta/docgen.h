// SPDX-License-Identifier: MIT
// vorta tool: the manual page and the bash completion, generated from the command table.
#pragma once

#include <iosfwd>
#include <string>

namespace vorta {
namespace cli {

/// Writes the vorta(1) manual page (man macros) from the registered commands'
/// help texts. mainHelp is the text of 'vorta --help': its prose becomes the
/// description, its command list is rebuilt from the commands themselves.
void printManPage(std::ostream& out, const std::string& version, const std::string& mainHelp);

/// Writes a bash completion script for the registered commands: their names,
/// their options, the words an option's value or a first argument is one of
/// ("clip|playlist", "create | info | ...").
void printBashCompletion(std::ostream& out);

}  // namespace cli
}  // namespace vorta
