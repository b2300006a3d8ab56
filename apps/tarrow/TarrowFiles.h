#pragma once
// Whole-file reads and writes for backups (and, later, imports). Failures are
// TarrowFileError naming the file, with the system's reason as the failure
// reason.

#include <filesystem>
#include <optional>

#include "platform/foundation/NSError.h"
#include "platform/foundation/Value.h"

std::optional<Data> TarrowReadFile(const std::filesystem::path& path, NSErrorPtr* error);
// Writes to a temporary file beside path, then renames it over path, so a
// failure never leaves a half-written file behind.
[[nodiscard]] bool TarrowWriteFileAtomically(const std::filesystem::path& path, const Data& data, NSErrorPtr* error);
