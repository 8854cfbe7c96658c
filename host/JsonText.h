#pragma once

#include "quendo/platform/Path.h"

#include <nlohmann/json_fwd.hpp>

#include <string>

namespace quendo::host {

/// `name` in valid UTF-8 and, where its bytes are no UTF-8, `name`_hex.
void putPath(nlohmann::ordered_json& object, const Path& path, const std::string& name = "path");

/// The object on a line of its own. Its strings have to be valid UTF-8.
std::string jsonLine(const nlohmann::ordered_json& object);

} // namespace quendo::host
