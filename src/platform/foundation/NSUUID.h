#pragma once
// NSUUID: a 128-bit universally unique identifier. New ones are random
// (version 4, RFC 4122 variant) from the system's cryptographic generator.
// A plain value; thread-safe.

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

class NSUUID {
public:
  // A new random identifier.
  NSUUID();
  explicit NSUUID(const std::array<std::uint8_t, 16>& bytes) : _bytes(bytes) {}
  // Parses the 8-4-4-4-12 hexadecimal form in either case; nullopt otherwise.
  static std::optional<NSUUID> fromString(std::string_view text);

  // Upper-case 8-4-4-4-12 form, "E621E1F8-C36C-495A-93FC-0C247A3E6E5F".
  std::string UUIDString() const;
  const std::array<std::uint8_t, 16>& bytes() const { return _bytes; }

  bool operator==(const NSUUID&) const = default;

private:
  std::array<std::uint8_t, 16> _bytes{};
};

// A new globally unique string in the platform's form (a new UUID's string),
// as the process information service hands them out. Thread-safe.
std::string ZBGloballyUniqueString();
