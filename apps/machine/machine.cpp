#include "machine.h"

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>

namespace fs = std::filesystem;

namespace machine {

namespace {

// GPU tools the plug-in may run. Inside a machine that does not provide one,
// it is "not found", whatever the real system has installed.
const char* const kKnownTools[] = {"nvidia-smi", "nvidia-settings", "vcgencmd", "lspci",
                                   "aticonfig"};

// Device nodes every program needs, taken over from the real /dev.
const char* const kDevNodes[] = {"null", "zero", "full", "random", "urandom", "tty"};

struct State {
  bool inside = false;
  int original_ns = -1;  // the real mount namespace, to go back to
  std::string staging;   // tmpfs mount point (a fresh directory under /tmp)
  std::string saved_path;
  std::string saved_ld_path;
  bool had_ld_path = false;
};

State g_state;

std::string errno_text(const std::string& what) { return what + ": " + std::strerror(errno); }

bool fail(std::string* error, const std::string& text) {
  if (error) *error = text;
  return false;
}

ino_t namespace_inode() {
  struct stat st;
  if (stat("/proc/self/ns/mnt", &st) != 0) return 0;
  return st.st_ino;
}

bool write_file(const std::string& path, const std::string& text) {
  std::ofstream out(path);
  out << text;
  return static_cast<bool>(out);
}

// A private mount namespace whose mounts never propagate back. As root that
// is a plain unshare; otherwise an unprivileged user namespace is tried.
bool enter_private_namespace(std::string* error) {
  const ino_t before = namespace_inode();
  if (before == 0) return fail(error, "cannot read /proc/self/ns/mnt");
  if (unshare(CLONE_NEWNS) != 0) {
    if (errno != EPERM) return fail(error, errno_text("unshare(CLONE_NEWNS)"));
    const uid_t uid = geteuid();
    const gid_t gid = getegid();
    if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) {
      return fail(error, errno_text("fake machines need root or unprivileged user namespaces; "
                                    "unshare"));
    }
    // The maps of the calling process in the new user namespace.
    if (!write_file("/proc/self/setgroups", "deny") ||
        !write_file("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1") ||
        !write_file("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1")) {
      return fail(error, "cannot map the user into its namespace");
    }
  }
  if (namespace_inode() == before) {
    return fail(error, "refusing to lay out a machine: still in the real mount namespace");
  }
  // Cut propagation before the first mount, so that nothing reaches the
  // real namespace.
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
    return fail(error, errno_text("refusing to lay out a machine: cannot make mounts private"));
  }
  return true;
}

bool bind(const std::string& source, const std::string& target, std::string* error,
          bool recursive = false) {
  unsigned long flags = MS_BIND | (recursive ? MS_REC : 0);
  if (mount(source.c_str(), target.c_str(), nullptr, flags, nullptr) != 0) {
    return fail(error, errno_text("bind " + source + " on " + target));
  }
  return true;
}

bool mount_tmpfs(const std::string& target, std::string* error) {
  if (mount("tmpfs", target.c_str(), "tmpfs", MS_NOSUID, "mode=0755") != 0) {
    return fail(error, errno_text("tmpfs on " + target));
  }
  return true;
}

// Copies the machine into the private tmpfs, so that its files can be
// changed while it runs without touching the folder it came from.
bool stage(const std::string& dir, const std::string& staged, std::string* error) {
  std::error_code ec;
  fs::copy(dir, staged, fs::copy_options::recursive | fs::copy_options::copy_symlinks, ec);
  if (ec) return fail(error, "cannot copy " + dir + ": " + ec.message());
  fs::create_directories(staged + "/bin", ec);
  for (const char* tool : kKnownTools) {
    const std::string path = staged + "/bin/" + tool;
    if (fs::exists(fs::symlink_status(path))) continue;
    if (!write_file(path, std::string("#!/bin/sh\necho \"sh: 1: ") + tool +
                              ": not found\" >&2\nexit 127\n")) {
      return fail(error, "cannot write " + path);
    }
    chmod(path.c_str(), 0755);
  }
  return true;
}

