#pragma once

#include "quendo/platform/Export.h"

namespace quendo {

namespace platform {
class HostArray;
}

/// Built-in of the host's scripting language: the live folders of the process's provider, by root,
/// as a string array of one column. An element has the lines "root: ", "system: ", "system id: ",
/// "UUID: " and one "client: IDENTIFIER COUNT" for each client, each ended by a line break.
///
/// @param nlhs how many results are wanted, at most one
/// @param plhs has room for one result also when none is wanted; it gets a new array, which the
///             caller owns and deletes
/// @param nrhs 0, or 1: then only folders are listed that the client with this identifier holds
/// @throws platform::TooManyOutputsError, TooManyInputsError, TooFewInputsError;
///         platform::HostCallError when the input is not one string
QUENDO_API void getClients(int nlhs, platform::HostArray* plhs[], int nrhs,
                           const platform::HostArray* prhs[]);

} // namespace quendo
