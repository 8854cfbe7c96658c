#pragma once

#include "quendo/adapter/CMAdapterFactory.h"

#include <memory>
#include <string>

namespace quendo::test {

/// Adapters for a made-up source-control system, for tests that need a back end which is quick and
/// does what it is told; they read, add and remove, all else is not available. All that the system
/// knows of a working copy lies in ".fake" in the root, as plain files:
///
///     format            "1"
///     ignored/PATH      an ignored file or folder
///     base/PATH         a tracked file as it was committed last
///     added/PATH, deleted/PATH   marks
///     conflicts/SIDE/PATH        SIDE is base, ours or theirs
///     log/N/message, log/N/files/PATH   the files that revision N changed
class ScriptedAdapterFactory : public CMAdapterFactory {
public:
    std::unique_ptr<CMAdapter>
    createAdapter(const Path& folder, std::shared_ptr<CMApplicationInteractor> interactor) override;
    UString getSystemName() const override { return u"Scripted"; }
    bool canManage(const Path& folder) override;
    UString getMetadataName() const override { return u".fake"; }
    UString getProblem() const override { return {}; }
    std::string getID() const override { return "scripted"; }
};

} // namespace quendo::test
