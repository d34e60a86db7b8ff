// Services by name. On this host a service is a socket in the runtime directory; names and
// environment are in docs/transport.md. ServiceError in platform/platform.h has the cause of a
// failure.
#pragma once

#include <android/binder_ibinder.h>
#include <android/binder_status.h>

extern "C" {

/// Registers the object under a name of at most 127 letters, digits and `_ - . /`. EX_NONE, or
/// EX_ILLEGAL_ARGUMENT (null, or an invalid name), EX_SECURITY (the runtime directory may not be
/// written) or EX_ILLEGAL_STATE (another process serves the name, or the system refuses). A second
/// object under a name of this process replaces the first.
binder_exception_t AServiceManager_addService(AIBinder* binder, const char* instance);

/// These return one strong reference for the caller, or null: check looks once, get for up to five
/// seconds, wait until the service is there; it returns null for an invalid name only.
AIBinder* AServiceManager_checkService(const char* instance);
AIBinder* AServiceManager_getService(const char* instance);
AIBinder* AServiceManager_waitForService(const char* instance);

}  // extern "C"
