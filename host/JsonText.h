#pragma once

#include "quendo/platform/Path.h"

#include <nlohmann/json_fwd.hpp>

#include <string>

namespace quendo::host {

/// "path" in valid UTF-8 and, where its bytes are no UTF-8, "path_hex".
void putPath(nlohmann::ordered_json& object, const Path& path);

/// The object on a line of its own. Its strings have to be valid UTF-8.
std::string jsonLine(const nlohmann::ordered_json& object);

} // namespace quendo::host
