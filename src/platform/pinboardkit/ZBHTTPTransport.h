#pragma once
// The seam under the service client: one method that sends a GET and returns
// the whole answer. ZBCurlTransport is the real one; a test or a tool may put
// another in its place.

#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "platform/foundation/NSError.h"

struct ZBHTTPRequest {
  std::string url;
  // Basic authentication when username is not empty.
  std::string username;
  std::string password;
  double timeout = 60;         // seconds for the whole exchange
  double connectTimeout = 15;  // seconds to connect
  std::size_t maximumBodySize = std::size_t(1) << 30;
  // When set, the body of an HTTP 200 answer is handed to it piece by piece as
  // it arrives, on the thread that called send(), instead of being collected
  // in ZBHTTPResponse::body (which a transport that cannot stream fills as
  // usual). Lets a caller read a long answer while it is still coming.
  std::function<void(std::string_view piece)> bodyConsumer;
  // When set, called once as the request goes out, the connection made, on
  // the thread of the transfer: rate limits count from there. A transport
  // that cannot tell need not call it; the caller then counts from the end
  // of send().
  std::function<void()> leaving;
};

struct ZBHTTPResponse {
  long status = 0;
  std::string body;
  double retryAfter = -1;  // seconds from a Retry-After header, or -1
};

class ZBHTTPTransport {
public:
  virtual ~ZBHTTPTransport() = default;
  // Sends the request and fills response. A transport failure (no connection,
  // time-out, broken transfer, cancelled()) returns false with an error in
  // NSURLErrorDomain whose texts never contain the URL's query or the
  // password. Any HTTP status is a success of the transport. cancelled is
  // polled during the exchange. Thread-safe.
  [[nodiscard]] virtual bool send(const ZBHTTPRequest& request, ZBHTTPResponse& response,
                                  const std::function<bool()>& cancelled, NSErrorPtr* error) = 0;
};

// libcurl, one easy handle per request; HTTP and HTTPS only, no redirects
// (the API never redirects, and a redirect could carry the token elsewhere).
class ZBCurlTransport final : public ZBHTTPTransport {
public:
  static std::shared_ptr<ZBCurlTransport> create();
  [[nodiscard]] bool send(const ZBHTTPRequest& request, ZBHTTPResponse& response,
                          const std::function<bool()>& cancelled, NSErrorPtr* error) override;
};
