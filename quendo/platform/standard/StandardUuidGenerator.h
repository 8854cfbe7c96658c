#pragma once

#include "quendo/platform/UuidGenerator.h"

namespace quendo::platform {

/// Random UUIDs from the system's random numbers. Any thread.
class QUENDO_API StandardUuidGenerator : public UuidGenerator {
public:
    std::string generate() override;
};

} // namespace quendo::platform
