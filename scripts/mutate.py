#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
# Mutation testing of the library: applies one small change at a time to a unit of classes/ or platform/,
# rebuilds, runs the test binaries that cover that unit, and counts the changes the tests notice.
"""Mutation runner.

Each unit (a source file of classes/ or platform/) gets a deterministic
sample of single mutations:

  cmp    a comparison flipped at its boundary (< <=, > >=) or negated (== !=)
  const  an integer constant made one larger or one smaller
  neg    the condition of an if or while negated
  call   a call made as a statement of its own deleted
  bool   true and false swapped

Every mutant is built in a copy of the source tree (build/mutate/src, never
the checkout itself), with its own incremental build (build/mutate/build);
the copy is put back in step with the checkout at every start, so an
interrupted run leaves nothing behind. A mutant is killed when one of the
unit's test binaries (scripts/mutate-units.txt) fails, crashes or overruns
its time limit; one that does not compile is not counted. Mutants the
project has judged equivalent (scripts/mutate-equivalent.txt, each with its
reason) are subtracted from the total and listed.

Environment (or the matching options):
  MUTATE_UNITS   units, by stem or path (shmstring,platform/params/paramstore.cpp); default: all
  MUTATE_COUNT   mutants per unit (default 20; 0 = every mutant)
  MUTATE_SEED    seed of the sample (default 1)
  MUTATE_SINCE   with no MUTATE_UNITS: the units whose source or header changed since this
                 git revision (CI: HEAD~1); when none did, MUTATE_SPARE units chosen by the seed
  MUTATE_IDS     only these mutants (ids as --list and the report print them), of the units
                 chosen; for running the survivors of a sample again
  MUTATE_SPARE   units sampled when MUTATE_SINCE finds none (default 2)
  MUTATE_MAX_UNITS  at most this many of the units MUTATE_SINCE finds, chosen by the seed
                 (default 0: all of them)
  MUTATE_TIMEOUT least time limit of one test binary in seconds (default 20; the
                 limit is also at least 3 x the binary's unmutated run time)
"""

import argparse
import hashlib
import json
import os
import random
import re
import shutil
import signal
import subprocess
import sys
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
UNITS_FILE = os.path.join(ROOT, "scripts", "mutate-units.txt")
EQUIVALENT_FILE = os.path.join(ROOT, "scripts", "mutate-equivalent.txt")

KEYWORDS = {
    "if", "while", "for", "switch", "return", "sizeof", "alignof", "delete", "new", "throw", "case",
    "do", "else", "catch", "static_assert", "decltype", "using", "typedef", "goto", "operator",
}


# ---- source scanning ---------------------------------------------------------


def code_mask(text):
    """The text with comments, string and character literals and preprocessor
    lines blanked out (same length, newlines kept), so that patterns only see code."""
    out = list(text)
    i, n = 0, len(text)
    line_start = True
    while i < n:
        c = text[i]
        if line_start and c in " \t":
            i += 1
            continue
        if line_start and c == "#":
            # A preprocessor line, with its continuations.
            while i < n and text[i] != "\n":
                if text[i] == "\\" and i + 1 < n and text[i + 1] == "\n":
                    out[i] = " "
                    i += 2
                    continue
                out[i] = " "
                i += 1
            continue
        line_start = False
        if c == "\n":
            line_start = True
            i += 1
        elif text.startswith("//", i):
            while i < n and text[i] != "\n":
                out[i] = " "
                i += 1
        elif text.startswith("/*", i):
            end = text.find("*/", i + 2)
            end = n if end < 0 else end + 2
            for j in range(i, end):
                if out[j] != "\n":
                    out[j] = " "
            i = end
        elif c == "R" and text.startswith('R"', i) and (i == 0 or not (text[i - 1].isalnum() or text[i - 1] == "_")):
            paren = text.find("(", i + 2)
            delim = text[i + 2:paren]
            end = text.find(")" + delim + '"', paren)
            end = n if end < 0 else end + len(delim) + 2
            for j in range(i, end):
                if out[j] != "\n":
                    out[j] = " "
            i = end
        elif c in "\"'":
            # A digit separator (1'000) is not a character literal.
            if c == "'" and i > 0 and text[i - 1].isalnum() and i + 1 < n and text[i + 1].isalnum():
                i += 1
                continue
            j = i + 1
            while j < n and text[j] != c and text[j] != "\n":
                j += 2 if text[j] == "\\" else 1
            end = min(j + 1, n)
            for k in range(i, end):
                out[k] = " "
            i = end
        else:
            i += 1
    return "".join(out)


