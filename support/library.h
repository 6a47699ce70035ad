#ifndef SUPPORT_LIBRARY_H_
#define SUPPORT_LIBRARY_H_

/// Initialises the support library for the running process; call it once,
/// before anything else of it. `programName` and `libraryVersion` say who asks
/// and for which release of the library; both are zero-terminated.
///
/// Opens /dev/null in place of closed standard streams, brings libcurl up, makes a write to a
/// closed connection an error instead of the end of the process, and switches core dumps off
/// because the process holds passwords. Failures are ignored: what then does not work says so when
/// it is used.
void InitSupportLibrary(const char* programName, const char* libraryVersion);

#endif  // SUPPORT_LIBRARY_H_
