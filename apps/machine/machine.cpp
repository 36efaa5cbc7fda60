// Entering and leaving a fake machine: the staged copy laid out in a
// private mount namespace, and the way back to the real view.
#include "machine.h"

#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "machine_folder.h"
#include "machine_internal.h"

namespace fs = std::filesystem;

namespace machine {
namespace internal {

State g_state;

std::string errno_text(const std::string& what) { return what + ": " + std::strerror(errno); }

bool fail(std::string* error, const std::string& text) {
  if (error) *error = text;
  return false;
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

}  // namespace internal

using namespace internal;

namespace {

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

}  // namespace machine