def matching_paren(mask, open_at):
    depth = 0
    for j in range(open_at, len(mask)):
        if mask[j] == "(":
            depth += 1
        elif mask[j] == ")":
            depth -= 1
            if depth == 0:
                return j
    return -1


CMP = {"<": "<=", "<=": "<", ">": ">=", ">=": ">", "==": "!=", "!=": "=="}
CMP_RE = re.compile(r"(?<=[\w)\]\s])\s(<=|>=|==|!=|<|>)\s(?=[\w(!\-*&:'\"\[~+])")
INT_RE = re.compile(r"(?<![\w.'])(0[xX][0-9A-Fa-f']+|\d[\d']*)([uUlL]*)(?![\w.'])")
COND_RE = re.compile(r"\b(if|while)\s*\(")
BOOL_RE = re.compile(r"\b(true|false)\b")
CALL_RE = re.compile(r"(?:::)?[A-Za-z_]\w*(?:(?:::|\.|->)[A-Za-z_~]\w*)*\s*\(")


def mutants_of(path, rel):
    """Every mutant of one source file, in file order: dicts with the edit
    (start, end, replacement), the operator, a line number and a stable id."""
    with open(path, encoding="utf-8", errors="surrogateescape") as f:
        text = f.read()
    mask = code_mask(text)
    lines = text.split("\n")
    line_starts = [0]
    for line in lines[:-1]:
        line_starts.append(line_starts[-1] + len(line) + 1)
    found = []

    def add(op, start, end, replacement):
        lo, hi = 0, len(line_starts) - 1
        while lo < hi:
            mid = (lo + hi + 1) // 2
            if line_starts[mid] <= start:
                lo = mid
            else:
                hi = mid - 1
        line_no = lo + 1
        found.append({"op": op, "start": start, "end": end, "replacement": replacement,
                      "original": text[start:end], "line": line_no})

    for m in CMP_RE.finditer(mask):
        op = m.group(1)
        # A template argument list or a shift is never spaced this way by
        # clang-format; what is left are binary comparisons.
        add("cmp", m.start(1), m.end(1), CMP[op])
    for m in INT_RE.finditer(mask):
        literal, suffix = m.group(1), m.group(2)
        digits = literal.replace("'", "")
        value = int(digits, 16) if digits[:2].lower() == "0x" else int(digits, 8 if len(digits) > 1 and digits[0] == "0" else 10)
        for delta in (1, -1):
            new = value + delta
            if new < 0:
                replacement = "(-1)"
            elif digits[:2].lower() == "0x":
                replacement = "0x%X" % new + suffix
            elif len(digits) > 1 and digits[0] == "0":
                replacement = "0%o" % new + suffix
            else:
                replacement = str(new) + suffix
            add("const", m.start(), m.end(), replacement)
    for m in COND_RE.finditer(mask):
        open_at = m.end() - 1
        close_at = matching_paren(mask, open_at)
        if close_at < 0:
            continue
        inner = text[open_at + 1:close_at]
        if m.group(1) == "if" and mask[m.start():open_at].strip() == "if" and mask[open_at + 1:close_at].strip().startswith("constexpr"):
            continue
        add("neg", open_at, close_at + 1, "(!(" + inner + "))")
    for m in BOOL_RE.finditer(mask):
        add("bool", m.start(), m.end(), "false" if m.group(1) == "true" else "true")
    # Calls made as statements of their own: the statement begins a line (or
    # follows a brace or semicolon) and is nothing but the call.
    for m in CALL_RE.finditer(mask):
        start = m.start()
        before = mask[:start].rstrip(" \t")
        if before and before[-1] not in ";{}\n" and not before.endswith(("else", ")")):
            continue
        if before.endswith(")"):
            # Only the body of an if/while/for on the same line.
            continue
        first = re.match(r"(?:::)?([A-Za-z_]\w*)", mask[start:]).group(1)
        if first in KEYWORDS:
            continue
        open_at = m.end() - 1
        close_at = matching_paren(mask, open_at)
        if close_at < 0:
            continue
        rest = mask[close_at + 1:]
        stripped = rest.lstrip(" \t")
        if not stripped.startswith(";"):
            continue
        semicolon = close_at + 1 + (len(rest) - len(stripped))
        add("call", start, semicolon + 1, ";")

    found.sort(key=lambda x: (x["start"], x["op"], x["replacement"]))
    for mutant in found:
        line_no = mutant["line"]
        line = lines[line_no - 1]
        indent = len(line) - len(line.lstrip())
        column = mutant["start"] - line_starts[line_no - 1] - indent

        def neighbour(step):
            k = line_no - 1 + step
            while 0 <= k < len(lines) and not lines[k].strip():
                k += step
            return lines[k].strip() if 0 <= k < len(lines) else ""

        key = "|".join([rel, mutant["op"], neighbour(-1), line.strip(), neighbour(1), str(column),
                        mutant["original"], mutant["replacement"]])
        mutant["id"] = hashlib.sha1(key.encode("utf-8", "surrogateescape")).hexdigest()[:10]
        mutant["file"] = rel
    # Two edits that come out the same (rare) keep one id each.
    seen = {}
    for mutant in found:
        count = seen.get(mutant["id"], 0)
        seen[mutant["id"]] = count + 1
        if count:
            mutant["id"] = "%s.%d" % (mutant["id"], count)
    return text, found