bool lay_out_proc(const std::string& staged, std::string* error) {
  const fs::path root = fs::path(staged) / "proc";
  std::error_code ec;
  if (!fs::is_directory(root, ec)) return true;
  for (auto it = fs::recursive_directory_iterator(root, ec); !ec && it != fs::end(it);
       it.increment(ec)) {
    if (!it->is_regular_file()) continue;
    const std::string target = "/proc/" + fs::relative(it->path(), root).string();
    // procfs cannot gain files: a machine may only replace existing ones.
    if (access(target.c_str(), F_OK) != 0) {
      return fail(error, "machine file proc/" + fs::relative(it->path(), root).string() +
                             " has no counterpart in /proc");
    }
    if (!bind(it->path().string(), target, error)) return false;
  }
  if (ec) return fail(error, "cannot list " + root.string() + ": " + ec.message());
  return true;
}

bool lay_out_sys(const std::string& staged, std::string* error) {
  const std::string sys = staged + "/sys";
  if (fs::is_directory(sys)) return bind(sys, "/sys", error, true);
  return mount_tmpfs("/sys", error);
}

bool lay_out_dev(const std::string& staging, const std::string& staged, std::string* error) {
  const std::string real_dev = staging + "/realdev";
  std::error_code ec;
  fs::create_directory(real_dev, ec);
  if (!bind("/dev", real_dev, error, true)) return false;
  if (!mount_tmpfs("/dev", error)) return false;
  for (const char* node : kDevNodes) {
    const std::string target = std::string("/dev/") + node;
    if (!write_file(target, "")) return fail(error, "cannot create " + target);
    if (access((real_dev + "/" + node).c_str(), F_OK) != 0) continue;
    if (!bind(real_dev + "/" + node, target, error)) return false;
  }
  for (const char* sub : {"pts", "shm"}) {
    const std::string target = std::string("/dev/") + sub;
    fs::create_directory(target, ec);
    if (fs::is_directory(real_dev + "/" + sub) && !bind(real_dev + "/" + sub, target, error, true))
      return false;
  }
  fs::create_symlink("/proc/self/fd", "/dev/fd", ec);
  fs::create_symlink("/proc/self/fd/0", "/dev/stdin", ec);
  fs::create_symlink("/proc/self/fd/1", "/dev/stdout", ec);
  fs::create_symlink("/proc/self/fd/2", "/dev/stderr", ec);
  fs::create_symlink("pts/ptmx", "/dev/ptmx", ec);
  umount2(real_dev.c_str(), MNT_DETACH);

  const std::string dev = staged + "/dev";
  if (fs::is_directory(dev)) {
    fs::copy(dev, "/dev",
             fs::copy_options::recursive | fs::copy_options::copy_symlinks |
                 fs::copy_options::overwrite_existing,
             ec);
    if (ec) return fail(error, "cannot add the machine's /dev files: " + ec.message());
  }
  return true;
}

void set_environment(const std::string& staged) {
  const char* path = std::getenv("PATH");
  g_state.saved_path = path ? path : "";
  const char* ld = std::getenv("LD_LIBRARY_PATH");
  g_state.had_ld_path = ld != nullptr;
  g_state.saved_ld_path = ld ? ld : "";

  std::string new_path = staged + "/bin";
  new_path += ":" + (path ? std::string(path) : std::string("/usr/local/bin:/usr/bin:/bin"));
  setenv("PATH", new_path.c_str(), 1);
  std::string new_ld = staged + "/lib";
  if (ld && *ld) new_ld += ":" + std::string(ld);
  setenv("LD_LIBRARY_PATH", new_ld.c_str(), 1);
}

