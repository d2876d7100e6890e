#include "fuzz/Input.h"
#include "host/MetricsServer.h"

// Whatever a client of the metrics sends, piece by piece: it is answered once the head is whole or too long, as it would
// be in one piece, and an address of the configuration is one or is refused.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Fuzz::Input input(data, size);
  const std::string text = input.text();
  static_cast<void>(Host::MetricsAddress::of(text));
  const Host::HttpRequest whole = Host::httpRequestOf(text);
  const bool heads = text.find("\n\n") != std::string::npos || text.find("\r\n\r\n") != std::string::npos;
  Fuzz::check((whole.status != 0) == (heads || text.size() > Host::MetricsServer::kRequestBytes),
              "an answer to a whole request", text);
  Fuzz::check(whole.status != 200 || text.find("/metrics") != std::string::npos, "the metrics for who asks",
              text);
  // More behind the head changes nothing.
  if (heads) Fuzz::check(Host::httpRequestOf(text + "more").status == whole.status, "the same answer", text);
  return 0;
}
