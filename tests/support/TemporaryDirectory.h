#pragma once
// A fresh directory under the system's temporary folder, removed with all its
// contents when the object goes out of scope.

#include <cstdlib>
#include <filesystem>
#include <string>

class TemporaryDirectory {
public:
  TemporaryDirectory() {
    std::string tmpl = (std::filesystem::temp_directory_path() / "zbtest-XXXXXX").string();
    if (!mkdtemp(tmpl.data())) std::abort();
    _path = tmpl;
  }
  ~TemporaryDirectory() {
    std::error_code ec;
    std::filesystem::remove_all(_path, ec);
  }
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

  const std::filesystem::path& path() const { return _path; }
  std::filesystem::path operator/(const std::string& name) const { return _path / name; }

private:
  std::filesystem::path _path;
};
