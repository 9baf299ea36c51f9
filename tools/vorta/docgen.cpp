// SPDX-License-Identifier: MIT
// vorta tool: the manual page and the bash completion, generated from the command table.
//
// Both are written at build time by the tool itself ('vorta --man',
// 'vorta --bash-completion'; a cross build runs it under the emulator), so
// they always describe the commands and options the tool really has.
#include "docgen.h"

#include <cctype>
#include <ostream>
#include <sstream>
#include <vector>

#include "cli.h"

namespace vorta {
namespace cli {

namespace {

std::vector<std::string> splitLines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  std::string line;
  while (std::getline(in, line)) lines.push_back(line);
  return lines;
}

std::string trim(const std::string& text) {
  const auto begin = text.find_first_not_of(" \t");
  if (begin == std::string::npos) return "";
  const auto end = text.find_last_not_of(" \t");
  return text.substr(begin, end - begin + 1);
}

// Text for a roff input line: backslashes escaped, option dashes as minus
// signs (so they can be copied), and a leading control character defused.
std::string roff(const std::string& text) {
  std::string out;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (c == '\\') {
      out += "\\e";
    } else if (c == '-' && (i + 1 < text.size() && text[i + 1] == '-')) {
      // An option name: every dash of it.
      for (; i < text.size() && (text[i] == '-' || std::isalnum(static_cast<unsigned char>(text[i])) != 0);
           ++i)
        out += text[i] == '-' ? "\\-" : std::string(1, text[i]);
      --i;
    } else if (c == '-' && (i == 0 || text[i - 1] == ' ' || text[i - 1] == '[') && i + 1 < text.size() &&
               std::isalpha(static_cast<unsigned char>(text[i + 1])) != 0) {
      out += "\\-";
    } else {
      out += c;
    }
  }
  if (!out.empty() && (out[0] == '.' || out[0] == '\'')) out.insert(0, "\\&");
  return out;
}

// Paragraphs separated by blank lines: a paragraph with an indented line is
// kept as it stands (a table or an example), any other is filled.
void printProse(std::ostream& out, const std::vector<std::string>& lines) {
  std::vector<std::vector<std::string>> paragraphs(1);
  for (const std::string& line : lines) {
    if (trim(line).empty()) {
      if (!paragraphs.back().empty()) paragraphs.emplace_back();
    } else {
      paragraphs.back().push_back(line);
    }
  }
  for (const auto& paragraph : paragraphs) {
    if (paragraph.empty()) continue;
    bool indented = false;
    for (const std::string& line : paragraph)
      if (line[0] == ' ' || line[0] == '\t') indented = true;
    out << ".PP\n";
    if (indented) out << ".nf\n";
    for (const std::string& line : paragraph) out << roff(indented ? line : trim(line)) << "\n";
    if (indented) out << ".fi\n";
  }
}

bool isWord(const std::string& text) {
  if (text.empty()) return false;
  for (const char c : text)
    if (std::isalnum(static_cast<unsigned char>(c)) == 0 && c != '-' && c != '_' && c != '.') return false;
  return true;
}

bool isLowerWord(const std::string& text) {
  if (!isWord(text)) return false;
  for (const char c : text)
    if (std::isupper(static_cast<unsigned char>(c)) != 0) return false;
  return true;
}

std::vector<std::string> split(const std::string& text, char separator) {
  std::vector<std::string> parts;
  std::string part;
  std::istringstream in(text);
  while (std::getline(in, part, separator)) parts.push_back(part);
  return parts;
}

// The words an option's value is one of.
std::vector<std::string> valueChoices(const Option& option) {
  std::vector<std::string> choices;
  for (const std::string& choice : option.choices)
    if (isWord(choice)) choices.push_back(choice);
  return choices;
}

// The words a command's first argument is one of, from a synopsis like
// "create | info | flush" or "list | add NAME | remove NAME".
std::vector<std::string> firstWords(const Command& command) {
  if (command.synopsis.find('|') == std::string::npos) return {};
  std::vector<std::string> words;
  for (std::string part : split(command.synopsis, '|')) {
    part = trim(part);
    if (!part.empty() && (part[0] == '[' || part[0] == '(')) part.erase(0, 1);
    const std::string first = part.substr(0, part.find_first_of(" ])"));
    if (!isLowerWord(first)) return {};
    words.push_back(first);
  }
  return words;
}

std::string joined(const std::vector<std::string>& words, const std::string& separator) {
  std::string out;
  for (const std::string& word : words) out += (out.empty() ? "" : separator) + word;
  return out;
}

// The sections of the manual page after the commands.
const std::pair<const char*, const char*> kSections[] = {
    {"ENVIRONMENT",
     "VORTA_PARAMS: the parameter file, where --params is not given.\n\n"
     "VORTA_PREFIX: the prefix of the shared caches' names, where --prefix is not given.\n\n"
     "XDG_STATE_HOME, HOME: the parameter file is $XDG_STATE_HOME/vorta/params.json, else\n"
     "~/.local/state/vorta/params.json.\n\n"
     "COLUMNS: the width tables are fitted to; else the terminal's; else 80."},
    {"FILES",
     "~/.local/state/vorta/params.json: the recorder's parameters, shared by every vorta run.\n\n"
     "/dev/shm/PREFIX.clips, /dev/shm/PREFIX.playlists: the shared clip catalogue and playlist\n"
     "cache (PREFIX: --prefix, else $VORTA_PREFIX, else vorta).\n\n"
     "/dev/shm/sem.PREFIX.clips.lock, /dev/shm/sem.PREFIX.playlists.lock: their named mutexes.\n\n"
     "/dev/shm/PREFIX.clips.lock.owner, /dev/shm/PREFIX.playlists.lock.owner: the records of\n"
     "who holds the mutexes.\n\n"
     "MEDIA/NAME.playlist: the playlist files in the media directory (parameter media-dir).\n\n"
     "/var/run/NAME.pid: the pid file of a daemon (vorta daemon-demo --name NAME)."},
    {"EXAMPLES",
     "A recorder operator's session:\n\n"
     "  vorta param set media-dir /media/ZEV/card1\n"
     "  vorta param set encode-type 1\n"
     "  vorta scan /media/ZEV/card1\n"
     "  vorta clips --csv > clips.csv\n"
     "  vorta param set current-playlist Selects\n"
     "  vorta param set playback-mode 2\n"
     "  vorta clips --playlist\n"
     "  vorta next-name --advance\n"
     "  vorta remove --exact ClipTK1.mov\n"
     "  vorta playlist create Day ClipTK2.mov SC12ATK2.mov\n"
     "  vorta --prefix demo cache info\n"
     "  vorta tc '01:00:00;00' --format 30df --add 1800"},
    {"SEE ALSO",
     "shm_overview(7), sem_overview(7), realpath(3), ls(1) (names shown with the escapes of ls -b)"},
};

}  // namespace

