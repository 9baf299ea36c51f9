// SPDX-License-Identifier: MIT
// vorta: daemon start-up, pid file and signal handling for the recorder's resident processes.
#pragma once

#include <cstdint>
#include <string>

/// Turns a process into a background daemon, writes its pid file, handles the
/// termination, status and crash signals and offers a loop that sleeps until
/// the process is told to stop. All state is static: one daemon per process.
class Daemonizer {
 public:
  /// Number of termination signals received (SIGINT, SIGTERM); 0 after set-up.
  static volatile int32_t killed;
  /// The daemon's name followed by ": ", the prefix of every message.
  static std::string name;
  /// Number of return addresses captured by the last crash back-trace.
  static int32_t size;
  /// The caller's termination hook, called with the signal number; may be null.
  static void (*_handleTermOrKillSignal)(int);
  /// The caller's status hook; may be null. Stored, and makes SIGUSR1 caught.
  static std::string (*_getStatus)();
  /// True when the caller removes the pid file itself with setDone().
  static bool _hasCleanupAfterKilled;
  /// Path of the pid file: "/var/run/<short invocation name>.pid", at most 127 characters.
  static char pidfile[128];
  /// Return addresses captured by the crash handler.
  static void* sig_buffer[1024];

  /// Detaches from the terminal (fork, setsid, fork; each parent exits 0; cwd
  /// /tmp, umask 0, stdin and stdout on /dev/null, stderr on /dev/console),
  /// then calls setupSignalHandler with the same arguments.
  static void daemonize(std::string name, void (*handleTermOrKill)(int), std::string (*getStatus)(),
                        bool hasCleanupAfterKilled);
  /// Stores the hooks, resets killed, installs signalHandler for SIGINT,
  /// SIGTERM and SIGSEGV (and SIGUSR1 when getStatus is given) and writes the
  /// pid file with the process id and a newline (skipped when it cannot be opened).
  static void setupSignalHandler(std::string name, void (*handleTermOrKill)(int), std::string (*getStatus)(),
                                 bool hasCleanupAfterKilled);
  /// The installed handler: termination, status (ignored) and crash signals.
  static void signalHandler(int sig);
  /// Does nothing: the status signal is accepted and ignored.
  static void printStatus();
  /// Returns once killed is non-zero, checking it every 250 ms.
  static void sleepUntilKilled();
  /// Removes the pid file at the end of an orderly shutdown (complains first
  /// when the daemon was not set up to keep it until now).
  static void setDone();
};
