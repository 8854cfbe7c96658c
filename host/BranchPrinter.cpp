#include "host/BranchPrinter.h"

#include "host/JsonText.h"
#include "host/VisibleText.h"
#include "quendo/adapter/CMAdapter.h"
#include "quendo/platform/UString.h"

#include <nlohmann/json.hpp>

#include <any>
#include <array>
#include <string_view>

namespace quendo::host {
namespace {

struct OperationWords {
    std::string_view id; ///< in JSON
    std::string_view name;
    std::string_view ends; ///< what finishes it and what gives it up
};

/// In the order of OngoingOperation, from its second value on.
constexpr std::array<OperationWords, 6> operations = {{
    {"merge", "a merge", "finish it with quendo checkin, or give it up with git merge --abort"},
    {"rebase", "a rebase",
     "go on with git rebase --continue, or give it up with git rebase --abort"},
    {"cherry-pick", "a cherry-pick",
     "go on with git cherry-pick --continue, or give it up with git cherry-pick --abort"},
    {"revert", "a revert",
     "go on with git revert --continue, or give it up with git revert --abort"},
    {"bisect", "a bisection", "end it with git bisect reset"},
    {"am", "applying patches from a mailbox",
     "go on with git am --continue, or give it up with git am --abort"},
}};

const OperationWords& wordsOf(OngoingOperation operation) {
    return operations.at(static_cast<std::size_t>(operation) - 1);
}

std::string shown(const UString& text) {
    return visibleText(toUtf8(text));
}

std::string upstreamText(const BranchState& state) {
    if (state.upstream.empty())
        return {};
    const auto name = shown(state.upstream);
    if (state.isUpstreamGone)
        return ", whose upstream " + name + " is gone";
    if (!state.divergence)
        return ", upstream " + name;
    const auto [ahead, behind] = *state.divergence;
    if (ahead == 0 && behind == 0)
        return ", up to date with " + name;
    return (ahead == 0 ? "" : ", " + std::to_string(ahead) + " ahead of") +
           (ahead == 0 || behind == 0 ? "" : " and") +
           (behind == 0 ? "" : (ahead == 0 ? ", " : " ") + std::to_string(behind) + " behind") +
           " " + name;
}

} // namespace

BranchInformation* branchInformationOf(CMAdapter& adapter) {
    const auto subsystem = adapter.getSubsystem(typeid(BranchInformation));
    auto* const* information = std::any_cast<BranchInformation*>(&subsystem);
    return information == nullptr ? nullptr : *information;
}

std::string operationNotice(const BranchState& state, bool isStill) {
    if (state.operation == OngoingOperation::None)
        return {};
    const auto& words = wordsOf(state.operation);
    std::string text(words.name);
    if (!state.operationBranch.empty())
        text += (state.operation == OngoingOperation::Bisect ? " from " : " of ") +
                shown(state.operationBranch);
    text += isStill ? " is still in progress" : " is in progress";
    if (state.progress)
        text += ", step " + std::to_string(state.progress->step) + " of " +
                std::to_string(state.progress->steps);
    return text.append(": ").append(words.ends);
}

std::string humanBranch(const BranchState& state, bool colours) {
    constexpr std::size_t shortLength = 10;
    std::string text;
    if (!state.branch.empty())
        text = "on " + shown(state.branch) +
               (state.commit.empty() ? ", before its first commit" : "") + upstreamText(state);
    else
        text = "on no branch, at " + shown(state.commit.substr(0, shortLength));
    text += "\n";
    if (const auto notice = operationNotice(state); !notice.empty())
        text += (colours ? "\x1b[1;33m" : "") + notice + (colours ? "\x1b[0m\n" : "\n");
    return text;
}

std::string jsonBranch(const BranchState& state, const Path& root, const std::string& system) {
    nlohmann::ordered_json line;
    const auto put = [&](const char* name, const UString& text) {
        auto& value = line[name];
        if (!text.empty())
            value = toUtf8(text);
    };
    line["system"] = system;
    putPath(line, root, "root");
    put("branch", state.branch);
    put("commit", state.commit);
    put("upstream", state.upstream);
    line["upstream_gone"] = state.isUpstreamGone;
    line["ahead"] = nullptr;
    line["behind"] = nullptr;
    if (state.divergence) {
        line["ahead"] = state.divergence->ahead;
        line["behind"] = state.divergence->behind;
    }
    line["operation"] = nullptr;
    if (state.operation != OngoingOperation::None)
        line["operation"] = wordsOf(state.operation).id;
    put("operation_branch", state.operationBranch);
    line["step"] = nullptr;
    line["steps"] = nullptr;
    if (state.progress) {
        line["step"] = state.progress->step;
        line["steps"] = state.progress->steps;
    }
    return jsonLine(line);
}

} // namespace quendo::host
