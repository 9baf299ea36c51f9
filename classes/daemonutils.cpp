// SPDX-License-Identifier: MIT
// vorta: daemon start-up, pid file and signal handling for the recorder's resident processes.
#include "daemonutils.h"
#include "internal/regular_file.h"

#include <errno.h>
#include <execinfo.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <iostream>

volatile int32_t Daemonizer::killed = 0;
std::string Daemonizer::name;
int32_t Daemonizer::size = 0;
void (*Daemonizer::_handleTermOrKillSignal)(int) = nullptr;
std::string (*Daemonizer::_getStatus)() = nullptr;
bool Daemonizer::_hasCleanupAfterKilled = false;
char Daemonizer::pidfile[128] = {};
void* Daemonizer::sig_buffer[1024] = {};

namespace {

// A message assembled without allocating, for use inside the signal handler.
class SignalMessage {
 public:
  void add(const char* text, std::size_t length) {
    if (length > sizeof buffer_ - used_) length = sizeof buffer_ - used_;
    std::memcpy(buffer_ + used_, text, length);
    used_ += length;
  }
  void add(const char* text) { add(text, std::strlen(text)); }
  // Signal numbers and process ids: never negative.
  void add(unsigned long value) {
    char digits[24];
    std::size_t n = 0;
    do {
      digits[sizeof digits - 1 - n++] = static_cast<char>('0' + value % 10);
      value /= 10;
    } while (value != 0);
    add(digits + sizeof digits - n, n);
  }
  void writeTo(int fd) const {
    std::size_t done = 0;
    while (done < used_) {
      const ssize_t n = ::write(fd, buffer_ + done, used_ - done);
      if (n <= 0 && errno != EINTR) return;
      if (n > 0) done += static_cast<std::size_t>(n);
    }
  }

 private:
  char buffer_[512];
  std::size_t used_ = 0;
};

void installHandler(int sig, void (*handler)(int) = Daemonizer::signalHandler) {
  struct sigaction action;
  std::memset(&action, 0, sizeof action);
  action.sa_handler = handler;
  sigemptyset(&action.sa_mask);
  action.sa_flags = 0;
  // Fails for SIGKILL, which cannot be caught; that is expected and ignored.
  sigaction(sig, &action, nullptr);
}

// Ends a crashed process the way the crash handler does. Used when taking
// the back-trace itself aborts (an unwinder that cannot read the signal
// frame gives up with abort()), so that the crash still removes the pid file
// and ends with status -99.
void endCrashedProcess(int) {
  unlink(Daemonizer::pidfile);
  _exit(-99);
}

// Reports a failed system call of daemonize with the daemon's prefix:
// "name: what: reason" (Daemonizer::name is set only afterwards, by
// setupSignalHandler).
void reportFailure(const std::string& daemonName, const char* what) {
  std::perror((daemonName + ": " + what).c_str());
}

}  // namespace

void Daemonizer::daemonize(std::string daemonName, void (*handleTermOrKill)(int), std::string (*getStatus)(),
                           bool hasCleanupAfterKilled) {
  // Pending standard output is written once, by the daemon when it reopens
  // its streams; the parents leave with _exit so they flush nothing twice.
  std::fflush(nullptr);
  pid_t pid = fork();
  if (pid > 0) _exit(0);
  // A failed fork leaves the daemon running in this process rather than not at all.
  if (pid < 0) reportFailure(daemonName, "fork");
  setsid();
  pid = fork();
  if (pid > 0) _exit(0);
  if (pid < 0) reportFailure(daemonName, "fork");

  if (chdir("/tmp") != 0) reportFailure(daemonName, "chdir /tmp");
  umask(0);

  // freopen closes each stream and reopens it on the same descriptor.
  if (std::freopen("/dev/null", "r", stdin) == nullptr) reportFailure(daemonName, "/dev/null");
  if (std::freopen("/dev/null", "w", stdout) == nullptr) reportFailure(daemonName, "/dev/null");
  // Without a console, standard error goes to /dev/null: descriptor 2 must
  // never be left free for a later open() to take, or messages would be
  // written into that file.
  if (std::freopen("/dev/console", "w", stderr) == nullptr) std::freopen("/dev/null", "w", stderr);

  setupSignalHandler(daemonName, handleTermOrKill, getStatus, hasCleanupAfterKilled);
}

void Daemonizer::setupSignalHandler(std::string daemonName, void (*handleTermOrKill)(int),
                                    std::string (*getStatus)(), bool hasCleanupAfterKilled) {
  _handleTermOrKillSignal = handleTermOrKill;
  _getStatus = getStatus;
  _hasCleanupAfterKilled = hasCleanupAfterKilled;
  killed = 0;
  name = daemonName + ": ";

  // The first back-trace loads the unwinder, which allocates: do it now and
  // not for the first time inside the crash handler.
  void* warmUp[1];
  backtrace(warmUp, 1);

  installHandler(SIGINT);
  installHandler(SIGTERM);
  installHandler(SIGKILL);
  installHandler(SIGSEGV);

  std::snprintf(pidfile, sizeof pidfile, "/var/run/%s.pid", program_invocation_short_name);
  // Like fopen(pidfile, "w"), except that a FIFO or device put under the
  // name is neither blocked on nor written: only a regular file is
  // truncated and gets the pid.
  zev::detail::UniqueFd fd = zev::detail::openRegularFile(pidfile, O_WRONLY | O_CREAT, 0666);
  FILE* file = fd && ::ftruncate(fd.get(), 0) == 0 ? ::fdopen(fd.get(), "w") : nullptr;
  if (file != nullptr) {
    fd.release();  // the stream owns it now
    std::fprintf(file, "%d\n", static_cast<int>(getpid()));
    std::fclose(file);
  }

  if (getStatus != nullptr) installHandler(SIGUSR1);
}

void Daemonizer::signalHandler(int sig) {
  switch (sig) {
    case SIGINT:
    case SIGTERM:
    case SIGKILL: {
      if (_handleTermOrKillSignal != nullptr) _handleTermOrKillSignal(sig);
      killed = killed + 1;
      SignalMessage message;
      message.add(name.data(), name.size());
      message.add(" Received SIGNAL ");
      message.add(static_cast<unsigned long>(sig));
      message.add(", shutting down (PID:");
      message.add(static_cast<unsigned long>(getpid()));
      message.add(")\n");
      message.writeTo(STDERR_FILENO);
      if (!_hasCleanupAfterKilled) unlink(pidfile);
      break;
    }
    case SIGUSR1:
      printStatus();
      break;
    case SIGSEGV:
      installHandler(SIGABRT, endCrashedProcess);
      size = backtrace(sig_buffer, 1024);
      backtrace_symbols_fd(sig_buffer, size, STDOUT_FILENO);
      unlink(pidfile);
      // _exit, not exit: after a crash the process's state cannot be trusted
      // to run destructors and flush streams. The parent sees status 157.
      _exit(-99);
    default:
      break;
  }
}

void Daemonizer::printStatus() {
  // Deliberately empty: the status signal is accepted and ignored.
}

void Daemonizer::sleepUntilKilled() {
  while (killed == 0) usleep(250000);
}

void Daemonizer::setDone() {
  if (!_hasCleanupAfterKilled)
    std::cerr << name << " setDone usage: Call daemonize with hasCleanupAfterKilled=true" << std::endl;
  unlink(pidfile);
}
