#include "quendo/change_detection/ExternalChangeDetectingCMAdapter.h"

#include "quendo/adapter/CMAdapterDecorator.h"
#include "quendo/adapter/SubsystemType.h"
#include "quendo/cache/RefreshReason.h"
#include "quendo/platform/FolderExternalChangeDetector.h"
#include "quendo/platform/InvalidArgumentError.h"
#include "quendo/platform/Logging.h"
#include "quendo/platform/OwnWrites.h"

#include <utility>

namespace quendo {
namespace {

constexpr std::chrono::milliseconds window{250};

class ExternalChangeDetectingCMAdapter final : public CMAdapterDecorator {
public:
    ExternalChangeDetectingCMAdapter(std::unique_ptr<CMAdapter> adapter,
                                     const MetadataFolder& metadata,
                                     std::shared_ptr<ApplicationInteractor> interactor)
        : CMAdapterDecorator(std::move(adapter)),
          m_detector(metadata.folder, window, metadata.filter) {
        // It may still run when this adapter has gone.
        m_detector.onChange([interactor = std::move(interactor)] {
            const RefreshReasonScope reason(RefreshReason::ExternalChange);
            const auto held = interactor;
            held->getStatusTrigger().trigger();
        });
    }

    void checkin(const Path& file, const UString& message) const override {
        QUENDO_TRACE_SCOPE();
        disregarding([&] { CMAdapterDecorator::checkin(file, message); });
    }
    void checkin(const std::vector<Path>& files, const UString& message) const override {
        QUENDO_TRACE_SCOPE();
        disregarding([&] { CMAdapterDecorator::checkin(files, message); });
    }
    void addFiles(const std::vector<Path>& files) const override {
        QUENDO_TRACE_SCOPE();
        disregarding([&] { CMAdapterDecorator::addFiles(files); });
    }
    void removeFiles(const std::vector<Path>& files) const override {
        QUENDO_TRACE_SCOPE();
        disregarding([&] { CMAdapterDecorator::removeFiles(files); });
    }
    void moveFile(const Path& source, const Path& destination) const override {
        QUENDO_TRACE_SCOPE();
        disregarding([&] { CMAdapterDecorator::moveFile(source, destination); });
    }
    void uncheckout(const std::vector<Path>& files) const override {
        QUENDO_TRACE_SCOPE();
        disregarding([&] { CMAdapterDecorator::uncheckout(files); });
    }
    void checkout(const std::vector<Path>& files) const override {
        QUENDO_TRACE_SCOPE();
        disregarding([&] { CMAdapterDecorator::checkout(files); });
    }
    void resolveConflict(const Path& file) const override {
        QUENDO_TRACE_SCOPE();
        disregarding([&] { CMAdapterDecorator::resolveConflict(file); });
    }

    std::map<Path, FileState> getStatus(const std::vector<Path>& files) const override {
        QUENDO_TRACE_SCOPE();
        return CMAdapterDecorator::getStatus(files);
    }
    std::map<Path, FileState> getStatus(const Path& path, bool includeUntracked) const override {
        QUENDO_TRACE_SCOPE();
        return CMAdapterDecorator::getStatus(path, includeUntracked);
    }

    std::any getSubsystem(const std::type_info& type) override {
        QUENDO_TRACE_SCOPE();
        if (isSameType(type, typeid(FolderExternalChangeDetector)))
            return &m_detector;
        return CMAdapterDecorator::getSubsystem(type);
    }

private:
    /// Performs an operation whose own writes to the metadata are no external change.
    template <class Operation>
    void disregarding(Operation&& operation) const {
        std::shared_ptr<OwnWrites> writes;
        const auto guard = m_detector.disable(writes);
        const OwnWrites::Scope scope(std::move(writes));
        operation();
    }

    mutable FolderExternalChangeDetector m_detector; ///< goes before the wrapped adapter
};

} // namespace

std::unique_ptr<CMAdapter>
makeExternalChangeDetectingCMAdapter(std::unique_ptr<CMAdapter> adapter,
                                     std::shared_ptr<ApplicationInteractor> interactor) {
    QUENDO_TRACE_SCOPE();
    if (adapter == nullptr || interactor == nullptr)
        throw exception::InvalidArgumentError(
            "change detection needs an adapter and an interactor");
    const auto metadata = adapter->getMetadataFolder();
    return std::make_unique<ExternalChangeDetectingCMAdapter>(std::move(adapter), metadata,
                                                              std::move(interactor));
}

} // namespace quendo
