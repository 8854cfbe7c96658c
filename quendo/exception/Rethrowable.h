#pragma once

#include "quendo/platform/Rethrowable.h"
