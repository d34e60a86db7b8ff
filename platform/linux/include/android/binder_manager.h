// Services by name. On this host a service is a socket in the runtime directory; names and
// environment are in docs/transport.md. What went wrong: ServiceError in
// platform/platform.h.
#pragma once

#include <android/binder_ibinder.h>
#include <android/binder_status.h>

extern "C" {

/// Offers the object under a name of at most 127 letters, digits and `_ - . /`. EX_NONE, or
/// EX_ILLEGAL_ARGUMENT (null, or a name that cannot be used), EX_SECURITY (the runtime directory
/// may not be written) or EX_ILLEGAL_STATE (another process serves the name, or the system
/// refuses). A second object under a name of this process replaces the first.
binder_exception_t AServiceManager_addService(AIBinder* binder, const char* instance);

/// One strong reference for the caller, or null: at once, ...
AIBinder* AServiceManager_checkService(const char* instance);
/// ... after looking for up to five seconds, ...
AIBinder* AServiceManager_getService(const char* instance);
/// ... or when the service is there, however long that takes; null only for an impossible name.
AIBinder* AServiceManager_waitForService(const char* instance);

}  // extern "C"
