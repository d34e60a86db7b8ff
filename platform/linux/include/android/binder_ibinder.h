// Objects, classes of objects, transactions and death notices of the binder NDK. Every function may
// be called from any thread.
#pragma once

#include <android/binder_status.h>
#include <stddef.h>
#include <sys/types.h>

struct AIBinder;
struct AIBinder_Class;
struct AIBinder_DeathRecipient;
struct AIBinder_Weak;
struct AParcel;
typedef struct AIBinder AIBinder;
typedef struct AIBinder_Class AIBinder_Class;
typedef struct AIBinder_DeathRecipient AIBinder_DeathRecipient;
typedef struct AIBinder_Weak AIBinder_Weak;
typedef struct AParcel AParcel;

typedef uint32_t transaction_code_t;
enum {
  FIRST_CALL_TRANSACTION = 0x00000001,
  LAST_CALL_TRANSACTION = 0x00ffffff,
};

typedef uint32_t binder_flags_t;
enum {
  /// The caller does not wait for the method; there is no reply.
  FLAG_ONEWAY = 0x01,
};

/// Returns the user data of a new object.
typedef void* (*AIBinder_Class_onCreate)(void* args);
typedef void (*AIBinder_Class_onDestroy)(void* userData);
/// Serves one call; the position of `in` is past the interface token.
typedef binder_status_t (*AIBinder_Class_onTransact)(AIBinder* binder, transaction_code_t code,
                                                     const AParcel* in, AParcel* out);
typedef binder_status_t (*AIBinder_onDump)(AIBinder* binder, int fd, const char** args,
                                           uint32_t numArgs);
typedef binder_status_t (*AIBinder_handleShellCommand)(AIBinder* binder, int in, int out, int err,
                                                       const char** argv, uint32_t argc);
typedef void (*AIBinder_DeathRecipient_onBinderDied)(void* cookie);
typedef void (*AIBinder_DeathRecipient_onBinderUnlinked)(void* cookie);

extern "C" {

/// A class lives forever. Null when an argument is null.
AIBinder_Class* AIBinder_Class_define(const char* interfaceDescriptor,
                                      AIBinder_Class_onCreate onCreate,
                                      AIBinder_Class_onDestroy onDestroy,
                                      AIBinder_Class_onTransact onTransact);
/// The setters are for the time before the first object of the class.
void AIBinder_Class_setOnDump(AIBinder_Class* clazz, AIBinder_onDump onDump);
/// The next two serve the platform's shell and its tracing, which this host does not have.
void AIBinder_Class_setHandleShellCommand(AIBinder_Class* clazz,
                                          AIBinder_handleShellCommand handleShellCommand);
void AIBinder_Class_setTransactionCodeToFunctionNameMap(AIBinder_Class* clazz, const char** map,
                                                        size_t length);
const char* AIBinder_Class_getDescriptor(const AIBinder_Class* clazz);

/// A local object with one strong reference, the caller's. The last one destroys it.
AIBinder* AIBinder_new(const AIBinder_Class* clazz, void* args);
void AIBinder_incStrong(AIBinder* binder);
void AIBinder_decStrong(AIBinder* binder);
AIBinder_Weak* AIBinder_Weak_new(AIBinder* binder);
void AIBinder_Weak_delete(AIBinder_Weak* weak);
/// One strong reference for the caller, or null when the object is gone.
AIBinder* AIBinder_Weak_promote(AIBinder_Weak* weak);

/// Sets the class of a remote object, if it fits the object's descriptor. Returns whether the
/// object is of that very class.
bool AIBinder_associateClass(AIBinder* binder, const AIBinder_Class* clazz);
const AIBinder_Class* AIBinder_getClass(AIBinder* binder);
/// Null for a remote object.
void* AIBinder_getUserData(AIBinder* binder);
bool AIBinder_isRemote(const AIBinder* binder);
bool AIBinder_isAlive(const AIBinder* binder);
binder_status_t AIBinder_ping(AIBinder* binder);
/// Local objects only. STATUS_FDS_NOT_ALLOWED for a remote one: no file descriptor can be sent.
binder_status_t AIBinder_dump(AIBinder* binder, int fd, const char** args, uint32_t numArgs);

/// Starts a call: a parcel that holds the interface token. STATUS_INVALID_OPERATION for an object
/// whose class is not known.
binder_status_t AIBinder_prepareTransaction(AIBinder* binder, AParcel** in);
/// Makes the call and waits for its reply. Always takes and nulls `*in`; `*out` is set on success
/// only and belongs to the caller. A local object serves the call on this thread.
binder_status_t AIBinder_transact(AIBinder* binder, transaction_code_t code, AParcel** in,
                                  AParcel** out, binder_flags_t flags);

/// The process whose call this thread serves; this process when it serves none.
uid_t AIBinder_getCallingUid(void);
pid_t AIBinder_getCallingPid(void);

AIBinder_DeathRecipient* AIBinder_DeathRecipient_new(
    AIBinder_DeathRecipient_onBinderDied onBinderDied);
/// Applies to later links.
void AIBinder_DeathRecipient_setOnUnlinked(AIBinder_DeathRecipient* recipient,
                                           AIBinder_DeathRecipient_onBinderUnlinked onUnlinked);
/// Unlinks the recipient from everything first. Accepts null.
void AIBinder_DeathRecipient_delete(AIBinder_DeathRecipient* recipient);
/// When the object's process dies, a pool thread calls onBinderDied, then onUnlinked, once per
/// link. A link that ends otherwise gets onUnlinked only. STATUS_INVALID_OPERATION for a local
/// object, STATUS_DEAD_OBJECT for a dead one; both call onUnlinked before they return.
binder_status_t AIBinder_linkToDeath(AIBinder* binder, AIBinder_DeathRecipient* recipient,
                                     void* cookie);
binder_status_t AIBinder_unlinkToDeath(AIBinder* binder, AIBinder_DeathRecipient* recipient,
                                       void* cookie);

}  // extern "C"
