// Death notices: which recipients are linked to which remote objects. The rest of it is the NDK's
// own functions.
#pragma once

namespace kvox::binder {

class RemoteObject;

/// Reports the death of an object that is dead already to all its recipients: died, then unlinked.
/// On a pool thread.
void ReportDeath(const RemoteObject& object);

/// The last reference to the object is gone: its recipients are unlinked. Any thread.
void UnlinkAll(const RemoteObject& object);

}  // namespace kvox::binder
