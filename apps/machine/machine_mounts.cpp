// Mounts of a fake machine: the private namespace, the staged copy on a
// tmpfs, and /proc, /sys and /dev laid out from it.
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>

#include "machine_internal.h"

namespace fs = std::filesystem;

namespace machine {
namespace internal {

namespace {

// GPU tools the plug-in may run. Inside a machine that does not provide one,
// it is "not found", whatever the real system has installed.
const char* const kKnownTools[] = {"nvidia-smi", "nvidia-settings", "vcgencmd", "lspci",
                                   "aticonfig"};

// Device nodes every program needs, taken over from the real /dev.
const char* const kDevNodes[] = {"null", "zero", "full", "random", "urandom", "tty"};

bool write_file(const std::string& path, const std::string& text) {
  std::ofstream out(path);
  out << text;
  return static_cast<bool>(out);
}

bool bind(const std::string& source, const std::string& target, std::string* error,
          bool recursive = false) {
  unsigned long flags = MS_BIND | (recursive ? MS_REC : 0);
  if (mount(source.c_str(), target.c_str(), nullptr, flags, nullptr) != 0) {
    return fail(error, errno_text("bind " + source + " on " + target));
  }
  return true;
}

}  // namespace

ino_t namespace_inode() {
  struct stat st;
  if (stat("/proc/self/ns/mnt", &st) != 0) return 0;
  return st.st_ino;
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

}  // namespace internal
}  // namespace machine
