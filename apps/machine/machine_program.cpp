// Running a program inside a fake machine, in a child process, with its
// output captured or inherited.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

#include "machine.h"
#include "machine_internal.h"

namespace machine {

using namespace internal;

namespace {

volatile pid_t g_child = 0;

// Interrupts meant for the machine's program reach it even when they are
// sent to this process alone; the terminal's Ctrl-C reaches both.
void forward_signal(int signal) {
  if (g_child > 0) kill(g_child, signal);
}

void drain(int fd, std::string* sink, bool* open) {
  char buffer[4096];
  ssize_t n = read(fd, buffer, sizeof buffer);
  if (n > 0) {
    sink->append(buffer, static_cast<size_t>(n));
  } else if (n == 0 || (errno != EINTR && errno != EAGAIN)) {
    *open = false;
  }
}

}  // namespace

RunResult run(const std::string& dir, const std::vector<std::string>& argv, bool capture) {
  RunResult result;
  if (argv.empty()) {
    result.error = "nothing to run";
    return result;
  }
  const std::string staging = make_staging_dir(&result.error);
  if (staging.empty()) return result;

  int out_pipe[2] = {-1, -1}, err_pipe[2] = {-1, -1}, status_pipe[2] = {-1, -1};
  if ((capture && (pipe(out_pipe) != 0 || pipe(err_pipe) != 0)) ||
      pipe2(status_pipe, O_CLOEXEC) != 0) {
    result.error = errno_text("pipe");
    rmdir(staging.c_str());
    return result;
  }

  const pid_t parent = getpid();
  const pid_t pid = fork();
  if (pid == 0) {
    // The program ends with this process, however that one ends (a SIGHUP,
    // a SIGKILL): SIGTERM lets it stop cleanly. A parent already gone
    // before the signal was asked for is caught by its pid.
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (getppid() != parent) _exit(125);
    if (capture) {
      dup2(out_pipe[1], 1);
      dup2(err_pipe[1], 2);
      close(out_pipe[0]);
      close(err_pipe[0]);
    }
    close(status_pipe[0]);
    std::string error;
    if (!enter_at(dir, staging, &error) || !follow_reads(&error)) {
      ssize_t ignored = write(status_pipe[1], error.data(), error.size());
      (void)ignored;
      _exit(125);
    }
    std::vector<char*> args;
    for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    execvp(args[0], args.data());
    error = errno_text("cannot run " + argv[0]);
    ssize_t ignored = write(status_pipe[1], error.data(), error.size());
    (void)ignored;
    _exit(126);
  }
  close(status_pipe[1]);
  if (capture) {
    close(out_pipe[1]);
    close(err_pipe[1]);
  }
  if (pid < 0) {
    result.error = errno_text("fork");
    close(status_pipe[0]);
    rmdir(staging.c_str());
    return result;
  }

  // The child answers Ctrl-C itself; the parent passes interrupts on and
  // waits for it to finish.
  struct sigaction forward {
  }, old_int{}, old_term{};
  forward.sa_handler = forward_signal;
  g_child = pid;
  if (!capture) {
    sigaction(SIGINT, &forward, &old_int);
    sigaction(SIGTERM, &forward, &old_term);
  }

  if (capture) {
    bool out_open = true, err_open = true;
    while (out_open || err_open) {
      // A stream at its end is left out: its hang-up would wake poll at once.
      struct pollfd fds[2] = {{out_open ? out_pipe[0] : -1, POLLIN, 0},
                              {err_open ? err_pipe[0] : -1, POLLIN, 0}};
      if (poll(fds, 2, -1) < 0 && errno != EINTR) break;
      if (out_open && (fds[0].revents & (POLLIN | POLLHUP)))
        drain(out_pipe[0], &result.out, &out_open);
      if (err_open && (fds[1].revents & (POLLIN | POLLHUP)))
        drain(err_pipe[0], &result.err, &err_open);
    }
    close(out_pipe[0]);
    close(err_pipe[0]);
  }
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  if (!capture) {
    sigaction(SIGINT, &old_int, nullptr);
    sigaction(SIGTERM, &old_term, nullptr);
  }
  g_child = 0;

  char message[1024];
  ssize_t n = read(status_pipe[0], message, sizeof message);
  if (n > 0) result.error.assign(message, static_cast<size_t>(n));
  close(status_pipe[0]);
  rmdir(staging.c_str());

  result.exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return result;
}

}  // namespace machine
