#include "quendo/platform/FolderWatcher.h"

namespace quendo::platform {

FolderWatcher::~FolderWatcher() = default;
FolderWatcher::Watch::~Watch() = default;

} // namespace quendo::platform
