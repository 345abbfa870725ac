// What the server answers, apart from HTTP itself: a request (method, path,
// body) in, a response (status, type, body) out. Requests are checked
// here: bad JSON or fields are 400, unknown stores or entries 404, a wrong
// method 405, too much 413.
#ifndef KELODBG_SERVE_SERVICE_H_
#define KELODBG_SERVE_SERVICE_H_

#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "catalog.h"

namespace kelodbg {
namespace serve {

struct HttpRequest {
  std::string method;
  std::string path;  // as sent, without the query
  std::string body;
};

struct HttpResponse {
  int status = 200;
  std::string contentType = "application/json";
  std::string body;
  std::vector<std::pair<std::string, std::string>> headers;
};

struct Limits {
  size_t maxBody = size_t{1} << 20;  // bytes of a request body
  size_t maxAddresses = 10000;       // addresses of one symbolize request
};

// Counters for /metrics.
class Metrics {
 public:
  void request(const std::string& endpoint, int status, double seconds);
  void addresses(uint64_t count) { addresses_ += count; }
  void symbolizerBuilt(bool built) { (built ? misses_ : hits_) += 1; }
  // The Prometheus text format.
  std::string text(const Catalog& catalog) const;

 private:
  static constexpr double kBuckets[] = {0.001, 0.0025, 0.005, 0.01, 0.02, 0.05, 0.1, 0.25, 0.5, 1, 2.5};
  mutable std::mutex mutex_;
  std::map<std::pair<std::string, int>, uint64_t> requests_;
  uint64_t latencyCounts_[sizeof kBuckets / sizeof kBuckets[0] + 1] = {};
  double latencySum_ = 0;
  uint64_t latencyCount_ = 0;
  std::atomic<uint64_t> addresses_{0}, hits_{0}, misses_{0};
};

class Service {
 public:
  Service(Catalog& catalog, Limits limits) : catalog_(catalog), limits_(limits) {}

  const Limits& limits() const { return limits_; }
  HttpResponse handle(const HttpRequest& request);
  // The metrics' label for a path.
  static std::string endpointOf(const std::string& path);
  Metrics& metrics() { return metrics_; }

 private:
  HttpResponse symbolize(const HttpRequest& request);
  HttpResponse stores();
  HttpResponse entry(const std::string& store, const std::string& id);
  HttpResponse buildId(const std::string& hex);

  Catalog& catalog_;
  Limits limits_;
  Metrics metrics_;
};

// A problem document (RFC 7807) with `status` and `detail`.
HttpResponse problem(int status, const std::string& detail);

}  // namespace serve
}  // namespace kelodbg

#endif  // KELODBG_SERVE_SERVICE_H_
