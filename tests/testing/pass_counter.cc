// Preloaded into the tool (LD_PRELOAD): counts the passes of its wait loop and keeps its peak
// memory.
//
//   PASS_COUNT_FILE   gets one byte appended for every pass
//   PASS_PEAK_FILE    if set, gets the process's account of its memory when it ends
//   PASS_SLEEP_MS     if set, what each pause takes instead of its seconds; of use on loopback
//                     alone, where nothing that a pause waits for takes longer

#include <curl/curl.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>

namespace {

template <typename Function>
Function* Hidden(Function* /*shape*/, const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

void CountPass() {
  const char* const path = std::getenv("PASS_COUNT_FILE");
  if (path == nullptr) return;
  const int file = open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  if (file < 0 || write(file, "p", 1) != 1) std::abort();
  close(file);
}

/// Copies /proc/self/status once the program is through.
struct PeakKeeper {
  ~PeakKeeper() {
    const char* const path = std::getenv("PASS_PEAK_FILE");
    if (path == nullptr) return;
    std::ofstream(path) << std::ifstream("/proc/self/status").rdbuf();
  }
};

PeakKeeper peakKeeper;

}  // namespace

extern "C" {

CURLMcode curl_multi_perform(CURLM* multi, int* running) {
  CountPass();
  return Hidden(&curl_multi_perform, "curl_multi_perform")(multi, running);
}

unsigned sleep(unsigned seconds) {
  const char* const milliseconds = std::getenv("PASS_SLEEP_MS");
  if (milliseconds == nullptr) return Hidden(&sleep, "sleep")(seconds);
  usleep(static_cast<useconds_t>(std::atoi(milliseconds)) * 1000);
  return 0;
}

}  // extern "C"
