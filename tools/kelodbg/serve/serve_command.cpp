// The HTTP side of `kelodbg serve`, on libmicrohttpd: a pool of threads
// accepts and answers connections; the main thread waits for signals and
// rescans the folder.
#include "serve_command.h"

#include <arpa/inet.h>
#include <malloc.h>
#include <microhttpd.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <ctime>
#include <mutex>

#include <fmt/format.h>

#include "../text.h"
#include "../tool.h"

namespace kelodbg {
namespace {

using serve::HttpRequest;
using serve::HttpResponse;
using Clock = std::chrono::steady_clock;

// One line on standard error per event, whole, whichever thread writes it.
class Log {
 public:
  void operator()(const std::string& line) {
    std::lock_guard<std::mutex> lock(mutex_);
    char when[32];
    const std::time_t now = std::time(nullptr);
    std::tm tm;
    gmtime_r(&now, &tm);
    std::strftime(when, sizeof when, "%Y-%m-%dT%H:%M:%SZ", &tm);
    complain(fmt::format("{} kelodbg serve: {}\n", when, line));
  }

 private:
  std::mutex mutex_;
};

struct Server {
  serve::Service* service;
  Log* log;
  // Requests begun and not yet answered; once stopping, answers close
  // their connections.
  std::atomic<unsigned> inFlight{0};
  std::atomic<bool> stopping{false};
};

// What one connection's request has gathered so far.
struct Pending {
  Clock::time_point start = Clock::now();
  std::string body;
  bool tooLarge = false;
};

MHD_Result send(MHD_Connection* connection, HttpResponse& r, bool head, bool close) {
  // The body is handed over, not copied: the response frees it.
  auto* body = new std::string(std::move(r.body));
  MHD_Response* response = MHD_create_response_from_buffer_with_free_callback_cls(
      head ? 0 : body->size(), &(*body)[0], [](void* text) { delete static_cast<std::string*>(text); }, body);
  if (response == nullptr) {
    delete body;
    return MHD_NO;
  }
  MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE, r.contentType.c_str());
  for (const auto& h : r.headers) MHD_add_response_header(response, h.first.c_str(), h.second.c_str());
  if (close) MHD_add_response_header(response, MHD_HTTP_HEADER_CONNECTION, "close");
  const MHD_Result queued = MHD_queue_response(connection, static_cast<unsigned>(r.status), response);
  MHD_destroy_response(response);
  return queued;
}

MHD_Result answer(void* context, MHD_Connection* connection, const char* url, const char* method, const char*,
                  const char* uploadData, size_t* uploadSize, void** state) {
  Server& server = *static_cast<Server*>(context);
  serve::Service& service = *server.service;
  auto* pending = static_cast<Pending*>(*state);
  if (pending == nullptr) {
    pending = new Pending;
    *state = pending;
    ++server.inFlight;
    // A body announced as too large is refused before it is read.
    const char* length = MHD_lookup_connection_value(connection, MHD_HEADER_KIND, MHD_HTTP_HEADER_CONTENT_LENGTH);
    if (length != nullptr && std::strtoull(length, nullptr, 10) > service.limits().maxBody) pending->tooLarge = true;
    if (!pending->tooLarge) return MHD_YES;
  }
  if (*uploadSize != 0) {
    if (pending->body.size() + *uploadSize > service.limits().maxBody) pending->tooLarge = true;
    if (!pending->tooLarge) pending->body.append(uploadData, *uploadSize);
    *uploadSize = 0;
    return MHD_YES;
  }
  HttpResponse response;
  const std::string path = url != nullptr ? url : "";
  if (pending->tooLarge) {
    response = serve::problem(413, fmt::format("the body is larger than {} bytes", service.limits().maxBody));
  } else {
    HttpRequest request{method, path, std::move(pending->body)};
    try {
      response = service.handle(request);
    } catch (const std::bad_alloc&) {
      response = serve::problem(503, "out of memory");
    } catch (const std::exception& e) {
      (*server.log)(fmt::format("{} {}: {}", method, escapeControls(path), e.what()));
      response = serve::problem(500, "internal error");
    }
  }
  const double seconds = std::chrono::duration<double>(Clock::now() - pending->start).count();
  service.metrics().request(serve::Service::endpointOf(path), response.status, seconds);
  return send(connection, response, std::strcmp(method, "HEAD") == 0, server.stopping);
}

// Paths are taken as sent: a percent escape is never decoded, so that no
// encoded '/' or ".." reaches a store name (such paths are 404).
size_t keepEscapes(void*, MHD_Connection*, char* text) { return std::strlen(text); }

void completed(void* context, MHD_Connection*, void** state, MHD_RequestTerminationCode) {
  if (*state == nullptr) return;
  delete static_cast<Pending*>(*state);
  *state = nullptr;
  --static_cast<Server*>(context)->inFlight;
}

// "ADDRESS:PORT" or "[IPV6]:PORT" as a socket address.
bool parseListen(const std::string& text, sockaddr_storage& out, socklen_t& length) {
  const size_t colon = text.rfind(':');
  if (colon == std::string::npos || colon + 1 == text.size()) return false;
  std::string host = text.substr(0, colon);
  const std::string port = text.substr(colon + 1);
  if (port.find_first_not_of("0123456789") != std::string::npos || port.size() > 5) return false;
  const unsigned long number = std::strtoul(port.c_str(), nullptr, 10);
  if (number > 65535) return false;
  std::memset(&out, 0, sizeof out);
  if (host.size() > 2 && host.front() == '[' && host.back() == ']') {
    auto* v6 = reinterpret_cast<sockaddr_in6*>(&out);
    v6->sin6_family = AF_INET6;
    v6->sin6_port = htons(static_cast<uint16_t>(number));
    length = sizeof *v6;
    return inet_pton(AF_INET6, host.substr(1, host.size() - 2).c_str(), &v6->sin6_addr) == 1;
  }
  auto* v4 = reinterpret_cast<sockaddr_in*>(&out);
  v4->sin_family = AF_INET;
  v4->sin_port = htons(static_cast<uint16_t>(number));
  length = sizeof *v4;
  return inet_pton(AF_INET, host.c_str(), &v4->sin_addr) == 1;
}

}  // namespace

