// `kelodbg serve`: an HTTP service that answers from every debug-info file
// of a folder.
#ifndef KELODBG_SERVE_SERVE_COMMAND_H_
#define KELODBG_SERVE_SERVE_COMMAND_H_

#include <cstddef>
#include <string>

#include "service.h"

namespace kelodbg {

struct ServeOptions {
  std::string dir;
  std::string listen = "127.0.0.1:7070";  // ADDRESS:PORT, [IPV6]:PORT; port 0: any
  unsigned threads = 4;                   // that answer requests
  size_t cacheBytes = size_t{1} << 30;    // of decoded debug information, all stores together
  serve::Limits limits;
  unsigned timeout = 10;  // seconds a connection may stay idle or slow
};

// Serves until SIGTERM or SIGINT, then stops accepting, finishes what is in
// flight and returns 0. Rescans the folder twice a second and on SIGHUP.
int serveCommand(const ServeOptions& o);

}  // namespace kelodbg

#endif  // KELODBG_SERVE_SERVE_COMMAND_H_
