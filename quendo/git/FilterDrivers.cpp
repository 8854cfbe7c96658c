#include "quendo/git/FilterDrivers.h"

#include "quendo/exception/AdapterErrors.h"
#include "quendo/git/GitFailure.h"
#include "quendo/git/GitRunner.h"

#include <algorithm>
#include <array>
#include <map>

namespace quendo::git {
namespace {

constexpr std::array<const char*, 3> programs = {"clean", "smudge", "process"};

struct Driver {
    std::map<std::string, std::string> ofUser; ///< by the setting's last part
    std::set<std::string> namedByRepository;
};

// What a system takes as a process's environment, less what the rest of it may need.
constexpr std::size_t mostOverrides = 5'000;
constexpr std::size_t longestOverride = 32 * 1024;

} // namespace

void FilterDrivers::add(const FilterDrivers& other) {
    overrides.insert(overrides.end(), other.overrides.begin(), other.overrides.end());
    std::ranges::sort(overrides);
    overrides.erase(std::ranges::unique(overrides).begin(), overrides.end());
    withoutClean.insert(other.withoutClean.begin(), other.withoutClean.end());
    withoutSmudge.insert(other.withoutSmudge.begin(), other.withoutSmudge.end());
    ofUser.insert(other.ofUser.begin(), other.ofUser.end());
}

FilterDrivers FilterDrivers::parse(std::string_view output) {
    std::map<std::string, Driver> drivers;
    // Records of two parts: scope NUL key LF value NUL; the LF is missing for a name alone.
    while (!output.empty()) {
        const auto scopeEnd = output.find('\0');
        const auto recordEnd =
            scopeEnd == std::string_view::npos ? scopeEnd : output.find('\0', scopeEnd + 1);
        if (recordEnd == std::string_view::npos)
            throwGarbage("config");
        const auto scope = output.substr(0, scopeEnd);
        const auto record = output.substr(scopeEnd + 1, recordEnd - scopeEnd - 1);
        output.remove_prefix(recordEnd + 1);
        const auto keyEnd = record.find('\n');
        const auto key = record.substr(0, keyEnd);
        const auto value =
            keyEnd == std::string_view::npos ? std::string_view("true") : record.substr(keyEnd + 1);
        const auto lastDot = key.rfind('.');
        if (!key.starts_with("filter.") || lastDot < 7 || lastDot == std::string_view::npos)
            continue;
        auto& driver = drivers[std::string(key.substr(7, lastDot - 7))];
        if (scope == "system" || scope == "global")
            driver.ofUser[std::string(key.substr(lastDot + 1))] = value;
        else if (scope != "command")
            driver.namedByRepository.insert(std::string(key.substr(lastDot + 1)));
    }

    FilterDrivers result;
    for (const auto& [name, driver] : drivers) {
        for (const char* program : programs)
            if (const auto found = driver.ofUser.find(program); found != driver.ofUser.end())
                result.ofUser[name] += found->second + "\n";
        const auto isNamed = [&](const char* setting) {
            return driver.namedByRepository.contains(setting);
        };
        if (driver.namedByRepository.empty())
            continue;
        const auto ofUser = [&](const std::string& setting) {
            const auto found = driver.ofUser.find(setting);
            return found == driver.ofUser.end() ? std::string() : found->second;
        };
        for (const char* program : programs)
            if (isNamed(program))
                result.overrides.push_back({"filter." + name + "." + program, ofUser(program)});
        // A process takes the place of the other two, an empty one as well: it cannot be unset.
        const bool hasProcess = !ofUser("process").empty();
        const bool blocked = isNamed("process") && !hasProcess;
        const bool cleans = hasProcess || (!blocked && !ofUser("clean").empty());
        const bool smudges = hasProcess || (!blocked && !ofUser("smudge").empty());
        if (!cleans && (blocked || isNamed("clean")))
            result.withoutClean.insert(name);
        if (!smudges && (blocked || isNamed("smudge")))
            result.withoutSmudge.insert(name);
        const bool lacks =
            result.withoutClean.contains(name) || result.withoutSmudge.contains(name);
        if (lacks || isNamed("required")) {
            const auto required = lacks ? std::string() : ofUser("required");
            result.overrides.push_back(
                {"filter." + name + ".required", required.empty() ? "false" : required});
        }
    }
    return result;
}

std::vector<std::string> FilterDrivers::question() {
    return {"config", "-z", "--show-scope", "--get-regexp",
            "^(filter\\..*|core\\.(excludesfile|attributesfile))$"};
}

void FilterDrivers::suspend(const std::set<std::string>& names) {
    for (const auto& name : names) {
        const auto prefix = "filter." + name + ".";
        std::erase_if(overrides, [&](const auto& one) {
            return one.key.starts_with(prefix) && one.key.find('.', prefix.size()) == one.key.npos;
        });
        for (const char* program : programs)
            overrides.push_back({prefix + program, ""});
        overrides.push_back({prefix + "required", "false"});
        withoutClean.insert(name);
        withoutSmudge.insert(name);
        ofUser.erase(name);
    }
}

void FilterDrivers::checkSize() const {
    bool tooLong = overrides.size() > mostOverrides;
    for (const auto& one : overrides)
        tooLong |= one.key.size() + one.value.size() > longestOverride;
    if (tooLong)
        throw exception::DamagedRepositoryError(
            "the repository's configuration names more filters than can be put aside; remove the "
            "[filter] sections that you do not need from .git/config");
}

FilterDrivers FilterDrivers::read(GitRunner& git) {
    constexpr int noneFound = 1;
    FilterDrivers result;
    git.readConfiguration(question(), noneFound,
                          [&](std::string_view answer) { result = parse(answer); });
    return result;
}

} // namespace quendo::git
