#include "frontend/argument_guard.h"
#include "frontend/tzregister.h"

int main(int argc, char** argv) {
  corvel::storage::tzregister::ArgumentGuard arguments(argc, argv);
  return corvel::storage::tzregister::RealMain(argc, arguments.argv());
}
