#include "support/startup.h"

#include <curl/curl.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <csignal>

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
  std::signal(SIGPIPE, SIG_IGN);
  curl_global_init(CURL_GLOBAL_DEFAULT);
}
