#include "support/library.h"

#include <curl/curl.h>
#include <sys/resource.h>

#include <csignal>

void InitSupportLibrary(const char* /*programName*/, const char* /*libraryVersion*/) {
  const rlimit noCoreDump = {0, 0};
  setrlimit(RLIMIT_CORE, &noCoreDump);
  std::signal(SIGPIPE, SIG_IGN);
  curl_global_init(CURL_GLOBAL_DEFAULT);
}
