// Load client for `kelodbg serve`: K threads, each over its own keep-alive
// HTTP/1.1 connection, POST /v1/symbolize with batches of addresses drawn
// from a file, for S seconds or N requests in all, whichever comes first.
//
// Usage: serve_load HOST PORT STORE ADDRESS_FILE --clients K --batch B
//                   --seconds S [--requests N] [--seed X]
//
// ADDRESS_FILE holds one address a line ("0x..."); blank lines and lines
// starting with # are skipped. Each thread draws its batches from its own
// generator, seeded from X (default 1) and its index, so that two runs send
// the same requests.
//
// A request counts as failed unless the answer's status is 200 and its body
// starts with {"store". A connection the peer closes or breaks is reopened;
// the request it carried counts as failed, and so does every attempt to
// connect that fails. A peer that answers with "Connection: close" is
// followed without counting anything against it.
//
// Prints one line of key=value figures:
//   requests failed addresses seconds addresses_per_second p50_ms p99_ms
//   max_ms reconnects
// addresses counts those of successful requests only; the latencies are
// those of every request that got a complete answer, from the first byte
// sent to the last byte read; reconnects counts the connections each thread
// opened after its first, for whatever reason. The exit status is 0 whatever the failures
// (2 on a usage error), so that the caller judges the figures.
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

// How long one request may wait on the peer for its answer (or one connect
// for its handshake) before it counts as failed and the connection is
// dropped; long enough for any answer a server under load gives.
constexpr int kIoTimeoutMs = 15000;

struct Options {
  std::string host;
  std::string port;
  std::string store;
  std::string address_file;
  unsigned clients = 0;
  unsigned batch = 0;
  double seconds = 0;
  uint64_t requests = 0;  // 0: no limit
  uint64_t seed = 1;
};

[[noreturn]] void usage(const std::string& why) {
  std::cerr << "serve_load: " << why << "\n"
            << "usage: serve_load HOST PORT STORE ADDRESS_FILE --clients K --batch B --seconds S [--requests N] "
               "[--seed X]\n";
  std::exit(2);
}

uint64_t parse_count(const std::string& option, const std::string& text, uint64_t least) {
  char* end = nullptr;
  errno = 0;
  unsigned long long value = std::strtoull(text.c_str(), &end, 10);
  if (text.empty() || text[0] == '-' || *end != '\0' || errno != 0 || value < least)
    usage(option + ": not a number of at least " + std::to_string(least) + ": " + text);
  return value;
}

Options parse_options(int argc, char** argv) {
  Options options;
  std::vector<std::string> positional;
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    if (arg.size() > 2 && arg.compare(0, 2, "--") == 0) {
      if (i + 1 >= argc) usage(arg + " needs a value");
      std::string value = argv[++i];
      if (arg == "--clients") {
        options.clients = static_cast<unsigned>(parse_count(arg, value, 1));
      } else if (arg == "--batch") {
        options.batch = static_cast<unsigned>(parse_count(arg, value, 1));
      } else if (arg == "--seconds") {
        char* end = nullptr;
        options.seconds = std::strtod(value.c_str(), &end);
        if (value.empty() || *end != '\0' || !(options.seconds > 0))
          usage("--seconds: not a positive number: " + value);
      } else if (arg == "--requests") {
        options.requests = parse_count(arg, value, 1);
      } else if (arg == "--seed") {
        options.seed = parse_count(arg, value, 0);
      } else {
        usage("unknown option " + arg);
      }
    } else {
      positional.push_back(arg);
    }
  }
  if (positional.size() != 4) usage("expected HOST PORT STORE ADDRESS_FILE");
  options.host = positional[0];
  options.port = positional[1];
  options.store = positional[2];
  options.address_file = positional[3];
  if (options.clients == 0) usage("--clients is required");
  if (options.batch == 0) usage("--batch is required");
  if (options.seconds == 0) usage("--seconds is required");
  return options;
}

std::vector<std::string> read_addresses(const std::string& path) {
  std::ifstream in(path);
  if (!in) usage("cannot read " + path);
  std::vector<std::string> addresses;
  std::string line;
  while (std::getline(in, line)) {
    while (!line.empty() && (line.back() == '\r' || line.back() == ' ' || line.back() == '\t')) line.pop_back();
    size_t start = line.find_first_not_of(" \t");
    if (start == std::string::npos || line[start] == '#') continue;
    line.erase(0, start);
    // Addresses go into a JSON string as they are; anything that would need
    // escaping is not an address.
    if (line.find_first_of("\"\\") != std::string::npos) usage(path + ": not an address: " + line);
    addresses.push_back(line);
  }
  if (addresses.empty()) usage(path + ": no addresses");
  return addresses;
}

