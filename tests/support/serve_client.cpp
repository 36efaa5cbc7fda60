#include "serve_client.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cctype>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <utility>

#include "test_support.h"

namespace serve_client {

using testing_support::spawn;
using testing_support::stop;

Served::Served(const std::string& machine, std::vector<std::string> args) {
  int err[2];
  if (pipe(err) != 0) return;
  args.insert(args.begin(),
              {testing_support::gpumon_path(), "--serve", "127.0.0.1:0", "--machine", machine});
  const int null = open("/dev/null", O_WRONLY);
  pid_ = spawn(args, null, err[1]);
  close(null);
  close(err[1]);
  err_ = err[0];
  const std::string mark = "gpumon: serving http://127.0.0.1:";
  char buffer[256];
  struct pollfd wait_for = {err_, POLLIN, 0};
  while (stderr_.find("/metrics\n") == std::string::npos && poll(&wait_for, 1, 30000) == 1) {
    const ssize_t n = read(err_, buffer, sizeof buffer);
    if (n <= 0) break;
    stderr_.append(buffer, static_cast<size_t>(n));
  }
  if (stderr_.find(mark) != std::string::npos)
    port_ = std::atoi(stderr_.c_str() + stderr_.find(mark) + mark.size());
}

Served::~Served() {
  if (pid_ > 0) stop(pid_);
  if (err_ >= 0) close(err_);
}

pid_t Served::server_pid() const {
  std::ifstream children("/proc/" + std::to_string(pid_) + "/task/" + std::to_string(pid_) +
                         "/children");
  pid_t child = -1;
  children >> child;
  return child;
}

int Served::finish(int signal) { return stop(std::exchange(pid_, -1), signal); }

int Served::finish_timed(double* seconds) {
  const auto start = std::chrono::steady_clock::now();
  const int code = finish();
  *seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  return code;
}

int connect_loopback(int port, const std::string& from) {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in local{};
  local.sin_family = AF_INET;
  inet_pton(AF_INET, from.c_str(), &local.sin_addr);
  sockaddr_in server{};
  server.sin_family = AF_INET;
  server.sin_port = htons(static_cast<uint16_t>(port));
  server.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  // A server that neither reads nor hangs up cannot stall a test for long.
  const timeval patience = {5, 0};
  if (fd >= 0) setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
  if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&local), sizeof local) != 0 ||
      connect(fd, reinterpret_cast<sockaddr*>(&server), sizeof server) != 0) {
    if (fd >= 0) close(fd);
    return -1;
  }
  return fd;
}

int free_port() {
  const int s = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  bind(s, reinterpret_cast<sockaddr*>(&address), sizeof address);
  getsockname(s, reinterpret_cast<sockaddr*>(&address), &length);
  close(s);
  return ntohs(address.sin_port);
}

bool send_text(int fd, const std::string& bytes) {
  for (size_t sent = 0; sent < bytes.size();) {
    const ssize_t n = send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    if (n <= 0) return false;
    sent += static_cast<size_t>(n);
  }
  return true;
}

namespace {

// Reads more into *buffer until the deadline; false at the end of the
// stream, on an error or at the deadline.
bool read_more(int fd, std::string* buffer, std::chrono::steady_clock::time_point deadline) {
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
      deadline - std::chrono::steady_clock::now());
  struct pollfd wait_for = {fd, POLLIN, 0};
  if (left.count() <= 0 || poll(&wait_for, 1, static_cast<int>(left.count())) != 1) return false;
  char chunk[16384];
  const ssize_t n = recv(fd, chunk, sizeof chunk, 0);
  if (n <= 0) return false;
  buffer->append(chunk, static_cast<size_t>(n));
  return true;
}

// A body sent in chunks: each a hexadecimal size line and that many bytes,
// up to one of size 0 and the empty line after it.
bool read_chunks(int fd, Reply* reply, std::string* in,
                 std::chrono::steady_clock::time_point deadline) {
  reply->body.clear();
  for (;;) {
    size_t line;
    while ((line = in->find("\r\n")) == std::string::npos)
      if (!read_more(fd, in, deadline)) return false;
    const size_t size = std::strtoul(in->c_str(), nullptr, 16);
    while (in->size() < line + 2 + size + 2)
      if (!read_more(fd, in, deadline)) return false;
    reply->body.append(*in, line + 2, size);
    in->erase(0, line + 2 + size + 2);
    if (size == 0) return true;
  }
}

}  // namespace

bool read_reply(int fd, Reply* reply, int timeout_ms, std::string* pending, bool head) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  std::string& in = *pending;
  size_t end;
  while ((end = in.find("\r\n\r\n")) == std::string::npos)
    if (!read_more(fd, &in, deadline)) return false;
  std::istringstream lines(in.substr(0, end));
  std::string line, version;
  std::getline(lines, line);
  std::istringstream(line) >> version >> reply->status;
  reply->headers.clear();
  while (std::getline(lines, line)) {
    const size_t colon = line.find(':');
    if (colon == std::string::npos) continue;
    std::string name = line.substr(0, colon);
    for (char& c : name) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    std::string value = line.substr(colon + 1);
    value.erase(0, value.find_first_not_of(' '));
    if (!value.empty() && value.back() == '\r') value.pop_back();
    reply->headers[name] = value;
  }
  in.erase(0, end + 4);
  const auto length = reply->headers.find("content-length");
  const auto coding = reply->headers.find("transfer-encoding");
  if (!head && coding != reply->headers.end() && coding->second == "chunked")
    return read_chunks(fd, reply, &in, deadline);
  if (length == reply->headers.end()) {
    while (read_more(fd, &in, deadline)) {
    }
    reply->body = std::exchange(in, "");
    return true;
  }
  const size_t size = head ? 0 : std::strtoul(length->second.c_str(), nullptr, 10);
  while (in.size() < size)
    if (!read_more(fd, &in, deadline)) return false;
  reply->body = in.substr(0, size);
  in.erase(0, size);
  return true;
}

Reply round_trip(int port, const std::string& request, int timeout_ms) {
  Reply reply;
  const int fd = connect_loopback(port);
  std::string pending;
  if (fd < 0 || !send_text(fd, request) ||
      !read_reply(fd, &reply, timeout_ms, &pending, request.rfind("HEAD ", 0) == 0))
    reply.status = 0;
  if (fd >= 0) close(fd);
  return reply;
}

std::string get_request(const std::string& path, const std::string& headers) {
  return "GET " + path + " HTTP/1.1\r\nHost: 127.0.0.1\r\n" + headers + "\r\n";
}

long resident_kb(pid_t pid) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  std::string line;
  while (std::getline(status, line))
    if (line.rfind("VmRSS:", 0) == 0) return std::atol(line.c_str() + 6);
  return -1;
}

int open_fds(pid_t pid) {
  DIR* dir = opendir(("/proc/" + std::to_string(pid) + "/fd").c_str());
  if (dir == nullptr) return -1;
  int count = 0;
  while (const dirent* entry = readdir(dir)) count += entry->d_name[0] != '.';
  closedir(dir);
  return count;
}

}  // namespace serve_client