void printManPage(std::ostream& out, const std::string& version, const std::string& mainHelp) {
  // The main help: a usage line, prose, "commands:" and its list, more prose.
  std::string usage;
  std::vector<std::string> prose;
  bool inList = false;
  for (const std::string& line : splitLines(mainHelp)) {
    if (line.compare(0, 7, "usage: ") == 0) {
      usage = line.substr(7);
    } else if (line == "commands:") {
      inList = true;
    } else if (inList && line.compare(0, 2, "  ") == 0) {
      continue;
    } else {
      inList = false;
      prose.push_back(line);
    }
  }
  // NAME: the first sentence's subject ("The recorder's console tool: ...").
  std::string first;
  for (const std::string& line : prose) {
    if (trim(line).empty() && !first.empty()) break;
    first += (first.empty() ? "" : " ") + trim(line);
  }
  std::string name = first.substr(0, first.find_first_of(":."));
  if (!name.empty()) name[0] = static_cast<char>(std::tolower(static_cast<unsigned char>(name[0])));

  out << ".\\\" Generated by 'vorta --man' from the tool's own help texts: do not edit.\n"
      << ".TH VORTA 1 \"\" \"vorta " << roff(version) << "\" \"User Commands\"\n"
      << ".SH NAME\nvorta \\- " << roff(name) << "\n"
      << ".SH SYNOPSIS\n";
  if (!usage.empty()) {
    const std::string rest = usage.compare(0, 6, "vorta ") == 0 ? usage.substr(6) : usage;
    out << ".B vorta\n" << roff(rest) << "\n";
  }
  const auto all = commands();
  for (const Command* command : all) {
    out << ".br\n.B vorta " << command->name << "\n";
    const std::string rest =
        usageLine(*command).substr(std::string("usage: vorta ").size() + command->name.size());
    if (!trim(rest).empty()) out << roff(trim(rest)) << "\n";
  }
  out << ".SH DESCRIPTION\n";
  printProse(out, prose);
  out << ".SH COMMANDS\n";
  for (const Command* command : all) {
    out << ".SS " << command->name << "\n";
    printProse(out, {command->summary});
    if (!command->description.empty()) printProse(out, splitLines(command->description));
    for (const Option& option : command->options) {
      out << ".TP\n\\fB" << roff("--" + option.name) << "\\fR";
      if (!option.valueName.empty()) out << " \\fI" << roff(option.valueName) << "\\fR";
      out << "\n" << roff(option.help) << "\n";
    }
    out << ".TP\n\\fB\\-h\\fR, \\fB\\-\\-help\\fR\nshow the help of this command\n";
  }
  // A paragraph "NAME: text" of these sections is a tagged one.
  for (const auto& section : kSections) {
    out << ".SH " << section.first << "\n";
    std::string paragraph;
    for (const std::string& line : splitLines(std::string(section.second) + "\n\n")) {
      if (!trim(line).empty()) {
        paragraph += (paragraph.empty() ? "" : "\n") + line;
        continue;
      }
      const std::string::size_type colon = paragraph.find(": ");
      if (colon != std::string::npos && paragraph[0] != ' ' && paragraph.find("\n ") == std::string::npos)
        out << ".TP\n\\fB" << roff(paragraph.substr(0, colon)) << "\\fR\n"
            << roff(paragraph.substr(colon + 2)) << "\n";
      else if (!paragraph.empty())
        printProse(out, splitLines(paragraph));
      paragraph.clear();
    }
  }
}

