#include "quendo/pool/ManagedFolder.h"
#include "quendo/pool/ManagedFolderProvider.h"

#include <boost/log/expressions.hpp>
#include <boost/log/utility/setup/console.hpp>

#include <filesystem>
#include <iostream>

namespace logging = boost::log;
namespace expr = boost::log::expressions;

// Prints what the library logs while it opens the working copy that this folder lies in.
int main() {
    const auto channel = expr::attr<std::string>("Channel");
    const auto severity = expr::attr<int>("Severity"); // 2 detail, 8 notice, 16 caught exception
    const auto where = expr::stream << expr::attr<std::string>("Source") << ':'
                                    << expr::attr<int>("Line") << ": "
                                    << expr::attr<std::string>("Function");
    logging::add_console_log(std::clog,
                             logging::keywords::filter = channel == "quendo" && severity >= 2,
                             logging::keywords::format = where << ": " << expr::smessage);

    const auto here = quendo::Path::fromNative(std::filesystem::current_path().native());
    return quendo::getSingletonManagedFolderProvider().provideFor(here) != nullptr ? 0 : 1;
}
