#include "host/ExportCommand.h"

#include "host/HostError.h"
#include "host/JsonText.h"
#include "host/RevisionPrinter.h"
#include "host/Session.h"
#include "host/StandardStreams.h"
#include "host/StatusPrinter.h"
#include "host/VisibleText.h"
#include "host/WorkingCopy.h"
#include "quendo/platform/UString.h"

#include <CLI/App.hpp>
#include <nlohmann/json.hpp>

#include <array>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <unistd.h>

namespace quendo::host {

CLI::App* ExportCommand::describe(CLI::App& program) {
    auto* app = program.add_subcommand("export", "Write a file as it was in a revision");
    app->add_option("FILE", file, "The file")->required();
    app->add_option("REVISION", revision, "Which revision: an id, or a name")->required();
    app->add_option("TARGET", target, "The file to write; must not exist; - for standard output")
        ->required();
    app->add_flag("--json", json, "Print a JSON object that says what was done");
    app->footer("Examples:\n"
                "  quendo export README.md HEAD~1 /tmp/README.before.md\n"
                "  quendo export src/a.c 1f3a9c2 old-a.c\n"
                "  quendo export src/a.c main - | less");
    app->final_callback([this] {
        if (json && target == "-")
            throw CLI::ValidationError("--json and the target - cannot go together");
    });
    return app;
}

namespace {

/// A folder for one file on its way to standard output.
class ScratchFolder {
public:
    ScratchFolder() {
        std::error_code error;
        auto name = (std::filesystem::temp_directory_path(error) / "quendo-XXXXXX").native();
        if (error || ::mkdtemp(name.data()) == nullptr)
            throw HostError(
                "cannot make a temporary folder; set TMPDIR to one that can be written");
        m_path = name;
    }
    ~ScratchFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }
    ScratchFolder(const ScratchFolder&) = delete;
    ScratchFolder& operator=(const ScratchFolder&) = delete;

    const std::filesystem::path& path() const { return m_path; }

private:
    std::filesystem::path m_path;
};

void writeContentOf(const std::filesystem::path& file) {
    // The content of a symbolic link is its target.
    if (std::filesystem::is_symlink(file))
        return writeOutput(std::filesystem::read_symlink(file).native());
    std::ifstream content(file, std::ios::binary);
    std::array<char, 64 * 1024> buffer;
    while (content.read(buffer.data(), buffer.size()) || content.gcount() > 0)
        writeOutput({buffer.data(), static_cast<std::size_t>(content.gcount())});
    if (!content.eof())
        throw HostError("cannot read the exported file again");
}

} // namespace

void ExportCommand::run() const {
    if (target == "-")
        return print();
    const Path destination = locate(target);
    const auto copy = WorkingCopy::ofFile(file);
    Session session(copy.interactor());
    const auto found = copy.adapter().findRevision(copy.path, toUString(revision));
    copy.adapter().exportRevision(copy.path, *found, destination);
    std::string report;
    if (json) {
        nlohmann::ordered_json line;
        line["system"] = copy.systemName();
        line["id"] = toUtf8(found->id);
        putPath(line, pathFromRoot(copy.path, copy.root));
        line["target"] = destination.toUtf8();
        report = jsonLine(line);
    } else if (isTerminal(STDOUT_FILENO)) {
        report = "wrote " + visiblePath(target) + ": " + visiblePath(file) + " as of " +
                 shortID(*found) + "\n";
    }
    session.finish(report);
}

void ExportCommand::print() const {
    const auto copy = WorkingCopy::ofFile(file);
    const ScratchFolder folder;
    const auto content = folder.path() / "content";
    Session session(copy.interactor());
    const auto found = copy.adapter().findRevision(copy.path, toUString(revision));
    copy.adapter().exportRevision(copy.path, *found, Path::fromNative(content.native()));
    session.finishFirst({});
    writeContentOf(content);
    session.finish({});
}

} // namespace quendo::host
