#pragma once

#include "quendo/adapter/CMAdapter.h"
#include "quendo/adapter/CMAdapterFactory.h"
#include "quendo/adapter/CMApplicationInteractor.h"
#include "quendo/platform/Path.h"

#include <memory>

namespace quendo {

/// The working copy that governs a path.
struct ViableLocation {
    std::shared_ptr<CMAdapterFactory> factory;
    std::shared_ptr<CMApplicationInteractor> interactor; ///< made for `adapter`
    std::unique_ptr<CMAdapter> adapter;                  ///< raw
    Path root;                                           ///< as `adapter` answers it
};

} // namespace quendo
