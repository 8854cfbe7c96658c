#pragma once

#include "quendo/platform/UString.h"

namespace quendo {

/// Who the back end says the user is; a part that it does not know is empty.
struct UserInfo {
    UString name;
    UString email;
};

} // namespace quendo
