#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
# Turns the tool's command-line cases, as ctest knows them, into the plain list the test guest runs.
#
#   cli-cases.py BUILD_DIR CASES_FILE PATHS_FILE
#
# The cases are read from `ctest --show-only=json-v1` in BUILD_DIR/tests/cli,
# so that the CMake definitions in tests/cli stay the one description of every
# case: a case added there is in the list at the next build, with nothing to
# register. Each ctest case becomes one record of CASES_FILE (read by
# cli-run.sh), records separated by an empty line, one "key value" per line:
#
#   case NAME         the ctest name
#   kind check        a vorta_cli_test: run the words, check the exit status
#                     and the output against the case's expressions
#   kind run          any other command: passes when it exits 0
#   kind host         not run in the guest; "reason" says why
#   timeout SECONDS   ctest's limit on the host
#   dir DIR           the working directory
#   status N          (check) the expected exit status
#   stdout RE         (check) a POSIX extended expression the whole standard
#   stderr RE         output (error) must match; absent: not checked, except
#                     that a case expecting status 0 must print no error
#   skip N            (run) ctest's SKIP_RETURN_CODE
#   will_fail 1       (run) ctest's WILL_FAIL: passes when it fails
#   arg WORD          the command's words, in order
#
# Values are escaped for bash's printf %b: \\ for a backslash, \n, \t, \r and
# \0NNN for other control characters. CMake's regular expressions become
# POSIX extended ones with the same meaning over the whole text ("." and
# "[^x]" match a newline, "^" and "$" anchor at the text's ends, which is how
# bash's =~ applies them). The emulator words of a cross build are dropped:
# in the guest the tool runs on its own processor.
#
# PATHS_FILE lists what the guest needs from the build tree at the same
# paths: "mkdir DIR" (working directories, and the directories of outputs the
# cases write), "copy FILE" (a file named on a command line) and "files DIR"
# (the files of a directory named on a command line, e.g. the tool's
# directory with its generated manual page and completion).
import json
import os
import subprocess
import sys

# ctest properties the guest's runner applies or that do not change a
# single case's verdict; a case with any other property is not run there.
UNDERSTOOD = {
    "LABELS", "TIMEOUT", "WORKING_DIRECTORY", "SKIP_RETURN_CODE", "ENVIRONMENT", "WILL_FAIL",
    "RESOURCE_LOCK", "RUN_SERIAL", "PROCESSORS", "COST", "DEPENDS", "FIXTURES_SETUP",
    "FIXTURES_CLEANUP", "FIXTURES_REQUIRED", "_BACKTRACE_TRIPLES", "TIMEOUT_AFTER_MATCH",
}
ERE_SPECIAL = set("^.[]$()|*+?{}\\")


def escape(text):
    out = []
    for c in text:
        if c == "\\":
            out.append("\\\\")
        elif c == "\n":
            out.append("\\n")
        elif c == "\t":
            out.append("\\t")
        elif c == "\r":
            out.append("\\r")
        elif ord(c) < 32 or ord(c) == 127:
            out.append("\\0%03o" % ord(c))
        else:
            out.append(c)
    return "".join(out)


def cmake_regex_to_ere(regex):
    """CMake's expressions: a backslash makes any character literal, braces
    are plain characters, brackets hold no escapes. In ERE braces are
    intervals and an escaped letter may be a class (\\s, \\w): both are
    spelled as the literal characters they are in CMake."""
    out = []
    i = 0
    while i < len(regex):
        c = regex[i]
        if c == "\\":
            if i + 1 == len(regex):
                out.append("\\\\")
                break
            n = regex[i + 1]
            out.append("\\" + n if n in ERE_SPECIAL else n)
            i += 2
        elif c == "[":
            j = i + 1
            if j < len(regex) and regex[j] == "^":
                j += 1
            if j < len(regex) and regex[j] == "]":
                j += 1
            while j < len(regex) and regex[j] != "]":
                j += 1
            out.append(regex[i:j + 1])
            i = j + 1
        elif c in "{}":
            out.append("\\" + c)
            i += 1
        else:
            out.append(c)
            i += 1
    return "".join(out)


def cmake_list(value):
    """An unquoted CMake list expansion: split at ";" outside square brackets
    and not escaped, empty elements dropped."""
    items, cur, depth, i = [], [], 0, 0
    while i < len(value):
        c = value[i]
        if c == "\\" and i + 1 < len(value) and value[i + 1] == ";":
            cur.append(";")
            i += 2
            continue
        if c == "[":
            depth += 1
        elif c == "]" and depth > 0:
            depth -= 1
        elif c == ";" and depth == 0:
            items.append("".join(cur))
            cur = []
            i += 1
            continue
        cur.append(c)
        i += 1
    items.append("".join(cur))
    return [item for item in items if item != ""]


