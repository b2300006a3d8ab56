#include "platform/foundation/NSUUID.h"

#include <openssl/rand.h>

#include <random>

NSUUID::NSUUID() {
  if (RAND_bytes(_bytes.data(), static_cast<int>(_bytes.size())) != 1) {
    // The system generator is unavailable (no entropy source): fall back to
    // the C++ one rather than hand out a predictable or repeated identifier.
    thread_local std::random_device device;
    for (auto& byte : _bytes) byte = static_cast<std::uint8_t>(device());
  }
  _bytes[6] = static_cast<std::uint8_t>((_bytes[6] & 0x0F) | 0x40);  // version 4
  _bytes[8] = static_cast<std::uint8_t>((_bytes[8] & 0x3F) | 0x80);  // RFC 4122 variant
}

std::optional<NSUUID> NSUUID::fromString(std::string_view text) {
  if (text.size() != 36) return std::nullopt;
  std::array<std::uint8_t, 16> bytes{};
  std::size_t byte = 0;
  for (std::size_t i = 0; i < text.size();) {
    if (i == 8 || i == 13 || i == 18 || i == 23) {
      if (text[i] != '-') return std::nullopt;
      ++i;
      continue;
    }
    int value = 0;
    for (int k = 0; k < 2; ++k, ++i) {
      const char c = text[i];
      int nibble;
      if (c >= '0' && c <= '9') nibble = c - '0';
      else if (c >= 'a' && c <= 'f') nibble = c - 'a' + 10;
      else if (c >= 'A' && c <= 'F') nibble = c - 'A' + 10;
      else return std::nullopt;
      value = value * 16 + nibble;
    }
    bytes[byte++] = static_cast<std::uint8_t>(value);
  }
  return NSUUID(bytes);
}

std::string NSUUID::UUIDString() const {
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string out;
  out.reserve(36);
  for (std::size_t i = 0; i < _bytes.size(); ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) out += '-';
    out += kHex[_bytes[i] >> 4];
    out += kHex[_bytes[i] & 0x0F];
  }
  return out;
}

std::string ZBGloballyUniqueString() { return NSUUID().UUIDString(); }
