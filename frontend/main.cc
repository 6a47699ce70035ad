#include "frontend/tzregister.h"

int main(int argc, char** argv) { return corvel::storage::tzregister::RealMain(argc, argv); }
