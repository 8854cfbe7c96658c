#include "quendo/pool/ManagedFolder.h"

namespace quendo {

ManagedFolder::~ManagedFolder() = default;

} // namespace quendo
