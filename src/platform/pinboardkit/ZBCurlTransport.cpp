#include <curl/curl.h>
#include <strings.h>

#include <cstdlib>
#include <mutex>

#include "platform/foundation/NSURLError.h"
#include "platform/pinboardkit/ZBHTTPTransport.h"

namespace {

struct EasyDeleter {
  void operator()(CURL* c) const { curl_easy_cleanup(c); }
};

struct Exchange {
  CURL* curl;
  ZBHTTPResponse* response;
  std::size_t maximum;
  const std::function<bool()>* cancelled;
  const std::function<void(std::string_view)>* consumer;
  std::size_t received = 0;
  int streaming = -1;  // whether the body goes to the consumer; decided at its first byte
  bool tooLarge = false;
  const std::function<void()>* leaving = nullptr;
  bool left = false;
};

// The connection is made and the request is about to be sent.
int onLeaving(void* context, char*, char*, int, int) {
  auto* x = static_cast<Exchange*>(context);
  if (!x->left && x->leaving && *x->leaving) {
    x->left = true;
    (*x->leaving)();
  }
  return CURL_PREREQFUNC_OK;
}

std::size_t onBody(char* data, std::size_t size, std::size_t count, void* context) {
  auto* x = static_cast<Exchange*>(context);
  std::size_t n = size * count;
  if (x->received + n > x->maximum) {
    x->tooLarge = true;
    return 0;  // makes curl stop with CURLE_WRITE_ERROR
  }
  x->received += n;
  if (x->streaming < 0) {
    long status = 0;
    curl_easy_getinfo(x->curl, CURLINFO_RESPONSE_CODE, &status);
    x->streaming = *x->consumer && status == 200;
  }
  if (x->streaming) (*x->consumer)(std::string_view(data, n));
  else x->response->body.append(data, n);
  return n;
}

std::size_t onHeader(char* data, std::size_t size, std::size_t count, void* context) {
  auto* x = static_cast<Exchange*>(context);
  std::size_t n = size * count;
  std::string line(data, n);
  static const char retryAfter[] = "retry-after:";
  static const char contentLength[] = "content-length:";
  if (line.size() > sizeof retryAfter - 1 && strncasecmp(line.c_str(), retryAfter, sizeof retryAfter - 1) == 0) {
    char* end = nullptr;
    double seconds = std::strtod(line.c_str() + sizeof retryAfter - 1, &end);
    if (end != line.c_str() + sizeof retryAfter - 1 && seconds >= 0) x->response->retryAfter = seconds;
  } else if (line.size() > sizeof contentLength - 1 &&
             strncasecmp(line.c_str(), contentLength, sizeof contentLength - 1) == 0) {
    // Room for the whole body at once (and simdjson's padding after it),
    // instead of copying tens of megabytes as the string grows.
    unsigned long long length = std::strtoull(line.c_str() + sizeof contentLength - 1, nullptr, 10);
    if (length > 0 && length <= x->maximum && !*x->consumer)
      x->response->body.reserve(static_cast<std::size_t>(length) + 64);
  }
  return n;
}

int onProgress(void* context, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
  auto* x = static_cast<Exchange*>(context);
  return (*x->cancelled && (*x->cancelled)()) ? 1 : 0;
}

std::int64_t urlErrorCode(CURLcode code) {
  switch (code) {
    case CURLE_COULDNT_RESOLVE_HOST:
    case CURLE_COULDNT_RESOLVE_PROXY: return NSURLErrorCannotFindHost;
    case CURLE_COULDNT_CONNECT: return NSURLErrorCannotConnectToHost;
    case CURLE_OPERATION_TIMEDOUT: return NSURLErrorTimedOut;
    case CURLE_GOT_NOTHING:
    case CURLE_RECV_ERROR:
    case CURLE_SEND_ERROR:
    case CURLE_PARTIAL_FILE: return NSURLErrorNetworkConnectionLost;
    case CURLE_ABORTED_BY_CALLBACK: return NSURLErrorCancelled;
    case CURLE_PEER_FAILED_VERIFICATION: return NSURLErrorServerCertificateUntrusted;
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_SSL_CERTPROBLEM:
    case CURLE_SSL_CIPHER:
    case CURLE_SSL_CACERT_BADFILE: return NSURLErrorSecureConnectionFailed;
    case CURLE_URL_MALFORMAT: return NSURLErrorBadURL;
    case CURLE_UNSUPPORTED_PROTOCOL: return NSURLErrorUnsupportedURL;
    case CURLE_BAD_CONTENT_ENCODING: return NSURLErrorCannotDecodeContentData;
    default: return NSURLErrorUnknown;
  }
}

// The URL up to its query: the query may hold the API token.
std::string withoutQuery(const std::string& url) { return url.substr(0, url.find('?')); }

}  // namespace

