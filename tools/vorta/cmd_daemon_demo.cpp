// SPDX-License-Identifier: MIT
// vorta daemon-demo: a daemon with its pid file that stops cleanly on SIGTERM.
#include <errno.h>
#include <signal.h>
#include <unistd.h>

#include <iostream>

#include "cli.h"
#include "daemonutils.h"

namespace {

using namespace vorta::cli;

volatile sig_atomic_t gStopSignal = 0;

void onStop(int sig) { gStopSignal = sig; }

std::string status() { return "running"; }

int run(Invocation& in) {
  static std::string shortName;
  shortName = in.value("name").value_or("vorta-demo");
  // The name goes into the pid file's path and the daemon's messages, which
  // this command leaves as the library writes them: printable text only.
  if (shortName.empty() || shortName.find('/') != std::string::npos || shortName.size() > 100 ||
      shown(shortName) != shortName)
    throw UsageError("--name must be 1 to 100 printable characters, without '/' or a backslash");
  const bool keep = in.flag("keep");
  // The pid file is named after the program's short invocation name.
  program_invocation_short_name = &shortName[0];
  const std::string pidfile = "/var/run/" + shortName + ".pid";

  if (in.flag("detach")) {
    std::cout << "detaching: the daemon writes its pid to " << pidfile << "\n"
              << "stop it with: kill -TERM $(cat " << pidfile << ")" << std::endl;
    Daemonizer::daemonize(shortName, onStop, status, keep);
  } else {
    Daemonizer::setupSignalHandler(shortName, onStop, status, keep);
    const bool written = access(Daemonizer::pidfile, F_OK) == 0;
    std::cout << "daemon " << shortName << " running in the foreground, pid " << getpid() << "\n"
              << "pid file: " << Daemonizer::pidfile
              << (written ? "" : " (not written: no write access to /var/run)") << "\n"
              << "stop it with Ctrl-C or: kill -TERM " << getpid() << " (kill -USR1 is accepted and ignored)"
              << std::endl;
  }
  Daemonizer::sleepUntilKilled();
  if (keep) Daemonizer::setDone();
  std::cout << "stopped by signal " << static_cast<int>(gStopSignal) << "; pid file "
            << (access(Daemonizer::pidfile, F_OK) == 0 ? "still there" : "removed") << std::endl;
  return 0;
}

const Command kDaemonDemo{
    "daemon-demo",
    "run a daemon with a pid file until SIGTERM",
    "",
    "Sets up signal handling as the recorder's daemons do and writes the pid\n"
    "file /var/run/NAME.pid (root only; without write access the file is\n"
    "skipped). In the foreground it prints its pid and waits; --detach makes it\n"
    "a background daemon (new session, standard output on /dev/null, messages\n"
    "on /dev/console) and the command returns at once. Stop it with SIGTERM or\n"
    "SIGINT: kill -TERM $(cat /var/run/NAME.pid). The pid file is then removed;\n"
    "with --keep it stays until the daemon's own clean-up is done (setDone).",
    {{"name", "NAME", "the daemon's name and pid-file stem (default vorta-demo)"},
     {"detach", "", "run as a detached background daemon"},
     {"keep", "", "keep the pid file after the signal until the clean-up"}},
    run,
    0,
    0,
    {},
    true,
};
VORTA_REGISTER_COMMAND(kDaemonDemo);

}  // namespace
