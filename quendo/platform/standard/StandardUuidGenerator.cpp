#include "quendo/platform/standard/StandardUuidGenerator.h"

#include <boost/uuid/random_generator.hpp>
#include <boost/uuid/uuid_io.hpp>

namespace quendo::platform {

std::string StandardUuidGenerator::generate() {
    return boost::uuids::to_string(boost::uuids::random_generator()());
}

} // namespace quendo::platform
