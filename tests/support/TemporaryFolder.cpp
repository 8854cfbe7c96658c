#include "tests/support/TemporaryFolder.h"
#include "tests/support/Process.h"

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <system_error>

namespace quendo::test {

namespace fs = std::filesystem;

TemporaryFolder::TemporaryFolder() {
    std::string name = (fs::temp_directory_path() / "quendo-test-XXXXXX").native();
    if (::mkdtemp(name.data()) == nullptr)
        throw std::system_error(errno, std::generic_category(), "mkdtemp " + name);
    m_path = fs::canonical(name);
}

TemporaryFolder::~TemporaryFolder() {
    std::error_code error;
    if (fs::remove_all(m_path, error); error) {
        // A test may have left folders that cannot be entered.
        runProcess({"chmod", "-R", "u+rwX", m_path.native()}, {});
        fs::remove_all(m_path, error);
    }
}

void writeFile(const fs::path& file, std::string_view content) {
    fs::create_directories(file.parent_path());
    std::ofstream stream(file, std::ios::binary | std::ios::trunc);
    stream << content;
    stream.close();
    if (!stream)
        throw std::runtime_error("cannot write " + file.native());
}

std::string readFile(const fs::path& file) {
    std::ifstream stream(file, std::ios::binary);
    if (!stream)
        throw std::runtime_error("cannot read " + file.native());
    return {std::istreambuf_iterator<char>(stream), {}};
}

} // namespace quendo::test
