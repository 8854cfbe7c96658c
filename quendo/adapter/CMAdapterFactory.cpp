#include "quendo/adapter/CMAdapterFactory.h"

namespace quendo {

CMAdapterFactory::~CMAdapterFactory() = default;

} // namespace quendo
