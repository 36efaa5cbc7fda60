// gpumon --serve under test: the server started on a machine, raw HTTP over
// loopback, and what the server process holds (memory, descriptors).
#pragma once

#include <signal.h>
#include <sys/types.h>

#include <map>
#include <string>
#include <vector>

namespace serve_client {

// gpumon --serve 127.0.0.1:0 on a machine; port() is the one it reports.
class Served {
 public:
  explicit Served(const std::string& machine, std::vector<std::string> args = {});
  ~Served();
  Served(const Served&) = delete;
  Served& operator=(const Served&) = delete;
  int port() const { return port_; }
  const std::string& stderr_text() const { return stderr_; }
  // The process that serves: gpumon's child inside the machine.
  pid_t server_pid() const;
  // SIGTERM (or another signal) to gpumon; the exit code.
  int finish(int signal = SIGTERM);
  // SIGTERM; the exit code, and in *seconds how long it took to exit.
  int finish_timed(double* seconds);

 private:
  pid_t pid_ = -1;
  int err_ = -1;
  int port_ = 0;
  std::string stderr_;  // up to the "serving" line
};

// A blocking TCP connection to 127.0.0.1:port, made from the loopback
// address `from` (another one of 127.0.0.0/8 counts as another client);
// -1 when it cannot be made.
int connect_loopback(int port, const std::string& from = "127.0.0.1");
// A loopback port free at the time of asking.
int free_port();
// Sends it all (a peer that hung up is no signal); false when it could not.
bool send_text(int fd, const std::string& bytes);

struct Reply {
  int status = 0;
  std::map<std::string, std::string> headers;  // names in lower case
  std::string body;
};
// Reads one reply (its body by Content-Length, or up to the end of the
// stream), waiting at most timeout_ms in all; `pending` holds what was read
// past it, for the next. False when none came whole.
bool read_reply(int fd, Reply* reply, int timeout_ms, std::string* pending, bool head = false);
// One request on a fresh connection, and its reply (status 0 when none).
Reply round_trip(int port, const std::string& request, int timeout_ms = 5000);
// "GET PATH HTTP/1.1" with a Host header and the given other header lines.
std::string get_request(const std::string& path, const std::string& headers = "");

// Resident memory (kB) and open descriptors of a process.
long resident_kb(pid_t pid);
int open_fds(pid_t pid);

}  // namespace serve_client
