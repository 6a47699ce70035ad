#include <cstdio>
#include <exception>

#include "frontend/tzregister.h"

/// Lets nothing through: a failure that nobody else could report, such as one of
/// the report itself, is told here, without taking memory.
int main(int argc, char** argv) {
  try {
    return corvel::storage::tzregister::RealMain(argc, argv);
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "Exception is caught %s\n", failure.what());
  } catch (...) {
    std::fputs("Exception is caught\n", stderr);
  }
  return -1;
}
