#ifndef FRONTEND_TZREGISTER_H_
#define FRONTEND_TZREGISTER_H_

#include "config/registry.h"
#include "webservice/transport.h"

namespace corvel::storage::tzregister {

/// The world outside one run. What it points to is borrowed.
struct Platform {
  Network network;
  const RegistryHost* registry = &RegistryHost::System();
};

/// Performs the one action that the command line asks for. Results go to
/// standard output or to files; diagnostics, the help text and the closing line
/// go to standard error. Returns 0 on success and after --help, -1 on every
/// failure, which has been reported then. Blocks while the authority answers.
///
/// `argv` holds `argc` writable texts, the first being the program's name. The
/// values of --passwd are overwritten in it as the first step of all; nothing
/// else of it is changed.
int RealMain(int argc, char** argv, const Platform& platform);

/// As above, on the host itself.
int RealMain(int argc, char** argv);

}  // namespace corvel::storage::tzregister

#endif  // FRONTEND_TZREGISTER_H_
