#ifndef SUPPORT_STARTUP_H_
#define SUPPORT_STARTUP_H_

/// Initialises the support library for the running process; call it once,
/// before anything else of it. `programName` and `libraryVersion` say who asks
/// and for which release of the library; both are zero-terminated.
///
/// Opens /dev/null for reading in place of closed standard streams, switches core
/// dumps off and keeps other processes out of this one's memory because it holds
/// passwords, makes a write to a closed connection an error instead of the end of
/// the process, and brings the crypto library up. Failures are ignored: what then
/// does not work says so when it is used. But throws std::bad_alloc when memory
/// is too short for the crypto library.
void InitSupportLibrary(const char* programName, const char* libraryVersion);

#endif  // SUPPORT_STARTUP_H_
