#include "host/JsonText.h"

#include <nlohmann/json.hpp>

namespace quendo::host {

void putPath(nlohmann::ordered_json& object, const Path& path, const std::string& name) {
    std::string text = path.toUtf8();
    const std::string bytes = path.toNative();
    if (text != bytes) {
        std::string hex;
        hex.reserve(bytes.size() * 2);
        for (const unsigned char byte : bytes) {
            hex += "0123456789abcdef"[byte >> 4];
            hex += "0123456789abcdef"[byte & 15];
        }
        object[name] = std::move(text);
        object[name + "_hex"] = std::move(hex);
    } else {
        object[name] = std::move(text);
    }
}

std::string jsonLine(const nlohmann::ordered_json& object) {
    return object.dump() + "\n";
}

} // namespace quendo::host