def defines(words):
    """The -DNAME=VALUE (or -D NAME=VALUE) settings of a cmake command line."""
    found = {}
    i = 0
    while i < len(words):
        word = words[i]
        if word == "-D" and i + 1 < len(words):
            word = "-D" + words[i + 1]
            i += 1
        if word.startswith("-D") and "=" in word:
            name, value = word[2:].split("=", 1)
            found[name.split(":", 1)[0]] = value
        i += 1
    return found


def without(words, sequence):
    """WORDS with every occurrence of the word SEQUENCE removed."""
    if not sequence:
        return list(words)
    out, i, n = [], 0, len(sequence)
    while i < len(words):
        if words[i:i + n] == sequence:
            i += n
        else:
            out.append(words[i])
            i += 1
    return out


def main():
    if len(sys.argv) != 4:
        sys.exit("usage: cli-cases.py BUILD_DIR CASES_FILE PATHS_FILE")
    build = os.path.realpath(sys.argv[1])
    cli_dir = os.path.join(build, "tests", "cli")
    if not os.path.isdir(cli_dir):
        sys.exit("cli-cases.py: no %s (a build without the tool?)" % cli_dir)
    shown = subprocess.run(["ctest", "--test-dir", cli_dir, "--show-only=json-v1"], check=True,
                           stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    tests = json.loads(shown.stdout)["tests"]

    # The emulator of a cross build, as the vorta_cli_test cases hand it on.
    emulators = {defines(t["command"]).get("EMULATOR", "") for t in tests if "run_cli.cmake" in " ".join(t["command"])}
    emulators.discard("")
    if len(emulators) > 1:
        sys.exit("cli-cases.py: cases name different emulators: %s" % sorted(emulators))
    emulator = emulators.pop().split("|") if emulators else []

    records, mkdirs, copies, file_dirs = [], set(), set(), set()

    def need(word):
        """Puts what a command word names in the build tree into the paths."""
        if not word.startswith(build + "/"):
            return
        if os.path.isfile(word):
            copies.add(word)
        elif os.path.isdir(word):
            file_dirs.add(word)
        else:
            mkdirs.add(os.path.dirname(word))

    for t in tests:
        name = t["name"]
        props = {p["name"]: p["value"] for p in t.get("properties", [])}
        command = t.get("command") or []
        timeout = int(float(props.get("TIMEOUT", 1500)))
        workdir = props.get("WORKING_DIRECTORY", cli_dir)
        fields = [("case", name)]
        reason = None
        odd = sorted(set(props) - UNDERSTOOD)
        if props.get("DISABLED"):
            reason = "disabled in ctest"
        elif odd:
            reason = "uses the ctest property %s, which the guest's runner does not apply" % ", ".join(odd)
        elif not command:
            reason = "has no command"
        program = os.path.basename(command[0]) if command else ""
        if reason is None and program == "cmake":
            script = command[command.index("-P") + 1] if "-P" in command[:-1] else ""
            if os.path.basename(script) != "run_cli.cmake":
                reason = "a CMake script (%s): the guest has no cmake" % script
            else:
                d = defines(command)
                words = [d["VORTA"]] + cmake_list(d.get("ARGS", "").replace("|", ";"))
                fields += [("kind", "check"), ("timeout", timeout), ("dir", workdir), ("status", d.get("RC", ""))]
                for stream in ("STDOUT", "STDERR"):
                    if d.get(stream, "") != "":
                        fields.append((stream.lower(), cmake_regex_to_ere(d[stream])))
        elif reason is None:
            words = without(command, emulator)
            if program in ("bash", "sh"):
                words[0] = program
            elif not words[0].startswith(build + "/"):
                reason = "runs %s, which the guest has not" % command[0]
            if reason is None:
                fields += [("kind", "run"), ("timeout", timeout), ("dir", workdir)]
                if "SKIP_RETURN_CODE" in props:
                    fields.append(("skip", int(float(props["SKIP_RETURN_CODE"]))))
                if props.get("WILL_FAIL"):
                    fields.append(("will_fail", 1))
        if reason is not None:
            fields += [("kind", "host"), ("reason", reason)]
        else:
            environment = props.get("ENVIRONMENT", [])
            if isinstance(environment, str):
                environment = [environment]
            if environment:
                words = ["env"] + environment + words
            fields += [("arg", w) for w in words]
            mkdirs.add(workdir)
            for w in words:
                need(w)
        records.append("".join("%s %s\n" % (k, escape(str(v))) for k, v in fields))

    with open(sys.argv[2], "w", encoding="utf-8") as out:
        out.write("\n".join(records))
    with open(sys.argv[3], "w", encoding="utf-8") as out:
        for kind, paths in (("mkdir", mkdirs), ("copy", copies), ("files", file_dirs)):
            for path in sorted(paths):
                out.write("%s %s\n" % (kind, path))


if __name__ == "__main__":
    main()
