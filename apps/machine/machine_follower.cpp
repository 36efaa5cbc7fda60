// The read follower of a fake machine: a helper process that moves each
// sequenced file on after every burst of reads.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/inotify.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

#include "machine.h"
#include "machine_internal.h"

namespace machine {
namespace internal {

namespace {

// The follower: once kQuietMs pass without a sequenced file being read for
// the first time since it took its value, every file read since the last
// pause moves on to its next value. A monitor's refresh (or its first scan,
// which may read a file more than once) is one such burst of reads. Each
// file is watched itself, not its folder, and only until its first read, so
// the reader's other reads cost nothing and the follower wakes at most once
// per file and value. Runs in a forked child and makes system calls only.
constexpr int kQuietMs = 50;

[[noreturn]] void follow(int ready_fd) {
  const int null_fd = open("/dev/null", O_RDWR);
  for (int fd = 0; fd < 3; ++fd) {
    if (null_fd >= 0) dup2(null_fd, fd);
  }
  for (int fd = 3; fd < 1024; ++fd) {
    if (fd != ready_fd) close(fd);
  }
  const int notify = inotify_init1(IN_CLOEXEC);
  if (notify < 0) _exit(1);
  for (Sequence& sequence : g_state.sequences) {
    if (sequence.values[sequence.current].absent) continue;
    sequence.watch = watch_first_read(notify, sequence.path.c_str());
    if (sequence.watch < 0) _exit(1);
  }
  const char ready = 1;
  if (write(ready_fd, &ready, 1) != 1) _exit(1);
  close(ready_fd);

  alignas(struct inotify_event) char buffer[8192];
  bool burst = false;
  for (;;) {
    struct pollfd pending = {notify, POLLIN, 0};
    const int polled = poll(&pending, 1, burst ? kQuietMs : -1);
    if (polled < 0 && errno == EINTR) continue;
    if (polled < 0) _exit(0);
    if (polled == 0) {
      // The burst is over. A file that is absent for now cannot be read; it
      // comes back after a burst of reads of the others.
      for (Sequence& sequence : g_state.sequences) {
        if (sequence.read || sequence.values[sequence.current].absent) advance(&sequence, notify);
        sequence.read = false;
      }
      burst = false;
      continue;
    }
    const ssize_t n = read(notify, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) _exit(0);
    for (char* p = buffer; p < buffer + n;) {
      const auto* event = reinterpret_cast<const struct inotify_event*>(p);
      p += sizeof(struct inotify_event) + event->len;
      if ((event->mask & IN_CLOSE_NOWRITE) == 0) continue;  // the watch's end
      for (Sequence& sequence : g_state.sequences) {
        if (sequence.watch == event->wd) {
          sequence.read = true;
          burst = true;
        }
      }
    }
  }
}

}  // namespace

void stop_follower() {
  if (g_state.follower <= 0) return;
  kill(g_state.follower, SIGKILL);
  while (waitpid(g_state.follower, nullptr, 0) < 0 && errno == EINTR) {
  }
  g_state.follower = -1;
}

}  // namespace internal

using namespace internal;

bool follow_reads(std::string* error) {
  if (!g_state.inside) return fail(error, "not inside a machine");
  if (g_state.sequences.empty() || g_state.follower > 0) return true;
  int ready[2];
  if (pipe2(ready, O_CLOEXEC) != 0) return fail(error, errno_text("pipe"));
  const pid_t parent = getpid();
  const pid_t pid = fork();
  if (pid == 0) {
    // Ends with the process that started it, whatever way that one ends.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(0);
    close(ready[0]);
    follow(ready[1]);
  }
  close(ready[1]);
  if (pid < 0) {
    close(ready[0]);
    return fail(error, errno_text("fork"));
  }
  g_state.follower = pid;
  char answer = 0;
  ssize_t n;
  while ((n = read(ready[0], &answer, 1)) < 0 && errno == EINTR) {
  }
  close(ready[0]);
  if (n != 1) {
    stop_follower();
    return fail(error, "the helper that follows reads of sequenced files did not start");
  }
  return true;
}

}  // namespace machine
