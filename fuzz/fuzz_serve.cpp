// The server's handling of requests, without the HTTP transport: the input
// is "METHOD PATH" on its first line and the body after it. Whatever it
// holds, the answer is a status the server gives (200, 400, 404, 405, 413)
// with a body, and every refusal is a problem document. The folder served
// holds one real store, s.kdbg, so that symbolize requests that pass the
// checks are answered.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>

#include "serve/catalog.h"
#include "serve/service.h"

namespace {

kelodbg::serve::Service& service() {
  static std::unique_ptr<kelodbg::serve::Catalog> catalog;
  static std::unique_ptr<kelodbg::serve::Service> instance;
  if (!instance) {
    char dir[] = "/tmp/fuzz-serve.XXXXXX";
    if (mkdtemp(dir) == nullptr) std::abort();
    {
      std::ifstream in(KELO_FUZZ_SERVE_STORE, std::ios::binary);
      std::ofstream out(std::string(dir) + "/s.kdbg", std::ios::binary);
      out << in.rdbuf();
    }
    catalog = std::make_unique<kelodbg::serve::Catalog>(dir, size_t{64} << 20, [](const std::string&) {});
    catalog->refresh();
    // The store is open now; the file is not needed any more.
    std::remove((std::string(dir) + "/s.kdbg").c_str());
    rmdir(dir);
    kelodbg::serve::Limits limits;
    limits.maxBody = 64 * 1024;
    limits.maxAddresses = 64;
    instance = std::make_unique<kelodbg::serve::Service>(*catalog, limits);
  }
  return *instance;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  const size_t newline = text.find('\n');
  const std::string first = text.substr(0, newline);
  const size_t space = first.find(' ');
  kelodbg::serve::HttpRequest request;
  request.method = first.substr(0, space);
  request.path = space == std::string::npos ? "/" : first.substr(space + 1);
  if (newline != std::string::npos) request.body = text.substr(newline + 1);
  const kelodbg::serve::HttpResponse r = service().handle(request);
  const bool known = r.status == 200 || r.status == 400 || r.status == 404 || r.status == 405 || r.status == 413;
  if (!known || r.body.empty()) std::abort();
  if (r.status != 200 && r.contentType != "application/problem+json") std::abort();
  return 0;
}
