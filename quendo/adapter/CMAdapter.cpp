#include "quendo/adapter/CMAdapter.h"

#include "quendo/adapter/BranchInformation.h"
#include "quendo/adapter/CredentialProvider.h"
#include "quendo/adapter/IgnoreRuleEditor.h"
#include "quendo/adapter/RevisionContent.h"
#include "quendo/adapter/RevisionHistory.h"
#include "quendo/adapter/StateDependencies.h"
#include "quendo/exception/AdapterErrors.h"

namespace quendo {

CMAdapter::~CMAdapter() = default;
BranchInformation::~BranchInformation() = default;
CredentialProvider::~CredentialProvider() = default;
IgnoreRuleEditor::~IgnoreRuleEditor() = default;
Revision::~Revision() = default;
RevisionContent::~RevisionContent() = default;
RevisionHistory::~RevisionHistory() = default;
StateDependencies::~StateDependencies() = default;

void CMAdapter::ignoreFile(const Path& file) {
    throw exception::NotAvailableError(
        "\"" + file.toUtf8() +
        "\" cannot be ignored here: this adapter does not offer it; edit the source-control "
        "system's own ignore rules instead");
}

} // namespace quendo
