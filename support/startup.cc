#include "support/startup.h"

#include <fcntl.h>
#include <openssl/crypto.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <csignal>
#include <new>

namespace {

/// A file or connection that took the number of a closed standard stream would
/// receive the diagnostics meant for it. Opened for reading, so that what is
/// printed there still fails and no result passes for delivered.
void OccupyStandardStreams() {
  int descriptor = 0;
  do {
    descriptor = open("/dev/null", O_RDONLY);
  } while (descriptor >= 0 && descriptor <= STDERR_FILENO);
  if (descriptor > STDERR_FILENO) close(descriptor);
}

}  // namespace

void InitSupportLibrary(const char* /*programName*/, const char* /*libraryVersion*/) {
  OccupyStandardStreams();
  const rlimit noCoreDump = {0, 0};
  setrlimit(RLIMIT_CORE, &noCoreDump);
  // The limit does not hold for a handler that core files are piped to, and it
  // keeps nobody's debugger out.
  prctl(PR_SET_DUMPABLE, 0);
  std::signal(SIGPIPE, SIG_IGN);
  // It crashes when it is used after memory was too short for its beginnings.
  if (OSSL_LIB_CTX_get0_global_default() == nullptr) throw std::bad_alloc();
}
