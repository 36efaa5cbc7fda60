// Sequenced files of a fake machine (see machine.h): loaded from the
// "sequences" file and moved on to their next values.
#include <fcntl.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "machine.h"
#include "machine_internal.h"

namespace fs = std::filesystem;

namespace machine {
namespace internal {

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

bool path_within(const fs::path& path, const fs::path& root) {
  const std::string p = path.string();
  const std::string r = root.string();
  return p == r || (p.size() > r.size() && p.compare(0, r.size(), r) == 0 && p[r.size()] == '/');
}

}  // namespace

// The follower's watch on a file: one event, for the first time the file is
// closed after reading; the kernel then drops the watch by itself.
int watch_first_read(int notify, const char* path) {
  return inotify_add_watch(notify, path, IN_CLOSE_NOWRITE | IN_ONESHOT);
}

// Writes value `index` of a sequence in place, with system calls only. With
// an inotify descriptor (the follower's), the new file is watched before it
// takes the old one's place, so that no read of it goes unseen.
bool put_value(Sequence* sequence, size_t index, int notify) {
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

bool advance(Sequence* sequence, int notify) {
  sequence->current = (sequence->current + 1) % sequence->values.size();
  return put_value(sequence, sequence->current, notify);
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
    if (!put_value(&sequence, 0, -1))
      return fail(error, errno_text(where + "cannot write " + relative));
    g_state.sequences.push_back(sequence);
  }
  return true;
}

}  // namespace internal

using namespace internal;

bool step_sequences() {
  if (!g_state.inside || g_state.sequences.empty()) return false;
  bool ok = true;
  for (Sequence& sequence : g_state.sequences) ok = advance(&sequence) && ok;
  return ok;
}

}  // namespace machine