def describe(mutant, width=70):
    original = " ".join(mutant["original"].split())
    replacement = " ".join(mutant["replacement"].split())
    if len(original) > width:
        original = original[:width - 3] + "..."
    if len(replacement) > width:
        replacement = replacement[:width - 3] + "..."
    return "%s:%d %s '%s' -> '%s'" % (mutant["file"], mutant["line"], mutant["op"], original, replacement)


# ---- configuration files --------------------------------------------------------


def read_units():
    """unit stem -> (source path, [test binaries])"""
    units = {}
    with open(UNITS_FILE, encoding="utf-8") as f:
        for raw in f:
            line = raw.split("#", 1)[0].strip()
            if not line:
                continue
            source, _, tests = line.partition(":")
            source = source.strip()
            stem = os.path.splitext(os.path.basename(source))[0]
            units[stem] = (source, tests.split())
    return units


def read_equivalent():
    """id -> reason"""
    judged = {}
    if not os.path.exists(EQUIVALENT_FILE):
        return judged
    with open(EQUIVALENT_FILE, encoding="utf-8") as f:
        for raw in f:
            line = raw.strip()
            if not line or line.startswith("#"):
                continue
            parts = line.split(None, 2)
            if len(parts) < 3:
                sys.exit("mutate: %s: an entry needs an id, its unit and a reason: %s" % (EQUIVALENT_FILE, line))
            judged[parts[0]] = (parts[1], parts[2])
    return judged


# ---- the working copy and its build ----------------------------------------------