std::string json_string(const std::string& text) {
  std::string out = "\"";
  for (unsigned char c : text) {
    if (c == '"' || c == '\\') {
      out += '\\';
      out += static_cast<char>(c);
    } else if (c < 0x20) {
      char escaped[8];
      std::snprintf(escaped, sizeof escaped, "\\u%04x", c);
      out += escaped;
    } else {
      out += static_cast<char>(c);
    }
  }
  return out + "\"";
}

// What one thread counted.
struct Tally {
  uint64_t requests = 0;
  uint64_t failed = 0;
  uint64_t addresses = 0;
  uint64_t reconnects = 0;
  std::vector<double> latencies_ms;
};

// Shared by every thread: when to stop, and how many requests may still
// start when a count is given.
struct Budget {
  Clock::time_point deadline;
  uint64_t limit = 0;  // 0: no limit
  std::atomic<uint64_t> started{0};

  // Whether one more request may start; claims it when so.
  bool take() {
    if (Clock::now() >= deadline) return false;
    if (limit == 0) return true;
    return started.fetch_add(1, std::memory_order_relaxed) < limit;
  }
};

int milliseconds_until(Clock::time_point until) {
  auto left = std::chrono::duration_cast<std::chrono::milliseconds>(until - Clock::now()).count();
  return left <= 0 ? 0 : static_cast<int>(left);
}

// One keep-alive connection to the server, reopened on demand.
class Connection {
 public:
  explicit Connection(const addrinfo* targets) : targets_(targets) {}
  ~Connection() { close(); }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  bool is_open() const { return fd_ >= 0; }

  bool open() {
    close();
    for (const addrinfo* target = targets_; target; target = target->ai_next) {
      int fd = ::socket(target->ai_family, target->ai_socktype | SOCK_CLOEXEC | SOCK_NONBLOCK, target->ai_protocol);
      if (fd < 0) continue;
      if (::connect(fd, target->ai_addr, target->ai_addrlen) == 0 || (errno == EINPROGRESS && wait_connected(fd))) {
        int one = 1;
        ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
        fd_ = fd;
        buffer_.clear();
        return true;
      }
      ::close(fd);
    }
    return false;
  }

