#include "listen_socket.h"

#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

bool parse_listen_address(const std::string& text, std::string* host, int* port) {
  const size_t colon = text.rfind(':');
  if (colon == std::string::npos || colon == 0) return false;
  std::string name = text.substr(0, colon);
  if (name.front() == '[') {
    if (name.size() < 3 || name.back() != ']') return false;
    name = name.substr(1, name.size() - 2);
  } else if (name.find(':') != std::string::npos) {
    return false;  // an IPv6 address needs its brackets
  }
  const std::string digits = text.substr(colon + 1);
  if (digits.empty() || digits.size() > 5 ||
      digits.find_first_not_of("0123456789") != std::string::npos)
    return false;
  const int number = std::atoi(digits.c_str());
  if (number > 65535) return false;
  *host = name;
  *port = number;
  return true;
}

int open_listen_socket(const std::string& host, int port, int backlog, int* bound_port,
                       std::string* error) {
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_PASSIVE | AI_NUMERICSERV;
  addrinfo* found = nullptr;
  const std::string service = std::to_string(port);
  const int lookup = getaddrinfo(host.c_str(), service.c_str(), &hints, &found);
  if (lookup != 0) {
    *error = gai_strerror(lookup);
    return -1;
  }
  int fd = -1;
  for (const addrinfo* a = found; a != nullptr && fd < 0; a = a->ai_next) {
    fd = socket(a->ai_family, a->ai_socktype | SOCK_NONBLOCK | SOCK_CLOEXEC, a->ai_protocol);
    if (fd < 0) {
      *error = std::strerror(errno);
      continue;
    }
    const int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (bind(fd, a->ai_addr, a->ai_addrlen) != 0 || listen(fd, backlog) != 0) {
      *error = std::strerror(errno);
      close(fd);
      fd = -1;
    }
  }
  freeaddrinfo(found);
  if (fd < 0) return -1;
  sockaddr_storage address{};
  socklen_t length = sizeof address;
  getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
  *bound_port =
      ntohs(address.ss_family == AF_INET6 ? reinterpret_cast<sockaddr_in6*>(&address)->sin6_port
                                          : reinterpret_cast<sockaddr_in*>(&address)->sin_port);
  return fd;
}
