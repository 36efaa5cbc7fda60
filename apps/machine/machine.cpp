#include "machine.h"
#include "machine_folder.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/inotify.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>

namespace fs = std::filesystem;

namespace machine {

namespace {

// A sequence value with "\t", "\n" and "\s" standing for a tab, a line end
// and a blank, so that one value can be a whole table (the V3D statistics
// file) or a sentence.
std::string unescape(const std::string& word) {
  std::string text;
  for (size_t i = 0; i < word.size(); ++i) {
    const char next = i + 1 < word.size() ? word[i + 1] : '\0';
    if (word[i] == '\\' && (next == 't' || next == 'n' || next == 's')) {
      text += next == 't' ? '\t' : (next == 'n' ? '\n' : ' ');
      ++i;
    } else {
      text += word[i];
    }
  }
  return text;
}

// GPU tools the plug-in may run. Inside a machine that does not provide one,
// it is "not found", whatever the real system has installed.
const char* const kKnownTools[] = {"nvidia-smi", "nvidia-settings", "vcgencmd", "lspci",
                                   "aticonfig"};

// Device nodes every program needs, taken over from the real /dev.
const char* const kDevNodes[] = {"null", "zero", "full", "random", "urandom", "tty"};

// One sequenced file (see machine.h). Everything the follower needs is
// prepared before it is forked, so that it only makes system calls.
struct Sequence {
  struct Value {
    bool absent = false;
    std::string text;  // the file's whole content
  };
  std::string path;  // the file in the staged copy, no symlink on the way
  std::string temp;  // scratch file on the same tmpfs, for atomic updates
  std::vector<Value> values;
  size_t current = 0;  // index of the value in place
  int watch = -1;      // the follower's one-shot watch on the file in place
  bool read = false;   // read since the follower last moved values on
};

struct State {
  bool inside = false;
  int original_ns = -1;  // the real mount namespace, to go back to
  std::string staging;   // tmpfs mount point (a fresh directory under /tmp)
  // Variables set for the machine, with the values they had before (none:
  // unset), restored in reverse order when leaving.
  std::vector<std::pair<std::string, std::optional<std::string>>> saved_env;
  std::vector<Sequence> sequences;
  pid_t follower = -1;  // the process that follows reads, if any
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

void set_variable(const std::string& name, const std::string& value) {
  const char* before = std::getenv(name.c_str());
  g_state.saved_env.emplace_back(name, before ? std::optional<std::string>(before) : std::nullopt);
  setenv(name.c_str(), value.c_str(), 1);
}

void restore_environment() {
  for (auto it = g_state.saved_env.rbegin(); it != g_state.saved_env.rend(); ++it) {
    if (it->second) {
      setenv(it->first.c_str(), it->second->c_str(), 1);
    } else {
      unsetenv(it->first.c_str());
    }
  }
  g_state.saved_env.clear();
}

// machine.env: one NAME=value a line ('#' starts a comment); $MACHINE in a
// value stands for the machine's private copy, e.g.
//   LD_PRELOAD=$MACHINE/lib/libfake_nvidia_driver.so
bool load_machine_env(const std::string& staged, std::string* error) {
  std::ifstream in(staged + "/machine.env");
  if (!in) return true;
  std::string line;
  for (int number = 1; std::getline(in, line); ++number) {
    if (line.empty() || line[0] == '#') continue;
    const size_t equals = line.find('=');
    if (equals == 0 || equals == std::string::npos) {
      return fail(error, "machine.env line " + std::to_string(number) + " is no NAME=value");
    }
    std::string value = line.substr(equals + 1);
    for (size_t at; (at = value.find("$MACHINE")) != std::string::npos;)
      value.replace(at, 8, staged);
    set_variable(line.substr(0, equals), value);
  }
  return true;
}

bool set_environment(const std::string& machine_name, const std::string& staged,
                     std::string* error) {
  const char* path = std::getenv("PATH");
  set_variable(
      "PATH",
      staged + "/bin:" + (path ? std::string(path) : std::string("/usr/local/bin:/usr/bin:/bin")));
  const char* ld = std::getenv("LD_LIBRARY_PATH");
  set_variable("LD_LIBRARY_PATH", staged + "/lib" + ((ld && *ld) ? ":" + std::string(ld) : ""));
  set_variable("ZEV_MACHINE", machine_name);
  return load_machine_env(staged, error);
}

// The follower's watch on a file: one event, for the first time the file is
// closed after reading; the kernel then drops the watch by itself.
int watch_first_read(int notify, const char* path) {
  return inotify_add_watch(notify, path, IN_CLOSE_NOWRITE | IN_ONESHOT);
}

// Writes value `index` of a sequence in place, with system calls only. With
// an inotify descriptor (the follower's), the new file is watched before it
// takes the old one's place, so that no read of it goes unseen.
bool put_value(Sequence* sequence, size_t index, int notify = -1) {
  const Sequence::Value& value = sequence->values[index];
  sequence->watch = -1;
  if (value.absent) return unlink(sequence->path.c_str()) == 0 || errno == ENOENT;
  const int fd = open(sequence->temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) return false;
  size_t done = 0;
  while (done < value.text.size()) {
    const ssize_t n = write(fd, value.text.data() + done, value.text.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      close(fd);
      return false;
    }
    done += static_cast<size_t>(n);
  }
  close(fd);
  if (notify >= 0) sequence->watch = watch_first_read(notify, sequence->temp.c_str());
  return rename(sequence->temp.c_str(), sequence->path.c_str()) == 0;
}

bool advance(Sequence* sequence, int notify = -1) {
  sequence->current = (sequence->current + 1) % sequence->values.size();
  return put_value(sequence, sequence->current, notify);
}

bool path_within(const fs::path& path, const fs::path& root) {
  const std::string p = path.string();
  const std::string r = root.string();
  return p == r || (p.size() > r.size() && p.compare(0, r.size(), r) == 0 && p[r.size()] == '/');
}

// Reads the machine's "sequences" file, checks that every path stays inside
// the staged sys/ tree (symlinks resolved), and writes each first value.
bool load_sequences(const std::string& staging, const std::string& staged, std::string* error) {
  std::ifstream in(staged + "/sequences");
  if (!in) return true;
  std::error_code ec;
  const fs::path sys_root = fs::canonical(fs::path(staged) / "sys", ec);
  if (ec) return fail(error, "sequences: the machine has no sys/ folder");

  std::string line;
  int line_number = 0;
  while (std::getline(in, line)) {
    ++line_number;
    std::istringstream words(line);
    std::string relative;
    if (!(words >> relative) || relative[0] == '#') continue;
    const std::string where = "sequences line " + std::to_string(line_number) + ": ";

    const fs::path rel(relative);
    bool escapes = rel.is_absolute() || rel.begin() == rel.end() || *rel.begin() != "sys";
    for (const fs::path& part : rel) escapes = escapes || part == "..";
    if (escapes || !rel.has_filename()) {
      return fail(error, where + relative + " is not a file under sys/");
    }
    const fs::path dir = fs::canonical(fs::path(staged) / rel.parent_path(), ec);
    if (ec || !path_within(dir, sys_root)) {
      return fail(error, where + "the folder of " + relative + " is not inside the machine's sys/");
    }
    const fs::path target = dir / rel.filename();
    if (fs::is_symlink(fs::symlink_status(target, ec))) {
      return fail(error, where + relative + " is a symlink; name the file it points to");
    }

    Sequence sequence;
    sequence.path = target.string();
    sequence.temp = staging + "/sequence-" + std::to_string(g_state.sequences.size()) + ".tmp";
    std::string word;
    while (words >> word) {
      Sequence::Value value;
      if (word == "<absent>") {
        value.absent = true;
      } else if (word != "<empty>") {
        value.text = unescape(word) + "\n";
      }
      sequence.values.push_back(value);
    }
    if (sequence.values.empty()) return fail(error, where + relative + " has no values");
    if (!put_value(&sequence, 0))
      return fail(error, errno_text(where + "cannot write " + relative));
    g_state.sequences.push_back(sequence);
  }
  return true;
}

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

void stop_follower() {
  if (g_state.follower <= 0) return;
  kill(g_state.follower, SIGKILL);
  while (waitpid(g_state.follower, nullptr, 0) < 0 && errno == EINTR) {
  }
  g_state.follower = -1;
}

bool enter_at(const std::string& dir, const std::string& staging, std::string* error) {
  if (!check_machine_folder(dir, error)) return false;
  std::error_code ec;
  const fs::path machine_dir = fs::canonical(dir, ec);
  if (ec) return fail(error, "no machine folder at " + dir);
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
            load_sequences(staging, staged, error) && lay_out_proc(staged, error) &&
            lay_out_sys(staged, error) && lay_out_dev(staging, staged, error);
  if (!ok) {
    leave();
    return false;
  }
  if (!set_environment(machine_dir.filename().string(), staged, error)) {
    leave();
    return false;
  }
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

void* no_work(void*) { return nullptr; }

// leave() can only return to the real mount namespace while no other live
// thread shares the caller's file-system context. Sanitizer runtimes start a
// helper thread together with the process's first thread and keep it; one
// started inside a machine would pin the process there. Starting (and
// joining) a thread before the first machine lets that helper begin with the
// real view, which the unshare then leaves behind.
void settle_runtime_threads() {
  static bool settled = false;
  if (settled) return;
  pthread_t thread;
  if (pthread_create(&thread, nullptr, no_work, nullptr) == 0) pthread_join(thread, nullptr);
  settled = true;
}

}  // namespace

bool enter(const std::string& dir, std::string* error) {
  settle_runtime_threads();
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
  stop_follower();
  if (setns(g_state.original_ns, CLONE_NEWNS) != 0) {
    // Staying in the fake machine would make every later result wrong.
    std::fprintf(stderr, "machine: cannot return to the real mount namespace: %s\n",
                 std::strerror(errno));
    std::abort();
  }
  close(g_state.original_ns);
  g_state.original_ns = -1;
  restore_environment();
  rmdir(g_state.staging.c_str());
  g_state = State();
}

std::string staged_root() { return g_state.inside ? g_state.staging + "/machine" : ""; }

bool step_sequences() {
  if (!g_state.inside || g_state.sequences.empty()) return false;
  bool ok = true;
  for (Sequence& sequence : g_state.sequences) ok = advance(&sequence) && ok;
  return ok;
}

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