def sync_copy(src_dir):
    """Puts the copy in step with the checkout (tracked and untracked files that
    git does not ignore). Changed files are written with the current time, so
    an object built from a mutant is always rebuilt."""
    listed = subprocess.run(["git", "ls-files", "-co", "--exclude-standard", "-z"], cwd=ROOT,
                            check=True, capture_output=True).stdout.decode("utf-8", "surrogateescape")
    wanted = set()
    for rel in filter(None, listed.split("\0")):
        source = os.path.join(ROOT, rel)
        if not os.path.isfile(source) or os.path.islink(source):
            continue
        wanted.add(rel)
        target = os.path.join(src_dir, rel)
        with open(source, "rb") as f:
            data = f.read()
        if os.path.isfile(target):
            with open(target, "rb") as f:
                if f.read() == data:
                    continue
        os.makedirs(os.path.dirname(target), exist_ok=True)
        write_file(target, data)
        shutil.copymode(source, target)
    for dirpath, _, files in os.walk(src_dir):
        for name in files:
            rel = os.path.relpath(os.path.join(dirpath, name), src_dir)
            if rel not in wanted:
                os.unlink(os.path.join(dirpath, name))


def write_file(path, data):
    tmp = path + ".mutate-tmp"
    with open(tmp, "wb") as f:
        f.write(data)
    os.replace(tmp, path)
    now = time.time_ns()
    os.utime(path, ns=(now, now))


def configure(src_dir, build_dir, log):
    if os.path.exists(os.path.join(build_dir, "build.ninja")):
        return
    flags = "-O1 -g0"
    command = ["cmake", "-S", src_dir, "-B", build_dir, "-G", "Ninja",
               "-DCMAKE_BUILD_TYPE=Release", "-DCMAKE_CXX_FLAGS_RELEASE=" + flags,
               "-DCMAKE_C_FLAGS_RELEASE=" + flags, "-DVORTA_WERROR=OFF", "-DVORTA_BUILD_TOOLS=OFF",
               "-DVORTA_BUILD_BENCH=OFF", "-DVORTA_BUILD_FUZZ=OFF",
               # A test binary that links libvorta.so need not be linked again
               # when only the library's code changed.
               "-DCMAKE_LINK_DEPENDS_NO_SHARED=ON"]
    if subprocess.run(command, stdout=log, stderr=subprocess.STDOUT).returncode != 0:
        sys.exit("mutate: configuring the mutation build failed (see %s)" % log.name)


def build(build_dir, targets, log):
    jobs = os.environ.get("MUTATE_JOBS", str(os.cpu_count() or 1))
    result = subprocess.run(["nice", "ninja", "-C", build_dir, "-j", jobs] + sorted(targets),
                            stdout=log, stderr=subprocess.STDOUT)
    return result.returncode == 0


def run_binary(build_dir, binary, limit):
    """'pass', 'fail' or 'timeout'; and the seconds it took."""
    path = os.path.join(build_dir, "tests", binary)
    start = time.monotonic()
    process = subprocess.Popen([path, "--gtest_brief=1", "--gtest_fail_fast", "--gtest_color=no"],
                               cwd=os.path.join(build_dir, "tests"), stdin=subprocess.DEVNULL,
                               stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, start_new_session=True)
    try:
        code = process.wait(timeout=limit)
    except subprocess.TimeoutExpired:
        kill_group(process)
        return "timeout", time.monotonic() - start
    # Children the tests forked and left behind go with the group.
    kill_group(process)
    return ("pass" if code == 0 else "fail"), time.monotonic() - start


def kill_group(process):
    try:
        os.killpg(process.pid, signal.SIGKILL)
    except ProcessLookupError:
        pass
    process.wait()


# ---- the run ------------------------------------------------------------------------


def choose(units, names):
    if not names:
        return sorted(units)
    chosen = []
    for name in names:
        stem = os.path.splitext(os.path.basename(name))[0]
        if stem not in units:
            sys.exit("mutate: no unit '%s' (units: %s)" % (name, ", ".join(sorted(units))))
        if stem not in chosen:
            chosen.append(stem)
    return chosen