bool enter_at(const std::string& dir, const std::string& staging, std::string* error) {
  std::error_code ec;
  const fs::path machine_dir = fs::canonical(dir, ec);
  if (ec || !fs::is_directory(machine_dir)) return fail(error, "no machine folder at " + dir);
  if (g_state.inside) return fail(error, "already inside a machine");

  g_state.original_ns = open("/proc/self/ns/mnt", O_RDONLY | O_CLOEXEC);
  if (g_state.original_ns < 0) return fail(error, errno_text("open /proc/self/ns/mnt"));
  if (!enter_private_namespace(error)) {
    // Back to the real namespace in case the unshare itself went through.
    if (setns(g_state.original_ns, CLONE_NEWNS) != 0 && namespace_inode() != 0) {
      std::fprintf(stderr, "machine: cannot return to the real mount namespace\n");
    }
    close(g_state.original_ns);
    g_state.original_ns = -1;
    return false;
  }
  g_state.inside = true;
  g_state.staging = staging;

  const std::string staged = staging + "/machine";
  bool ok = mount_tmpfs(staging, error) && stage(machine_dir.string(), staged, error) &&
            lay_out_proc(staged, error) && lay_out_sys(staged, error) &&
            lay_out_dev(staging, staged, error);
  if (!ok) {
    leave();
    return false;
  }
  set_environment(staged);
  setenv("ZEV_MACHINE", machine_dir.filename().c_str(), 1);
  return true;
}

std::string make_staging_dir(std::string* error) {
  char pattern[] = "/tmp/zev-machine-XXXXXX";
  if (mkdtemp(pattern) == nullptr) {
    fail(error, errno_text("mkdtemp"));
    return "";
  }
  return pattern;
}

}  // namespace

bool enter(const std::string& dir, std::string* error) {
  const std::string staging = make_staging_dir(error);
  if (staging.empty()) return false;
  if (!enter_at(dir, staging, error)) {
    rmdir(staging.c_str());
    return false;
  }
  return true;
}

void leave() {
  if (!g_state.inside) return;
  if (setns(g_state.original_ns, CLONE_NEWNS) != 0) {
    // Staying in the fake machine would make every later result wrong.
    std::fprintf(stderr, "machine: cannot return to the real mount namespace: %s\n",
                 std::strerror(errno));
    std::abort();
  }
  close(g_state.original_ns);
  g_state.original_ns = -1;
  if (!g_state.saved_path.empty()) setenv("PATH", g_state.saved_path.c_str(), 1);
  if (g_state.had_ld_path) {
    setenv("LD_LIBRARY_PATH", g_state.saved_ld_path.c_str(), 1);
  } else {
    unsetenv("LD_LIBRARY_PATH");
  }
  unsetenv("ZEV_MACHINE");
  rmdir(g_state.staging.c_str());
  g_state = State();
}

std::string staged_root() { return g_state.inside ? g_state.staging + "/machine" : ""; }

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

  const pid_t pid = fork();
  if (pid == 0) {
    if (capture) {
      dup2(out_pipe[1], 1);
      dup2(err_pipe[1], 2);
      close(out_pipe[0]);
      close(err_pipe[0]);
    }
    close(status_pipe[0]);
    std::string error;
    if (!enter_at(dir, staging, &error)) {
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
  struct sigaction forward {}, old_int {}, old_term {};
  forward.sa_handler = forward_signal;
  g_child = pid;
  if (!capture) {
    sigaction(SIGINT, &forward, &old_int);
    sigaction(SIGTERM, &forward, &old_term);
  }

  if (capture) {
    bool out_open = true, err_open = true;
    while (out_open || err_open) {
      struct pollfd fds[2] = {{out_pipe[0], POLLIN, 0}, {err_pipe[0], POLLIN, 0}};
      if (poll(fds, 2, -1) < 0 && errno != EINTR) break;
      if (out_open && (fds[0].revents & (POLLIN | POLLHUP))) drain(out_pipe[0], &result.out, &out_open);
      if (err_open && (fds[1].revents & (POLLIN | POLLHUP))) drain(err_pipe[0], &result.err, &err_open);
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