  void close() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
    buffer_.clear();
  }

  bool send_all(const std::string& data, Clock::time_point until) {
    size_t sent = 0;
    while (sent < data.size()) {
      ssize_t n = ::send(fd_, data.data() + sent, data.size() - sent, MSG_NOSIGNAL);
      if (n > 0) {
        sent += static_cast<size_t>(n);
      } else if (n < 0 && errno == EINTR) {
        continue;
      } else if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
        if (!wait_for(POLLOUT, until)) return false;
      } else {
        return false;
      }
    }
    return true;
  }

  // Reads one answer: its status, its body, and whether the peer keeps the
  // connection open after it. False when the connection fails or closes
  // before the answer is whole, or the answer is not HTTP.
  bool read_response(int& status, std::string& body, bool& keep_alive, Clock::time_point until) {
    size_t header_end;
    while ((header_end = buffer_.find("\r\n\r\n")) == std::string::npos) {
      if (buffer_.size() > (1u << 20) || !fill(until)) return false;
    }
    std::string head = buffer_.substr(0, header_end);
    buffer_.erase(0, header_end + 4);

    // Status line: HTTP/1.x NNN reason
    size_t line_end = head.find("\r\n");
    std::string status_line = head.substr(0, line_end);
    if (status_line.compare(0, 7, "HTTP/1.") != 0 || status_line.size() < 12) return false;
    bool http10 = status_line[7] == '0';
    status = std::atoi(status_line.c_str() + 9);
    if (status < 100 || status > 999) return false;

    long long content_length = -1;
    bool chunked = false;
    keep_alive = !http10;
    size_t pos = line_end == std::string::npos ? head.size() : line_end + 2;
    while (pos < head.size()) {
      size_t end = head.find("\r\n", pos);
      if (end == std::string::npos) end = head.size();
      std::string line = head.substr(pos, end - pos);
      pos = end + 2;
      size_t colon = line.find(':');
      if (colon == std::string::npos) continue;
      std::string name = lower(line.substr(0, colon));
      std::string value = lower(trim(line.substr(colon + 1)));
      if (name == "content-length") {
        content_length = std::atoll(value.c_str());
      } else if (name == "transfer-encoding") {
        chunked = value.find("chunked") != std::string::npos;
      } else if (name == "connection") {
        if (value.find("close") != std::string::npos) keep_alive = false;
        if (value.find("keep-alive") != std::string::npos) keep_alive = true;
      }
    }

    body.clear();
    if (chunked) return read_chunked(body, until);
    if (content_length >= 0) {
      while (buffer_.size() < static_cast<size_t>(content_length)) {
        if (!fill(until)) return false;
      }
      body = buffer_.substr(0, static_cast<size_t>(content_length));
      buffer_.erase(0, static_cast<size_t>(content_length));
      return true;
    }
    // Neither length nor chunks: the body runs to the end of the connection.
    keep_alive = false;
    while (fill(until)) {
    }
    if (!eof_) return false;
    body.swap(buffer_);
    return true;
  }

 private:
  static std::string lower(std::string text) {
    for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return text;
  }

  static std::string trim(const std::string& text) {
    size_t start = text.find_first_not_of(" \t");
    if (start == std::string::npos) return "";
    size_t end = text.find_last_not_of(" \t");
    return text.substr(start, end - start + 1);
  }

  bool wait_connected(int fd) {
    pollfd p{fd, POLLOUT, 0};
    int n;
    do {
      n = ::poll(&p, 1, kIoTimeoutMs);
    } while (n < 0 && errno == EINTR);
    if (n <= 0) return false;
    int error = 0;
    socklen_t length = sizeof error;
    return ::getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length) == 0 && error == 0;
  }

  bool wait_for(short events, Clock::time_point until) {
    for (;;) {
      pollfd p{fd_, events, 0};
      int n = ::poll(&p, 1, milliseconds_until(until));
      if (n > 0) return true;
      if (n == 0) return false;
      if (errno != EINTR) return false;
    }
  }

  // Appends what the peer sent next to the buffer; false at the end of the
  // connection (eof_ set), on an error or on the timeout.
  bool fill(Clock::time_point until) {
    eof_ = false;
    char chunk[65536];
    for (;;) {
      ssize_t n = ::recv(fd_, chunk, sizeof chunk, 0);
      if (n > 0) {
        buffer_.append(chunk, static_cast<size_t>(n));
        return true;
      }
      if (n == 0) {
        eof_ = true;
        return false;
      }
      if (errno == EINTR) continue;
      if (errno != EAGAIN && errno != EWOULDBLOCK) return false;
      if (!wait_for(POLLIN, until)) return false;
    }
  }

  bool read_line(std::string& line, Clock::time_point until) {
    size_t end;
    while ((end = buffer_.find("\r\n")) == std::string::npos) {
      if (buffer_.size() > 4096 || !fill(until)) return false;
    }
    line = buffer_.substr(0, end);
    buffer_.erase(0, end + 2);
    return true;
  }

  bool read_chunked(std::string& body, Clock::time_point until) {
    for (;;) {
      std::string line;
      if (!read_line(line, until)) return false;
      char* end = nullptr;
      unsigned long long size = std::strtoull(line.c_str(), &end, 16);
      if (end == line.c_str()) return false;
      if (size == 0) {
        // Trailers, up to the empty line that ends them.
        do {
          if (!read_line(line, until)) return false;
        } while (!line.empty());
        return true;
      }
      while (buffer_.size() < size + 2) {
        if (!fill(until)) return false;
      }
      body.append(buffer_, 0, size);
      buffer_.erase(0, size + 2);
    }
  }

  const addrinfo* targets_;
  int fd_ = -1;
  bool eof_ = false;
  std::string buffer_;
};

