#pragma once
// ZBPinboardCredentials: a signed-in user's name and API token, and the file
// that keeps them between runs.
//
// The token stays inside this object: description() and valueForKey() show
// only the user name. Immutable, so thread-safe; held by std::shared_ptr.

#include <filesystem>
#include <memory>
#include <string>

#include "platform/foundation/NSError.h"
#include "platform/foundation/NSObject.h"

class ZBPinboardCredentials final : public NSObject {
public:
  // token is the secret part, without "username:".
  static std::shared_ptr<ZBPinboardCredentials> create(std::string username, std::string token);

  const std::string& username() const { return _username; }
  const std::string& token() const { return _token; }
  // "username:SECRET", the form the API's auth_token takes.
  std::string apiToken() const { return _username + ":" + _token; }

  // "username" only; other keys throw std::logic_error as NSObject's do.
  Value valueForKey(const std::string& key) const override;
  bool isEqual(const NSObject& other) const override;
  std::size_t hash() const override;
  std::string className() const override { return "ZBPinboardCredentials"; }
  std::string description() const override;

  // ---- The credentials file ----
  // A property list {"username", "token"} readable only by the user (mode
  // 0600, its directory created 0700), replaced atomically.
  // Returns false and sets error (NSCocoaErrorDomain file codes) on failure.
  [[nodiscard]] bool writeToFile(const std::filesystem::path& file, NSErrorPtr* error = nullptr) const;
  // nullptr when the file is missing (no error) or unreadable / damaged
  // (error set). A file others can read is tightened to 0600 on the way.
  static std::shared_ptr<ZBPinboardCredentials> readFromFile(const std::filesystem::path& file,
                                                             NSErrorPtr* error = nullptr);
  // Removes the file; a missing file is success.
  [[nodiscard]] static bool removeFile(const std::filesystem::path& file, NSErrorPtr* error = nullptr);

  ZBPinboardCredentials(std::string username, std::string token);  // use create()

private:
  const std::string _username;
  const std::string _token;
};
