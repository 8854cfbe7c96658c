#pragma once

namespace quendo {

/// What an adapter may or may not offer; asked for with CMAdapter::isFeatureSupported, so that a
/// host shows only what works. An operation whose feature is not supported throws
/// exception::NotAvailableError.
enum class SupportedFeature {
    Checkin,           ///< both forms of checkin
    AddFiles,          ///< addFiles
    RemoveFiles,       ///< removeFiles
    MoveFile,          ///< moveFile
    Uncheckout,        ///< uncheckout: give local changes up
    DiscardChanges,    ///< discardChanges: give all local changes up
    Checkout,          ///< checkout does something: takes a lock, or makes writable
    ResolveConflict,   ///< resolveConflict
    IgnoreFile,        ///< ignoreFile on the adapter itself, and management::ignoreFiles
    ListRevisions,     ///< listRevisions, findRevision, getCurrentRevision, getParentRevisions
    ExportRevision,    ///< exportRevision
    ConflictRevisions, ///< getConflictRevisions
    Credentials,       ///< setCredentialProvider has an effect
};

} // namespace quendo