std::shared_ptr<ZBCurlTransport> ZBCurlTransport::create() {
  static std::once_flag once;
  std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
  return std::make_shared<ZBCurlTransport>();
}

bool ZBCurlTransport::send(const ZBHTTPRequest& request, ZBHTTPResponse& response,
                           const std::function<bool()>& cancelled, NSErrorPtr* error) {
  response = ZBHTTPResponse();
  std::unique_ptr<CURL, EasyDeleter> curl(curl_easy_init());
  auto fail = [&](std::int64_t code, const std::string& description) {
    return ZBSetError(error, NSError::create(NSURLErrorDomain, code,
                                             Dictionary{{NSLocalizedDescriptionKey, description},
                                                        {NSURLErrorFailingURLStringErrorKey, withoutQuery(request.url)}}));
  };
  if (!curl) return fail(NSURLErrorUnknown, "The network library could not start a request.");
  CURL* c = curl.get();
  Exchange x{c, &response, request.maximumBodySize, &cancelled, &request.bodyConsumer};
  x.leaving = &request.leaving;
  curl_easy_setopt(c, CURLOPT_URL, request.url.c_str());
  curl_easy_setopt(c, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(c, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(c, CURLOPT_FOLLOWLOCATION, 0L);
  curl_easy_setopt(c, CURLOPT_USERAGENT, "ZBTarrowData/1.0");
  // The full list shrinks to a fifth with gzip, which the service's web
  // server offers; other codings buy little and cost more to produce.
  curl_easy_setopt(c, CURLOPT_ACCEPT_ENCODING, "gzip");
  curl_easy_setopt(c, CURLOPT_TIMEOUT_MS, static_cast<long>(request.timeout * 1000));
  curl_easy_setopt(c, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(request.connectTimeout * 1000));
  // A streamed answer is a long one: fewer, larger reads cost less.
  if (request.bodyConsumer) curl_easy_setopt(c, CURLOPT_BUFFERSIZE, 256L * 1024);
  curl_easy_setopt(c, CURLOPT_WRITEFUNCTION, onBody);
  curl_easy_setopt(c, CURLOPT_WRITEDATA, &x);
  curl_easy_setopt(c, CURLOPT_HEADERFUNCTION, onHeader);
  curl_easy_setopt(c, CURLOPT_HEADERDATA, &x);
  curl_easy_setopt(c, CURLOPT_NOPROGRESS, 0L);
  curl_easy_setopt(c, CURLOPT_XFERINFOFUNCTION, onProgress);
  curl_easy_setopt(c, CURLOPT_XFERINFODATA, &x);
  curl_easy_setopt(c, CURLOPT_PREREQFUNCTION, onLeaving);
  curl_easy_setopt(c, CURLOPT_PREREQDATA, &x);
  if (!request.username.empty()) {
    curl_easy_setopt(c, CURLOPT_HTTPAUTH, CURLAUTH_BASIC);
    curl_easy_setopt(c, CURLOPT_USERNAME, request.username.c_str());
    curl_easy_setopt(c, CURLOPT_PASSWORD, request.password.c_str());
  }
  CURLcode code = curl_easy_perform(c);
  if (code != CURLE_OK) {
    if (x.tooLarge) return fail(NSURLErrorDataLengthExceedsMaximum, "The answer is too large.");
    // curl's own texts name no URL, so they are safe to pass on.
    return fail(urlErrorCode(code), curl_easy_strerror(code));
  }
  curl_easy_getinfo(c, CURLINFO_RESPONSE_CODE, &response.status);
  return true;
}
