#pragma once

#include "quendo/platform/Export.h"

#include <cstdint>
#include <map>
#include <string>

namespace quendo {

class ManagedFolder;

/// All that is known about a managed folder, as text for people: what to attach to a report such as
/// "it showed an old state". Mostly one "name: value" a line:
///
///     root: /home/me/project
///     ...                          as getClients() lists it
///     watch of the root: native
///     watch of the metadata: polled: no watches are left; raise ...
///     folder status flag: on
///     entries: 1204 in 31 folders: 1200 Unmodified, 4 Modified
///     freshness of the root: answered 2.041 s ago, nothing pending
///     branch: main
///     ...                          queue, running query, retries, counts by reason, last refreshes
///     ...                          watches by kind, pending events, last events
///
/// The names and their order may change; do not parse them.
///
/// Threads: any. Waits for no query and no operation. The branch state of a folder that nobody has
/// asked for it begins to be read. What cannot be had is a line that says why.
QUENDO_API std::string describe(ManagedFolder& folder);

/// The first lines of describe(), with these clients.
QUENDO_API std::string describeClients(const ManagedFolder& folder,
                                       const std::map<std::string, std::uint64_t>& clients);

} // namespace quendo