def changed_units(units, since, seed, spare):
    """The units whose .cpp or .h changed since the revision; a seeded sample
    of `spare` units when none did."""
    listed = subprocess.run(["git", "diff", "--name-only", since, "--", "classes", "platform"], cwd=ROOT,
                            capture_output=True, text=True)
    if listed.returncode != 0:
        # A shallow clone, say, that does not have the revision.
        print("mutate: no revision %s here (%s)" % (since, listed.stderr.strip().splitlines()[0] if listed.stderr.strip() else "git diff failed"), flush=True)
    stems = {os.path.splitext(os.path.basename(p))[0] for p in listed.stdout.split()} if listed.returncode == 0 else set()
    chosen = [u for u in sorted(units) if u in stems]
    if chosen:
        print("mutate: units changed since %s: %s" % (since, ", ".join(chosen)), flush=True)
        return chosen
    chosen = sorted(random.Random("%s:units" % seed).sample(sorted(units), min(spare, len(units))))
    print("mutate: no unit changed since %s; a sample: %s" % (since, ", ".join(chosen)), flush=True)
    return chosen


def sample(mutants, count, seed, unit):
    if count <= 0 or count >= len(mutants):
        return list(mutants)
    picked = random.Random("%s:%s" % (seed, unit)).sample(range(len(mutants)), count)
    return [mutants[i] for i in sorted(picked)]


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--units", default=os.environ.get("MUTATE_UNITS", ""))
    parser.add_argument("--count", type=int, default=int(os.environ.get("MUTATE_COUNT") or 20))
    parser.add_argument("--seed", default=os.environ.get("MUTATE_SEED") or "1")
    parser.add_argument("--since", default=os.environ.get("MUTATE_SINCE", ""))
    parser.add_argument("--spare", type=int, default=int(os.environ.get("MUTATE_SPARE") or 2))
    parser.add_argument("--max-units", type=int, default=int(os.environ.get("MUTATE_MAX_UNITS") or 0))
    parser.add_argument("--timeout", type=float, default=float(os.environ.get("MUTATE_TIMEOUT") or 20))
    parser.add_argument("--ids", default=os.environ.get("MUTATE_IDS", ""))
    parser.add_argument("--list", action="store_true", help="list the sampled mutants and stop")
    parser.add_argument("--work", default=os.path.join(ROOT, "build", "mutate"))
    parser.add_argument("--results", help="write every mutant's outcome to this JSON file")
    args = parser.parse_args()

    units = read_units()
    judged = read_equivalent()
    names = [u for u in re.split(r"[,\s]+", args.units) if u]
    if args.since and not names:
        chosen = changed_units(units, args.since, args.seed, args.spare)
        if 0 < args.max_units < len(chosen):
            chosen = sorted(random.Random("%s:max" % args.seed).sample(chosen, args.max_units))
            print("mutate: of those, %s" % ", ".join(chosen), flush=True)
    else:
        chosen = choose(units, names)

    ids = set(i for i in re.split(r"[,\s]+", args.ids) if i)
    plan = []
    for unit in chosen:
        source, tests = units[unit]
        _, mutants = mutants_of(os.path.join(ROOT, source), source)
        picked = [m for m in mutants if m["id"] in ids] if ids else sample(mutants, args.count, args.seed, unit)
        if ids and not picked:
            continue
        plan.append((unit, source, tests, picked, len(mutants)))

    if args.list:
        for unit, _, tests, picked, total in plan:
            print("%s: %d of %d mutants, tests %s" % (unit, len(picked), total, " ".join(tests)))
            for mutant in picked:
                mark = "  (equivalent)" if mutant["id"] in judged else ""
                print("  %s  %s%s" % (mutant["id"], describe(mutant), mark))
        return 0

    args.work = os.path.abspath(args.work)
    src_dir = os.path.join(args.work, "src")
    build_dir = os.path.join(args.work, "build")
    os.makedirs(src_dir, exist_ok=True)
    log_path = os.path.join(args.work, "build.log")
    started = time.monotonic()
    with open(log_path, "w") as log:
        sync_copy(src_dir)
        configure(src_dir, build_dir, log)
        targets = sorted({t for _, _, tests, _, _ in plan for t in tests})
        print("mutate: building %s in %s" % (" ".join(targets), build_dir), flush=True)
        if not build(build_dir, targets, log):
            sys.exit("mutate: the unmutated build failed (see %s)" % log_path)
        limits = {}
        for binary in targets:
            outcome, seconds = run_binary(build_dir, binary, max(args.timeout, 600))
            if outcome != "pass":
                sys.exit("mutate: %s fails without any mutation; fix that first" % binary)
            limits[binary] = max(args.timeout, 3 * seconds)
        # Fastest binaries first: most mutants are killed by the first one that runs.
        order = sorted(targets, key=lambda b: limits[b])

        results = []
        interrupted = False
        for unit, source, tests, picked, total in plan:
            path = os.path.join(src_dir, source)
            with open(path, "rb") as f:
                original = f.read()
            text = original.decode("utf-8", "surrogateescape")
            print("mutate: %s: %d of its %d mutants, tests %s" % (unit, len(picked), total, " ".join(tests)), flush=True)
            try:
                for mutant in picked:
                    mutated = text[:mutant["start"]] + mutant["replacement"] + text[mutant["end"]:]
                    write_file(path, mutated.encode("utf-8", "surrogateescape"))
                    entry = {"unit": unit, "id": mutant["id"], "where": describe(mutant)}
                    if mutant["id"] in judged:
                        entry["outcome"] = "equivalent"
                        entry["reason"] = judged[mutant["id"]][1]
                    elif not build(build_dir, tests, log):
                        entry["outcome"] = "unbuildable"
                    else:
                        entry["outcome"] = "survived"
                        for binary in [b for b in order if b in tests]:
                            outcome, _ = run_binary(build_dir, binary, limits[binary])
                            if outcome != "pass":
                                entry["outcome"] = "killed"
                                entry["by"] = binary + (" (time limit)" if outcome == "timeout" else "")
                                break
                    results.append(entry)
                    print("  %-11s %s  %s%s" % (entry["outcome"], mutant["id"], entry["where"],
                                                "  [%s]" % entry["by"] if "by" in entry else ""), flush=True)
            except KeyboardInterrupt:
                interrupted = True
            finally:
                write_file(path, original)
            if interrupted:
                break
        # Leave the build matching the checkout.
        build(build_dir, targets, log)

    report(plan, results, judged, time.monotonic() - started)
    if args.results:
        with open(args.results, "w") as f:
            json.dump(results, f, indent=1)
    return 130 if interrupted else 0


