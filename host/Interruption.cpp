// A thread that waits for signals, which every other thread blocks.
#include "host/Interruption.h"

#include <system_error>
#include <utility>

namespace quorvel::host {

namespace {

constexpr int kSignals[] = {SIGINT, SIGTERM, SIGHUP};

// As nohup and a shell's background jobs leave it.
bool IsIgnored(int signal) {
  struct sigaction action {};
  return ::sigaction(signal, nullptr, &action) == 0 && action.sa_handler == SIG_IGN;
}

}  // namespace

Interruption::Interruption(std::function<void(int signal)> end) : end_(std::move(end)) {
  ::sigemptyset(&signals_);
  for (const int signal : kSignals) {
    if (!IsIgnored(signal)) ::sigaddset(&signals_, signal);
  }
  // What wakes the watcher at the end, ignored or not.
  ::sigaddset(&signals_, SIGUSR1);
  ::pthread_sigmask(SIG_BLOCK, &signals_, &before_);
  try {
    watcher_ = std::thread([this] { watch(); });
  } catch (const std::system_error&) {
    // No thread to be had: the signals end the process, which a migration survives as well.
    ::pthread_sigmask(SIG_SETMASK, &before_, nullptr);
  }
}

Interruption::~Interruption() {
  if (!watcher_.joinable()) return;
  over_ = true;
  ::pthread_kill(watcher_.native_handle(), SIGUSR1);
  watcher_.join();
  ::pthread_sigmask(SIG_SETMASK, &before_, nullptr);
}

void Interruption::watch() {
  int signal = 0;
  while (::sigwait(&signals_, &signal) != 0 || signal == SIGUSR1) {
    if (over_) return;
  }
  // The signals stay blocked: timeout(1) sends its signal twice, and a terminal's closing two.
  end_(signal);
}

}  // namespace quorvel::host
