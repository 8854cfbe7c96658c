#include "quendo/adapter/QueryMeter.h"

#include "quendo/adapter/CMAdapterDecorator.h"
#include "quendo/adapter/FileState.h"

#include <any>
#include <map>
#include <typeinfo>
#include <utility>
#include <vector>

namespace quendo {
namespace {

class MeteredCMAdapter final : public CMAdapterDecorator {
public:
    using CMAdapterDecorator::CMAdapterDecorator;

    std::map<Path, FileState> getStatus(const std::vector<Path>& files) const override {
        const Span span(*m_meter);
        return CMAdapterDecorator::getStatus(files);
    }
    std::map<Path, FileState> getStatus(const Path& path, bool includeUntracked) const override {
        const Span span(*m_meter);
        return CMAdapterDecorator::getStatus(path, includeUntracked);
    }
    std::any getSubsystem(const std::type_info& type) override {
        if (type == typeid(QueryMeter))
            return m_meter.get();
        return CMAdapterDecorator::getSubsystem(type);
    }

private:
    struct Span {
        explicit Span(QueryMeter& target) : meter(target) {}
        ~Span() { meter.add(std::chrono::steady_clock::now() - start); }
        Span(const Span&) = delete;
        Span& operator=(const Span&) = delete;
        QueryMeter& meter;
        const std::chrono::steady_clock::time_point start = std::chrono::steady_clock::now();
    };

    const std::shared_ptr<QueryMeter> m_meter = std::make_shared<QueryMeter>();
};

} // namespace

std::unique_ptr<CMAdapter> meterQueries(std::unique_ptr<CMAdapter> adapter) {
    if (adapter == nullptr)
        return nullptr;
    return std::make_unique<MeteredCMAdapter>(std::move(adapter));
}

} // namespace quendo
