#include "service.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "../answers.h"
#include "../text.h"
#include "../tool.h"

namespace kelodbg {
namespace serve {
namespace {

constexpr size_t kMaxDepth = 32;       // of a request's JSON
constexpr size_t kKeptAnswers = 1000;  // answers a thread keeps between requests

const char* reason(int status) {
  switch (status) {
    case 200:
      return "OK";
    case 400:
      return "Bad Request";
    case 404:
      return "Not Found";
    case 405:
      return "Method Not Allowed";
    case 413:
      return "Payload Too Large";
    case 500:
      return "Internal Server Error";
    case 503:
      return "Service Unavailable";
    default:
      return "Error";
  }
}

// Splits "/a/b/c" into its segments; false when a segment is empty or the
// path holds what a store name or identifier never does (percent escapes,
// dot segments).
bool segments(const std::string& path, std::vector<std::string>& out) {
  if (path.empty() || path[0] != '/') return false;
  size_t start = 1;
  while (start <= path.size()) {
    size_t end = path.find('/', start);
    if (end == std::string::npos) end = path.size();
    std::string segment = path.substr(start, end - start);
    if (segment.empty() || segment == "." || segment == ".." || segment.find('%') != std::string::npos) return false;
    out.push_back(std::move(segment));
    start = end + 1;
  }
  return true;
}

// How deeply `body` nests arrays and objects, strings skipped.
size_t depthOf(const std::string& body) {
  size_t depth = 0, most = 0;
  bool inString = false;
  for (size_t i = 0; i < body.size(); ++i) {
    const char c = body[i];
    if (inString) {
      if (c == '\\') {
        ++i;
      } else if (c == '"') {
        inString = false;
      }
    } else if (c == '"') {
      inString = true;
    } else if (c == '[' || c == '{') {
      most = std::max(most, ++depth);
    } else if ((c == ']' || c == '}') && depth > 0) {
      --depth;
    }
  }
  return most;
}

// "0x1a2b" (hex) or a non-negative integer; false for anything else.
bool addressOf(const nlohmann::json& value, uint64_t& out) {
  if (value.is_number_unsigned()) {
    out = value.get<uint64_t>();
    return true;
  }
  if (!value.is_string()) return false;
  const std::string& text = value.get_ref<const std::string&>();
  if (text.size() < 3 || text.size() > 18 || text[0] != '0' || (text[1] != 'x' && text[1] != 'X')) return false;
  out = 0;
  for (size_t i = 2; i < text.size(); ++i) {
    const char c = text[i];
    int digit;
    if (c >= '0' && c <= '9') {
      digit = c - '0';
    } else if ((c | 0x20) >= 'a' && (c | 0x20) <= 'f') {
      digit = (c | 0x20) - 'a' + 10;
    } else {
      return false;
    }
    out = out * 16 + static_cast<uint64_t>(digit);
  }
  return true;
}

HttpResponse json(const Json& doc) {
  HttpResponse r;
  r.body = doc.line() + "\n";
  return r;
}

}  // namespace

HttpResponse problem(int status, const std::string& detail) {
  HttpResponse r;
  r.status = status;
  r.contentType = "application/problem+json";
  r.body = Json::object()
               .set("type", "about:blank")
               .set("title", reason(status))
               .set("status", status)
               .set("detail", detail)
               .line() +
           "\n";
  return r;
}

std::string Service::endpointOf(const std::string& path) {
  if (path == "/v1/symbolize") return "symbolize";
  if (path == "/v1/stores") return "stores";
  if (path.compare(0, 11, "/v1/stores/") == 0) return "entries";
  if (path.compare(0, 9, "/buildid/") == 0) return "buildid";
  if (path == "/health") return "health";
  if (path == "/metrics") return "metrics";
  return "other";
}

HttpResponse Service::handle(const HttpRequest& request) {
  std::vector<std::string> parts;
  if (!segments(request.path, parts)) return problem(404, "no such resource");
  const auto only = [&request](const char* method) { return request.method == method; };
  const auto notAllowed = [](const char* allow) {
    HttpResponse r = problem(405, fmt::format("only {} is allowed here", allow));
    r.headers.emplace_back("Allow", allow);
    return r;
  };
  if (parts.size() == 1 && parts[0] == "health") {
    if (!only("GET") && !only("HEAD")) return notAllowed("GET");
    return json(Json::object().set("status", "ok").set("stores", static_cast<uint64_t>(catalog_.all().size())));
  }
  if (parts.size() == 1 && parts[0] == "metrics") {
    if (!only("GET") && !only("HEAD")) return notAllowed("GET");
    HttpResponse r;
    r.contentType = "text/plain; version=0.0.4";
    r.body = metrics_.text(catalog_);
    return r;
  }
  if (parts.size() == 2 && parts[0] == "v1" && parts[1] == "symbolize") {
    if (!only("POST")) return notAllowed("POST");
    return symbolize(request);
  }
  if (parts.size() == 2 && parts[0] == "v1" && parts[1] == "stores") {
    if (!only("GET") && !only("HEAD")) return notAllowed("GET");
    return stores();
  }
  if (parts.size() == 5 && parts[0] == "v1" && parts[1] == "stores" && parts[3] == "entries") {
    if (!only("GET") && !only("HEAD")) return notAllowed("GET");
    return entry(parts[2], parts[4]);
  }
  if (parts.size() == 3 && parts[0] == "buildid" && parts[2] == "debuginfo") {
    if (!only("GET") && !only("HEAD")) return notAllowed("GET");
    return buildId(parts[1]);
  }
  return problem(404, "no such resource");
}

HttpResponse Service::symbolize(const HttpRequest& request) {
  if (request.body.size() > limits_.maxBody) {
    return problem(413, fmt::format("the body is larger than {} bytes", limits_.maxBody));
  }
  if (depthOf(request.body) > kMaxDepth) return problem(400, "the JSON nests too deeply");
  const nlohmann::json doc = nlohmann::json::parse(request.body, nullptr, false);
  if (doc.is_discarded()) return problem(400, "the body is not JSON");
  if (!doc.is_object()) return problem(400, "the body is not a JSON object");
  for (auto it = doc.begin(); it != doc.end(); ++it) {
    const std::string& key = it.key();
    if (key != "store" && key != "addresses" && key != "inline" && key != "demangle") {
      return problem(400, fmt::format("unknown field {}", jsonString(key)));
    }
  }
  const auto store = doc.find("store");
  if (store == doc.end() || !store->is_string()) return problem(400, "\"store\" must be a string");
  const auto addresses = doc.find("addresses");
  if (addresses == doc.end() || !addresses->is_array()) return problem(400, "\"addresses\" must be an array");
  if (addresses->size() > limits_.maxAddresses) {
    return problem(413, fmt::format("more than {} addresses", limits_.maxAddresses));
  }
  AnswerOptions options;
  options.inlines = options.demangle = options.noEmptyFrame = true;
  for (const char* flag : {"inline", "demangle"}) {
    const auto value = doc.find(flag);
    if (value == doc.end()) continue;
    if (!value->is_boolean()) return problem(400, fmt::format("\"{}\" must be true or false", flag));
    (flag[0] == 'i' ? options.inlines : options.demangle) = value->get<bool>();
  }
  std::vector<uint64_t> values;
  values.reserve(addresses->size());
  for (const nlohmann::json& a : *addresses) {
    uint64_t value = 0;
    if (!addressOf(a, value)) return problem(400, "an address is not \"0x\" and hex digits, nor a number");
    values.push_back(value);
  }
  const std::string& name = store->get_ref<const std::string&>();
  std::shared_ptr<OpenStore> open = Catalog::validName(name) ? catalog_.find(name) : nullptr;
  if (!open) return problem(404, fmt::format("no store {}", jsonString(name)));

  // Answers are found under the store's lock and written out after it, so
  // that other requests for the store wait for the lookups alone.
  // Each thread keeps its answers from one request to the next, so that
  // their frames and strings keep their room; a large request's go.
  thread_local std::vector<Answer> kept;
  std::vector<Answer>& answers = kept;
  answers.resize(values.size());
  // They are looked up in address order (an object's tables are then used
  // while in cache) and written in the request's.
  thread_local std::vector<uint32_t> order;
  order.resize(values.size());
  for (uint32_t i = 0; i < order.size(); ++i) order[i] = i;
  std::sort(order.begin(), order.end(), [&](uint32_t x, uint32_t y) { return values[x] < values[y]; });
  const bool built = open->withSymbolizer([&](kelo_symbolize::Symbolizer& symbolizer) {
    const uint64_t mask = symbolizer.addressBits() == 32 ? 0xffffffffu : ~uint64_t{0};
    for (const uint32_t i : order) {
      answers[i].address = answers[i].lookup = values[i] & mask;
      answers[i].resolve(symbolizer);
    }
  });
  HttpResponse r;
  std::string& out = r.body;
  // Room for the answers as long as this thread's last ones were, so that
  // the text is not moved as it grows.
  thread_local size_t perAnswer = 512;
  out.reserve(answers.size() * perAnswer);
  out += "{\"store\":";
  appendJsonString(out, name);
  out += ",\"version\":";
  appendJsonString(out, open->version());
  out += ",\"results\":[";
  for (size_t i = 0; i < answers.size(); ++i) {
    if (i > 0) out += ',';
    appendAnswerJson(out, answers[i], options, name);
  }
  out += "]}\n";
  if (!answers.empty()) perAnswer = std::min<size_t>(std::max<size_t>(512, out.size() / answers.size() + 64), 1 << 16);
  if (answers.size() > kKeptAnswers) {
    answers.clear();
    answers.shrink_to_fit();
  }
  metrics_.addresses(values.size());
  metrics_.symbolizerBuilt(built);
  return r;
}

HttpResponse Service::stores() {
  Json list = Json::array();
  for (const std::shared_ptr<OpenStore>& s : catalog_.all()) {
    list.push(Json::object()
                  .set("name", s->name())
                  .set("version", s->version())
                  .set("entries", static_cast<uint64_t>(s->entries()))
                  .set("size", s->size()));
  }
  return json(Json::object().set("stores", std::move(list)));
}

HttpResponse Service::entry(const std::string& store, const std::string& idText) {
  std::shared_ptr<OpenStore> open = Catalog::validName(store) ? catalog_.find(store) : nullptr;
  if (!open) return problem(404, fmt::format("no store {}", jsonString(store)));
  Id id;
  if (!parseId(idText, 1, id).empty()) return problem(404, fmt::format("{} is not an identifier", jsonString(idText)));
  HttpResponse r;
  std::vector<unsigned char> bytes;
  if (!open->imageOf(id.key(), bytes)) return problem(404, fmt::format("no entry {} in {}", format(id), store));
  r.contentType = "application/octet-stream";
  r.body.assign(bytes.begin(), bytes.end());
  return r;
}

HttpResponse Service::buildId(const std::string& hex) {
  std::string lower;
  for (char c : hex) {
    const char l = static_cast<char>(c | 0x20);
    if (!((c >= '0' && c <= '9') || (l >= 'a' && l <= 'f'))) return problem(404, "a build id is hex digits");
    lower += c >= '0' && c <= '9' ? c : l;
  }
  if (lower.size() < 2 || lower.size() > 128) return problem(404, "a build id is hex digits");
  for (const std::shared_ptr<OpenStore>& s : catalog_.all()) {
    const absl::optional<kelo_elf::DebugInfoID> id = s->findBuildId(lower);
    std::vector<unsigned char> bytes;
    if (id && s->imageOf(*id, bytes)) {
      HttpResponse r;
      r.contentType = "application/octet-stream";
      r.body.assign(bytes.begin(), bytes.end());
      return r;
    }
  }
  return problem(404, fmt::format("no stored image has build id {}", lower));
}

void Metrics::request(const std::string& endpoint, int status, double seconds) {
  std::lock_guard<std::mutex> lock(mutex_);
  ++requests_[{endpoint, status}];
  size_t b = 0;
  while (b < sizeof kBuckets / sizeof kBuckets[0] && seconds > kBuckets[b]) ++b;
  ++latencyCounts_[b];
  latencySum_ += seconds;
  ++latencyCount_;
}

std::string Metrics::text(const Catalog& catalog) const {
  std::string out;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    out += "# HELP kelodbg_requests_total Requests answered, by endpoint and status.\n";
    out += "# TYPE kelodbg_requests_total counter\n";
    for (const auto& r : requests_) {
      out += fmt::format("kelodbg_requests_total{{endpoint=\"{}\",status=\"{}\"}} {}\n", r.first.first, r.first.second,
                         r.second);
    }
    out += "# HELP kelodbg_request_seconds Time to answer a request.\n";
    out += "# TYPE kelodbg_request_seconds histogram\n";
    uint64_t cumulative = 0;
    for (size_t b = 0; b < sizeof kBuckets / sizeof kBuckets[0]; ++b) {
      cumulative += latencyCounts_[b];
      out += fmt::format("kelodbg_request_seconds_bucket{{le=\"{}\"}} {}\n", kBuckets[b], cumulative);
    }
    cumulative += latencyCounts_[sizeof kBuckets / sizeof kBuckets[0]];
    out += fmt::format("kelodbg_request_seconds_bucket{{le=\"+Inf\"}} {}\n", cumulative);
    out +=
        fmt::format("kelodbg_request_seconds_sum {}\nkelodbg_request_seconds_count {}\n", latencySum_, latencyCount_);
  }
  const std::vector<std::shared_ptr<OpenStore>> stores = catalog.all();
  size_t cached = 0;
  for (const auto& s : stores) cached += s->cachedBytes();
  out += "# HELP kelodbg_addresses_total Addresses answered.\n# TYPE kelodbg_addresses_total counter\n";
  out += fmt::format("kelodbg_addresses_total {}\n", addresses_.load());
  out += "# HELP kelodbg_cache_hits_total Symbolize requests served by a store's open symbolizer.\n";
  out += "# TYPE kelodbg_cache_hits_total counter\n";
  out += fmt::format("kelodbg_cache_hits_total {}\n", hits_.load());
  out += "# HELP kelodbg_cache_misses_total Symbolize requests that opened a store's symbolizer.\n";
  out += "# TYPE kelodbg_cache_misses_total counter\n";
  out += fmt::format("kelodbg_cache_misses_total {}\n", misses_.load());
  out += "# HELP kelodbg_cache_bytes Bytes of debug information held.\n# TYPE kelodbg_cache_bytes gauge\n";
  out += fmt::format("kelodbg_cache_bytes {}\n", cached);
  out += "# HELP kelodbg_stores_open Stores being served.\n# TYPE kelodbg_stores_open gauge\n";
  out += fmt::format("kelodbg_stores_open {}\n", stores.size());
  return out;
}

}  // namespace serve
}  // namespace kelodbg
