#include "quendo/pool/ManagedFolder.h"

namespace quendo {

ManagedFolder::~ManagedFolder() = default;

BranchStateCache* ManagedFolder::getBranchStateCache() const {
    return nullptr;
}

} // namespace quendo
