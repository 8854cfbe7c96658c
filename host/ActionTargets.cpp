#include "host/ActionTargets.h"

#include "host/HostError.h"
#include "host/StatusPrinter.h"
#include "host/VisibleText.h"
#include "quendo/platform/UString.h"

#include <algorithm>
#include <optional>

namespace quendo::host {

ActionTargets ActionTargets::of(const std::vector<std::string>& arguments,
                                WorkingCopy (*open)(const std::string&)) {
    std::optional<ActionTargets> result;
    for (const auto& argument : arguments) {
        auto copy = open(argument);
        if (result && copy.root != result->copy.root)
            throw HostError(visiblePath(arguments.front()) + " and " + visiblePath(argument) +
                            " belong to different working copies: name those of one at a time");
        auto path = copy.path;
        if (!result)
            result.emplace(ActionTargets{std::move(copy), arguments, {}});
        result->paths.push_back(std::move(path));
    }
    return std::move(result).value();
}

ActionTargets ActionTargets::ofFiles(const std::vector<std::string>& arguments) {
    return of(arguments, &WorkingCopy::ofFile);
}

ActionTargets ActionTargets::ofPaths(const std::vector<std::string>& arguments) {
    return of(arguments, &WorkingCopy::ofPath);
}

ActionTargets::States ActionTargets::states() const {
    auto states = copy.adapter().getStatus(paths);
    for (std::size_t i = 0; i < paths.size(); ++i) {
        const auto found = states.find(paths[i]);
        // A folder that has gone is still there as what was in it.
        const auto isWithin = [&](const auto& entry) { return entry.first.isBelow(paths[i]); };
        if (found == states.end() && paths[i] != copy.root &&
            std::ranges::none_of(states, isWithin))
            throw HostError(visiblePath(arguments[i]) + " does not exist");
        if (found == states.end() || found->second.getState() != LocalStatus::Unknown)
            continue;
        const auto* why = found->second.findProperty(property::why);
        throw HostError(visiblePath(arguments[i]) + " cannot be read" +
                        (why == nullptr ? "" : ": " + toUtf8(*why)));
    }
    return states;
}

void ActionTargets::refuseUntracked(const States& states) const {
    for (std::size_t i = 0; i < paths.size(); ++i) {
        const auto found = states.find(paths[i]);
        if (found != states.end() && isUntracked(found->second))
            throw HostError(visiblePath(arguments[i]) + " is not under source control");
    }
}

bool isUntracked(const FileState& state) {
    return state.getState() == LocalStatus::NotUnderSourceControl ||
           state.getState() == LocalStatus::Ignored;
}

bool isChanged(const FileState& state) {
    if (isUntracked(state) || state.getState() == LocalStatus::Unmodified ||
        state.getState() == LocalStatus::Unknown)
        return false;
    if (!state.isFolder())
        return state.getState() != LocalStatus::External;
    const auto* columns = state.findProperty(property::columns);
    const auto* inside = state.findProperty(property::submodule);
    if (columns == nullptr || columns->starts_with(u'?') || columns->starts_with(u'!'))
        return false;
    return !columns->starts_with(u'.') || inside == nullptr ||
           inside->find(u"commit") != UString::npos;
}

std::vector<Path> pathsWhere(const ActionTargets::States& states,
                             const std::function<bool(const FileState&)>& isMeant) {
    std::vector<Path> paths;
    for (const auto& [path, state] : states)
        if (isMeant(state))
            paths.push_back(path);
    return paths;
}

std::string countOf(std::size_t number) {
    return std::to_string(number) + (number == 1 ? " file" : " files");
}

std::string linesOf(const std::vector<Path>& paths, const ActionTargets::States& states,
                    const Path& root) {
    const auto current = currentFolder();
    std::string lines;
    for (const auto& path : paths)
        lines += nameFrom(current, root, path) + (states.at(path).isFolder() ? "/\n" : "\n");
    return lines;
}

} // namespace quendo::host
