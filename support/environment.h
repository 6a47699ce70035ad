#ifndef SUPPORT_ENVIRONMENT_H_
#define SUPPORT_ENVIRONMENT_H_

#include <string>

namespace corvel::storage::support {

// Every environment variable that the tool itself looks at. They are ignored
// when the program runs with more rights than its caller (set-user-id and the
// like). An empty variable counts as one that is not set. Besides these, libcurl
// honours its own proxy variables.

/// "0" switches the verification of HTTPS servers off, "required" asks for it
/// whether or not a file for the server is at hand; anything else verifies those
/// servers that have a file.
inline constexpr char kSslVerifyVariable[] = "QUORVEX_SSL_VERIFY";

/// Directory that holds one certificate file per server, named host + ".pem".
inline constexpr char kPluginPathVariable[] = "QUORVEX_PLUGIN_PATH";

/// Host name that generated certificates carry as their server name.
inline constexpr char kSslServerNameVariable[] = "QUORVEX_SSL_SERVER_NAME";

/// The value of environment variable `name`, or `fallback` when it is not set,
/// empty, or not to be trusted (see above).
std::string EnvironmentText(const char* name, const std::string& fallback);

}  // namespace corvel::storage::support

#endif  // SUPPORT_ENVIRONMENT_H_
