#include "quendo/adapter/CMApplicationInteractor.h"
#include "tests/support/Testing.h"

#include <boost/signals2/signal.hpp>

namespace quendo {
namespace {

TEST(Interactor, FacesReachOneAnother) {
    CMApplicationInteractor interactor;
    ApplicationInteractor& work = interactor;
    CMInteractor& host = interactor;
    host.getTerminationTrigger().trigger(); // nobody listens

    int stops = 0, refreshes = 0;
    std::string progress;
    const auto stop = work.getTerminator().connect([&] { ++stops; });
    host.getStatusDispatcher().connect([&] { ++refreshes; });
    work.getStatusTrigger().connect([&] { ++refreshes; });
    const auto listen = [&](const UString& text, double part) {
        progress += toUtf8(text) + std::to_string(int(part * 10));
    };
    host.getProgressDispatcher().connect(listen);
    work.getProgressIndicator().connect(listen);

    host.getTerminationTrigger().trigger();
    work.getTerminator().trigger();
    work.getStatusTrigger().trigger();
    work.getProgressIndicator().report(u"beyond", 1.5);
    EXPECT_EQ(stops, 2);
    EXPECT_EQ(refreshes, 2);
    EXPECT_EQ(progress, "beyond15beyond15");
    stop.disconnect();
    work.getTerminator().connect([] { throw std::runtime_error("listener"); });
    work.getTerminator().connect([&] { ++stops; });
    EXPECT_THROW(host.getTerminationTrigger().trigger(), std::runtime_error);
    EXPECT_EQ(stops, 2) << "none after the one that threw, nor who has gone";
}

TEST(Interactor, AKeyHoldsOneConnection) {
    auto interactor = std::make_unique<CMApplicationInteractor>();
    auto& terminator = interactor->getTerminator();
    std::string heard;
    const auto listener = [&](char mark) { return [&heard, mark] { heard += mark; }; };
    const auto first = terminator.connect(listener('a'));
    terminator.keepConnection("key", first);
    terminator.keepConnection("other", terminator.connect(listener('b')));
    terminator.keepConnection("key", terminator.connect(listener('c')));
    EXPECT_FALSE(first.connected());
    terminator.trigger();
    EXPECT_EQ(heard, "bc");
    terminator.removeConnection("unknown");
    terminator.removeConnection("key");
    terminator.trigger();
    EXPECT_EQ(heard, "bcb");

    boost::signals2::signal<void()> elsewhere;
    const auto foreign = elsewhere.connect(listener('d'));
    terminator.keepConnection("foreign", foreign);
    interactor.reset();
    EXPECT_FALSE(foreign.connected()) << "keyed connections go with the interactor";
}

} // namespace
} // namespace quendo
