// The listening socket of gpumon --serve: one address, one port, exclusive.
#pragma once

#include <string>

// Splits "HOST:PORT" ("[::1]:9400" for an IPv6 address) into its parts. The
// port is 0 to 65535; 0 asks the system for a free one.
bool parse_listen_address(const std::string& text, std::string* host, int* port);

// A TCP socket listening on host (a numeric IPv4 or IPv6 address, or a name
// that resolves to one) and port, with room for `backlog` connections that
// are not accepted yet; non-blocking and closed on exec. SO_REUSEADDR lets
// a restarted server take its port while old connections linger, but no
// SO_REUSEPORT: a second server on the same port fails here instead of
// sharing it. Returns the descriptor and sets *bound_port (the one the
// system chose for port 0), or -1 with *error saying why.
int open_listen_socket(const std::string& host, int port, int backlog, int* bound_port,
                       std::string* error);