void printBashCompletion(std::ostream& out) {
  const auto all = commands();
  std::vector<std::string> names;
  for (const Command* command : all)
    if (isWord(command->name)) names.push_back(command->name);
  std::vector<std::string> globals;
  for (const std::string& option : globalOptions()) globals.push_back("--" + option);

  out << "# bash completion for vorta. Generated by 'vorta --bash-completion' from the\n"
         "# tool's command table: do not edit.\n"
         "_vorta_prefixes() {\n"
         "  local segment\n"
         "  for segment in /dev/shm/*.clips; do\n"
         "    [ -e \"$segment\" ] && segment=${segment##*/} && echo \"${segment%.clips}\"\n"
         "  done\n"
         "}\n"
         "_vorta() {\n"
         "  local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD-1]}\n"
         "  local commands='"
      << joined(names, " ")
      << "'\n"
         "  local options='' valued='' first='' i word arguments=0 argument='' c=1\n"
         "  local -A second=()\n"
         "  COMPREPLY=()\n"
         "  case $prev in\n"
         "    --prefix) mapfile -t COMPREPLY < <(compgen -W \"$(_vorta_prefixes)\" -- \"$cur\"); return 0 "
         ";;\n"
         "    --params) return 0 ;;\n"
         "  esac\n"
         "  # The options every command takes may come before its name.\n"
         "  while [[ \" "
      << joined(globals, " ")
      << " \" == *\" ${COMP_WORDS[c]} \"* ]] && ((c + 1 < COMP_CWORD)); do ((c += 2)); done\n"
         "  if [ \"$COMP_CWORD\" -eq \"$c\" ]; then\n"
         "    mapfile -t COMPREPLY < <(compgen -W \"$commands "
      << joined(globals, " ")
      << " --help --version\" -- \"$cur\")\n"
         "    return 0\n"
         "  fi\n"
         "  case ${COMP_WORDS[c]} in\n";
  for (const Command* command : all) {
    if (!isWord(command->name)) continue;
    std::vector<std::string> options;
    std::vector<std::string> valued;
    std::ostringstream values;
    for (const Option& option : command->options) {
      if (!isWord(option.name)) continue;
      options.push_back("--" + option.name);
      if (option.valueName.empty()) continue;
      valued.push_back("--" + option.name);
      const auto choices = valueChoices(option);
      if (!choices.empty())
        values << "        --" << option.name << ") mapfile -t COMPREPLY < <(compgen -W '"
               << joined(choices, " ") << "' -- \"$cur\"); return 0 ;;\n";
    }
    options.push_back("--help");
    std::vector<std::string> first = firstWords(*command);
    if (command->name == "help") first = names;
    out << "    " << command->name << ")\n"
        << "      options='" << joined(options, " ") << "'\n"
        << "      valued=' " << joined(valued, " ") << " '\n"
        << "      first='" << joined(first, " ") << "'\n";
    if (!command->secondWords.empty()) {
      out << "      second=(";
      for (const auto& words : command->secondWords)
        out << (words.first == command->secondWords.front().first ? "" : " ") << "[" << words.first << "]='"
            << joined(words.second, " ") << "'";
      out << ")\n";
    }
    // Any other value: the shell's default (file names).
    out << "      [[ $valued == *\" $prev \"* ]] && { case $prev in\n"
        << values.str() << "        *) return 0 ;;\n      esac; }\n"
        << "      ;;\n";
  }
  out << "    *) return 0 ;;\n"
         "  esac\n"
         "  if [[ $cur == -* ]]; then\n"
         "    mapfile -t COMPREPLY < <(compgen -W \"$options\" -- \"$cur\")\n"
         "    return 0\n"
         "  fi\n"
         "  # Offer the first argument's words to the first argument, and the words\n"
         "  # that follow a first word to the second.\n"
         "  for ((i = c + 1; i < COMP_CWORD; i++)); do\n"
         "    word=${COMP_WORDS[i]}\n"
         "    if [[ $word == --* ]]; then\n"
         "      [[ $word != *=* && $valued == *\" $word \"* ]] && ((i++))\n"
         "    else\n"
         "      ((arguments++))\n"
         "      [ \"$arguments\" -eq 1 ] && argument=$word\n"
         "    fi\n"
         "  done\n"
         "  if [ \"$arguments\" -eq 0 ] && [ -n \"$first\" ]; then\n"
         "    mapfile -t COMPREPLY < <(compgen -W \"$first\" -- \"$cur\")\n"
         "  elif [ \"$arguments\" -eq 1 ] && [ -n \"$argument\" ] && [ -n \"${second[$argument]:-}\" ]; "
         "then\n"
         "    mapfile -t COMPREPLY < <(compgen -W \"${second[$argument]}\" -- \"$cur\")\n"
         "  fi\n"
         "  return 0\n"
         "}\n"
         "complete -o default -F _vorta vorta\n";
}

}  // namespace cli
}  // namespace vorta
