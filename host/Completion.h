#pragma once

#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace quendo::host {

/// The shells that completionScript() knows.
const std::vector<std::string>& completionShells();

/// A script that makes `shell` complete the commands and options of `app`, and file names.
std::string completionScript(const CLI::App& app, const std::string& shell);

} // namespace quendo::host
