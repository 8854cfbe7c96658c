#include "quendo/exception/AdapterErrors.h"
#include "quendo/exception/VFSChangeEventsError.h"
#include "quendo/platform/ChangeEventsSubscriptionException.h"
#include "quendo/platform/Executor.h"
#include "quendo/platform/HostArray.h"
#include "quendo/platform/InvalidArgumentError.h"
#include "quendo/platform/ReentrantReadWriteLock.h"
#include "quendo/platform/Services.h"
#include "tests/support/Testing.h"

namespace quendo::exception {
namespace {

using shared_quendo::core::VFSChangeEventsError;

struct Refused : std::runtime_error {
    using runtime_error::runtime_error;
};

std::string reasonOf(const std::exception& error) {
    try {
        std::rethrow_if_nested(error);
        return "none";
    } catch (const Refused& reason) {
        return reason.what();
    }
}

/// Copying and throwing again through the base keep type, text, stack and reason; twice, because
/// the second round starts from what the first one made.
template <class Error>
void expectUnsliced(const Error& original) {
    SCOPED_TRACE(typeid(Error).name());
    std::unique_ptr<SourceControlException> copy;
    try {
        try {
            throw Refused("no watches left");
        } catch (...) {
            std::throw_with_nested(original);
        }
    } catch (const SourceControlException& caught) {
        copy = caught.clone();
    }
    for (int round = 0; round < 2; ++round)
        try {
            copy->rethrow();
        } catch (const SourceControlException& again) {
            ASSERT_NE(dynamic_cast<const Error*>(&again), nullptr);
            EXPECT_STREQ(again.what(), original.what());
            EXPECT_EQ(again.stackTrace(), original.stackTrace());
            EXPECT_EQ(reasonOf(again), "no watches left");
            copy = again.clone();
        }
    EXPECT_EQ(reasonOf(*original.clone()), "none");
}

TEST(Errors, SurviveCopiesByTheirBase) {
    expectUnsliced(SourceControlException("plain"));
    expectUnsliced(ToolError("git is missing"));
    expectUnsliced(VFSChangeEventsError(UString(u"/folder")));
    expectUnsliced(InvalidArgumentError("a relative path"));
    expectUnsliced(InvalidPathError("a NUL"));
    expectUnsliced(ExecutorDeadlockError("waits for itself"));
    expectUnsliced(LockUpgradeError("reads"));
    expectUnsliced(platform::ServicesInUseError("in use"));
    expectUnsliced(platform::ChangeEventsSubscriptionException("refused"));
    expectUnsliced(platform::TooManyInputsError());
}

TEST(Errors, AFailingCatalogueOfTheHostDoesNotReplaceTheError) {
    struct Failing : platform::MessageCatalogue {
        UString format(const platform::MessageID&) const override {
            throw std::logic_error("no catalogue");
        }
    };
    platform::Services services;
    services.messages = std::make_shared<Failing>();
    const platform::ScopedServices scoped(services);
    EXPECT_STREQ(VFSChangeEventsError(u"/a").what(), "shared_quendo:core:VFSChangeEventsError");
}

} // namespace
} // namespace quendo::exception