int serveCommand(const ServeOptions& o) {
  sockaddr_storage address;
  socklen_t length = 0;
  if (!parseListen(o.listen, address, length)) {
    fail(Exit::kUsage, {},
         fmt::format("--listen {}: ADDRESS:PORT expected (127.0.0.1:7070, [::1]:7070)", printable(o.listen)));
  }
  struct stat st;
  if (stat(o.dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) fail(Exit::kFileIo, o.dir, "not a folder");

  // Memory goes back to the system when the caches let go of it: large
  // blocks (images, inflated sections) are mapped on their own whatever
  // came before, few arenas are kept, and what is free is trimmed at
  // each look at the folder. Answers to a batch (a few hundred KiB) stay
  // below the mapping threshold, so that each request reuses the room of
  // the one before instead of mapping and faulting in pages of its own.
  mallopt(M_MMAP_THRESHOLD, 2 * 1024 * 1024);
  mallopt(M_ARENA_MAX, 2);

  Log log;
  serve::Catalog catalog(o.dir, o.cacheBytes, [&log](const std::string& line) { log(line); });
  catalog.refresh();
  serve::Service service(catalog, o.limits);
  Server server;
  server.service = &service;
  server.log = &log;

  // Signals are taken by this thread alone: the server's threads, made
  // below, inherit the mask.
  sigset_t signals;
  sigemptyset(&signals);
  for (int s : {SIGTERM, SIGINT, SIGHUP}) sigaddset(&signals, s);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  signal(SIGPIPE, SIG_IGN);

  const unsigned flags = MHD_USE_INTERNAL_POLLING_THREAD | MHD_USE_ITC | MHD_USE_ERROR_LOG |
                         (address.ss_family == AF_INET6 ? MHD_USE_IPv6 : 0);
  MHD_Daemon* daemon = MHD_start_daemon(
      flags, 0, nullptr, nullptr, &answer, &server, MHD_OPTION_SOCK_ADDR, &address, MHD_OPTION_THREAD_POOL_SIZE,
      std::max(1u, o.threads), MHD_OPTION_CONNECTION_TIMEOUT, o.timeout, MHD_OPTION_NOTIFY_COMPLETED, &completed,
      &server, MHD_OPTION_UNESCAPE_CALLBACK, &keepEscapes, nullptr, MHD_OPTION_CONNECTION_LIMIT, 1000u, MHD_OPTION_END);
  if (daemon == nullptr) {
    fail(Exit::kFileIo, {}, fmt::format("cannot listen on {}: {}", printable(o.listen), std::strerror(errno)));
  }
  const MHD_DaemonInfo* bound = MHD_get_daemon_info(daemon, MHD_DAEMON_INFO_BIND_PORT);
  const std::string host = o.listen.substr(0, o.listen.rfind(':'));
  log(fmt::format("listening on {}:{}, {} stores from {}", host, bound != nullptr ? bound->port : 0,
                  catalog.all().size(), escapeControls(o.dir)));

  for (;;) {
    timespec half{0, 500 * 1000 * 1000};
    const int got = sigtimedwait(&signals, nullptr, &half);
    if (got == SIGTERM || got == SIGINT) break;
    if (got == SIGHUP) log("SIGHUP: rescanning");
    catalog.refresh();
    malloc_trim(0);
  }
  // Stop accepting (new connections are refused at once), answer the
  // requests in flight with "Connection: close", then stop: idle
  // keep-alive connections are closed with the daemon.
  log("stopping: no new connections, finishing the requests in flight");
  server.stopping = true;
  const MHD_socket listening = MHD_quiesce_daemon(daemon);
  if (listening != MHD_INVALID_SOCKET) close(listening);
  const Clock::time_point deadline = Clock::now() + std::chrono::seconds(o.timeout + 5);
  while (server.inFlight > 0 && Clock::now() < deadline) {
    timespec tick{0, 10 * 1000 * 1000};
    nanosleep(&tick, nullptr);
  }
  MHD_stop_daemon(daemon);
  log("stopped");
  return 0;
}

}  // namespace kelodbg
