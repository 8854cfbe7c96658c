#pragma once

// The platform's own errors derive from it too, so it is defined beside them.
#include "quendo/platform/SourceControlException.h"
