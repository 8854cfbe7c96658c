#pragma once

#include "quendo/adapter/CMAdapterFactory.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace quendo::test {

/// Makes working copies of one source-control system. Whoever writes an adapter writes one of
/// these.
struct ContractSubject {
    std::function<std::shared_ptr<CMAdapterFactory>()> factory;

    /// Shell functions that are called in the root of a working copy; FILE is relative to it:
    ///
    ///     create           makes an empty working copy of this folder
    ///     commit MESSAGE   puts all that is on disk under control, and makes a revision of it
    ///     add FILE         schedules it for addition
    ///     remove FILE      schedules it for deletion and leaves it on disk
    ///     ignore FILE      has a file or folder ignored, without a file on disk that says so
    ///     damage           makes it unusable; canManage() must still recognise it
    ///
    /// The rules about the rest are not checked for a system that lacks such a thing:
    ///
    ///     conflict FILE    leaves a tracked file conflicted, with the sides "base\n", "ours\n"
    ///                      and "theirs\n"; called while nothing else is modified
    ///     foreign          gives the repository's format a version that nobody knows
    std::string script;
};

/// Runs an adapter through every rule and tells the violations of the contract
/// (quendo/adapter/CMAdapter.h, CMAdapterFactory.h), each as "RULE: WHAT"; empty for one that is
/// right. It is a violation of the rule "powerless" when this process has root's powers over
/// unreadable files.
std::vector<std::string> checkAdapterContract(const ContractSubject& subject);

} // namespace quendo::test
