#pragma once
// MD5 digests as 32 lower-case hexadecimal characters (OpenSSL EVP).
// Thread-safe.

#include <cstddef>
#include <string>
#include <string_view>

#include "platform/foundation/NSError.h"

// The digest of exactly these bytes (a std::string's UTF-8 bytes as they
// are). Returns the empty string and sets *error only if OpenSSL refuses
// the digest (a FIPS-only configuration).
std::string ZBMD5HexString(std::string_view bytes, NSErrorPtr* error = nullptr);
std::string ZBMD5HexString(const void* bytes, std::size_t length, NSErrorPtr* error = nullptr);
