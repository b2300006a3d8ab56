#pragma once
// The URL-loading error domain and the codes this library reports in it.

#include <cstdint>
#include <string>

extern const std::string NSURLErrorDomain;
// User-information key: the text of the URL that failed.
extern const std::string NSURLErrorFailingURLStringErrorKey;

enum : std::int64_t {
  NSURLErrorUnknown = -1,
  NSURLErrorCancelled = -999,
  NSURLErrorBadURL = -1000,
  NSURLErrorTimedOut = -1001,
  NSURLErrorUnsupportedURL = -1002,
  NSURLErrorCannotFindHost = -1003,
  NSURLErrorCannotConnectToHost = -1004,
  NSURLErrorNetworkConnectionLost = -1005,
  NSURLErrorDNSLookupFailed = -1006,
  NSURLErrorHTTPTooManyRedirects = -1007,
  NSURLErrorResourceUnavailable = -1008,
  NSURLErrorNotConnectedToInternet = -1009,
  NSURLErrorBadServerResponse = -1011,
  NSURLErrorUserCancelledAuthentication = -1012,
  NSURLErrorUserAuthenticationRequired = -1013,
  NSURLErrorZeroByteResource = -1014,
  NSURLErrorCannotDecodeRawData = -1015,
  NSURLErrorCannotDecodeContentData = -1016,
  NSURLErrorCannotParseResponse = -1017,
  NSURLErrorFileDoesNotExist = -1100,
  NSURLErrorDataLengthExceedsMaximum = -1103,
  NSURLErrorSecureConnectionFailed = -1200,
  NSURLErrorServerCertificateUntrusted = -1202,
};
