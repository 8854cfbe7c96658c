#pragma once

#include "quendo/platform/Path.h"

#include <filesystem>
#include <string>
#include <string_view>

namespace quendo::test {

/// A fresh folder under the system's temporary one, canonical; removed with all it holds, whatever
/// the modes of what lies in it.
class TemporaryFolder {
public:
    TemporaryFolder();
    ~TemporaryFolder();
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    const std::filesystem::path& path() const { return m_path; }
    Path quendoPath() const { return Path::fromNative(m_path.native()); }

private:
    std::filesystem::path m_path;
};

/// Writes a file, with its parent folders.
void writeFile(const std::filesystem::path& file, std::string_view content);

/// The whole file; fails the test when it cannot be read.
std::string readFile(const std::filesystem::path& file);

} // namespace quendo::test