def report(plan, results, judged, seconds):
    print()
    print("mutation score per unit (seed-chosen sample; equivalent mutants subtracted):")
    killed_all = total_all = 0
    for unit, _, _, _, _ in plan:
        mine = [r for r in results if r["unit"] == unit]
        killed = sum(1 for r in mine if r["outcome"] == "killed")
        survived = [r for r in mine if r["outcome"] == "survived"]
        equivalent = [r for r in mine if r["outcome"] == "equivalent"]
        unbuildable = sum(1 for r in mine if r["outcome"] == "unbuildable")
        total = killed + len(survived)
        killed_all += killed
        total_all += total
        score = "%.1f %%" % (100.0 * killed / total) if total else "-"
        extra = []
        if equivalent:
            extra.append("%d equivalent" % len(equivalent))
        if unbuildable:
            extra.append("%d not compiled" % unbuildable)
        print("%s %d/%d (%s)%s" % (unit, killed, total, score, "  [" + ", ".join(extra) + "]" if extra else ""))
        for r in survived:
            print("    survived    %s  %s" % (r["id"], r["where"]))
        for r in equivalent:
            print("    equivalent  %s  %s: %s" % (r["id"], r["where"], r["reason"]))
    score = "%.1f %%" % (100.0 * killed_all / total_all) if total_all else "-"
    print("all %d/%d (%s) in %.0f s" % (killed_all, total_all, score, seconds))


if __name__ == "__main__":
    sys.exit(main())