void run_client(const Options& options, const std::vector<std::string>& addresses, const addrinfo* targets,
                unsigned index, Budget& budget, Tally& tally) {
  std::mt19937_64 random(options.seed * 1000003u + index);
  std::uniform_int_distribution<size_t> pick(0, addresses.size() - 1);
  const std::string head_start = "POST /v1/symbolize HTTP/1.1\r\nHost: " + options.host + ":" + options.port +
                                 "\r\nContent-Type: application/json\r\nContent-Length: ";
  const std::string body_start = "{\"store\":" + json_string(options.store) + ",\"addresses\":[";
  Connection connection(targets);
  bool opened_before = false;
  std::string request, body;

  while (budget.take()) {
    ++tally.requests;
    if (!connection.is_open()) {
      if (opened_before) ++tally.reconnects;
      opened_before = true;
      if (!connection.open()) {
        ++tally.failed;
        // A server that refuses connections is not hammered.
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        continue;
      }
    }

    body = body_start;
    for (unsigned i = 0; i < options.batch; ++i) {
      if (i) body += ',';
      body += '"';
      body += addresses[pick(random)];
      body += '"';
    }
    body += "],\"inline\":true,\"demangle\":true}";
    request = head_start + std::to_string(body.size()) + "\r\n\r\n" + body;

    Clock::time_point start = Clock::now();
    Clock::time_point until = start + std::chrono::milliseconds(kIoTimeoutMs);
    int status = 0;
    bool keep_alive = false;
    std::string answer;
    if (!connection.send_all(request, until) || !connection.read_response(status, answer, keep_alive, until)) {
      ++tally.failed;
      connection.close();
      continue;
    }
    tally.latencies_ms.push_back(std::chrono::duration<double, std::milli>(Clock::now() - start).count());
    static const std::string kAnswerStart = "{\"store\"";
    if (status == 200 && answer.compare(0, kAnswerStart.size(), kAnswerStart) == 0) {
      tally.addresses += options.batch;
    } else {
      ++tally.failed;
    }
    if (!keep_alive) connection.close();
  }
}

// The value below which a fraction q of the sorted values lie (nearest rank).
double percentile(const std::vector<double>& sorted, double q) {
  if (sorted.empty()) return 0;
  size_t rank = static_cast<size_t>(q * static_cast<double>(sorted.size()) + 0.999999);
  rank = std::min(std::max<size_t>(rank, 1), sorted.size());
  return sorted[rank - 1];
}

}  // namespace

int main(int argc, char** argv) {
  Options options = parse_options(argc, argv);
  std::vector<std::string> addresses = read_addresses(options.address_file);
  std::signal(SIGPIPE, SIG_IGN);

  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* targets = nullptr;
  int resolved = ::getaddrinfo(options.host.c_str(), options.port.c_str(), &hints, &targets);
  if (resolved != 0) usage(options.host + ":" + options.port + ": " + ::gai_strerror(resolved));

  Budget budget;
  budget.limit = options.requests;
  std::vector<Tally> tallies(options.clients);
  std::vector<std::thread> threads;
  Clock::time_point start = Clock::now();
  budget.deadline = start + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(options.seconds));
  for (unsigned i = 0; i < options.clients; ++i) {
    threads.emplace_back(run_client, std::cref(options), std::cref(addresses), targets, i, std::ref(budget),
                         std::ref(tallies[i]));
  }
  for (std::thread& thread : threads) thread.join();
  double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  ::freeaddrinfo(targets);

  Tally total;
  for (Tally& tally : tallies) {
    total.requests += tally.requests;
    total.failed += tally.failed;
    total.addresses += tally.addresses;
    total.reconnects += tally.reconnects;
    total.latencies_ms.insert(total.latencies_ms.end(), tally.latencies_ms.begin(), tally.latencies_ms.end());
  }
  std::sort(total.latencies_ms.begin(), total.latencies_ms.end());
  double max_ms = total.latencies_ms.empty() ? 0 : total.latencies_ms.back();
  std::printf(
      "requests=%llu failed=%llu addresses=%llu seconds=%.3f addresses_per_second=%.0f p50_ms=%.3f p99_ms=%.3f "
      "max_ms=%.3f reconnects=%llu\n",
      static_cast<unsigned long long>(total.requests), static_cast<unsigned long long>(total.failed),
      static_cast<unsigned long long>(total.addresses), seconds,
      seconds > 0 ? static_cast<double>(total.addresses) / seconds : 0.0, percentile(total.latencies_ms, 0.50),
      percentile(total.latencies_ms, 0.99), max_ms, static_cast<unsigned long long>(total.reconnects));
  return 0;
}
