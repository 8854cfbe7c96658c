#pragma once

#include "quendo/platform/Export.h"

#include <string>

namespace quendo::platform {

class QUENDO_API UuidGenerator {
public:
    virtual ~UuidGenerator();

    /// A fresh random UUID, 36 lower-case characters ("xxxxxxxx-xxxx-4xxx-yxxx-xxxxxxxxxxxx").
    virtual std::string generate() = 0;
};

} // namespace quendo::platform
