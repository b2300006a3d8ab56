#pragma once
// A private data home for store tests: XDG_DATA_HOME and the application
// groups point into a temporary directory for the fixture's lifetime.

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "support/TemporaryDirectory.h"

class StoreEnvironment {
public:
  explicit StoreEnvironment(const char* groups = "group.com.orvane.tarrow:group.other") {
    setenv("XDG_DATA_HOME", _home.path().c_str(), 1);
    if (groups) {
      setenv("ZBTARROW_APPLICATION_GROUPS", groups, 1);
    } else {
      unsetenv("ZBTARROW_APPLICATION_GROUPS");
    }
  }
  ~StoreEnvironment() {
    unsetenv("XDG_DATA_HOME");
    unsetenv("ZBTARROW_APPLICATION_GROUPS");
  }
  const std::filesystem::path& home() const { return _home.path(); }
  std::filesystem::path stores(const std::string& group = "group.com.orvane.tarrow") const {
    return _home.path() / group / "Library" / "Application Support" / "Stores";
  }

private:
  TemporaryDirectory _home;
};
