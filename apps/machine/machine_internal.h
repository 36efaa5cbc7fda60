// Parts of the fake-machine harness that its files share; machine.h is the
// interface. Each concern has a file of its own: entering and leaving
// (machine.cpp), mounts (machine_mounts.cpp), the environment
// (machine_environment.cpp), sequenced files (machine_sequences.cpp), the
// read follower (machine_follower.cpp), running a program
// (machine_program.cpp).
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace machine {
namespace internal {

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

extern State g_state;

// "what: strerror(errno)".
std::string errno_text(const std::string& what);
// Sets *error (when given) and answers false.
bool fail(std::string* error, const std::string& text);

// Enters the machine at `dir`, staged in `staging` (machine.cpp).
bool enter_at(const std::string& dir, const std::string& staging, std::string* error);
// A fresh folder under /tmp for the staged machine; "" on failure.
std::string make_staging_dir(std::string* error);

// Mounts (machine_mounts.cpp).
ino_t namespace_inode();
bool enter_private_namespace(std::string* error);
bool mount_tmpfs(const std::string& target, std::string* error);
bool stage(const std::string& dir, const std::string& staged, std::string* error);
bool lay_out_proc(const std::string& staged, std::string* error);
bool lay_out_sys(const std::string& staged, std::string* error);
bool lay_out_dev(const std::string& staging, const std::string& staged, std::string* error);

// The environment of the programs run inside (machine_environment.cpp).
bool set_environment(const std::string& machine_name, const std::string& staged,
                     std::string* error);
void restore_environment();

// Sequenced files (machine_sequences.cpp).
bool load_sequences(const std::string& staging, const std::string& staged, std::string* error);
int watch_first_read(int notify, const char* path);
bool put_value(Sequence* sequence, size_t index, int notify = -1);
bool advance(Sequence* sequence, int notify = -1);

// The read follower (machine_follower.cpp).
void stop_follower();

}  // namespace internal
}  // namespace machine
