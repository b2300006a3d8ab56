#include "platform/foundation/ZBMD5.h"

#include <openssl/err.h>
#include <openssl/evp.h>

#include <memory>

#include "platform/foundation/ZBLocalizedString.h"

namespace {

struct ContextDeleter {
  void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
};

NSErrorPtr digestError() {
  const unsigned long code = ERR_get_error();
  char reason[256] = "no digest implementation";
  if (code != 0) ERR_error_string_n(code, reason, sizeof reason);
  ERR_clear_error();
  Dictionary info;
  info.set(NSLocalizedDescriptionKey, ZBLocalizedString("Couldn’t compute an MD5 digest."));
  info.set(NSLocalizedFailureReasonErrorKey, std::string(reason));  // OpenSSL's wording
  return NSError::create(NSCocoaErrorDomain, NSFileReadUnknownError, std::move(info));
}

}  // namespace

std::string ZBMD5HexString(const void* bytes, std::size_t length, NSErrorPtr* error) {
  std::unique_ptr<EVP_MD_CTX, ContextDeleter> context(EVP_MD_CTX_new());
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int digestLength = 0;
  if (!context || EVP_DigestInit_ex(context.get(), EVP_md5(), nullptr) != 1 ||
      EVP_DigestUpdate(context.get(), bytes, length) != 1 ||
      EVP_DigestFinal_ex(context.get(), digest, &digestLength) != 1) {
    ZBSetError(error, digestError());
    return {};
  }
  static constexpr char kHex[] = "0123456789abcdef";
  std::string out;
  out.reserve(digestLength * 2);
  for (unsigned int i = 0; i < digestLength; ++i) {
    out += kHex[digest[i] >> 4];
    out += kHex[digest[i] & 0x0F];
  }
  return out;
}

std::string ZBMD5HexString(std::string_view bytes, NSErrorPtr* error) {
  return ZBMD5HexString(bytes.data(), bytes.size(), error);
}
