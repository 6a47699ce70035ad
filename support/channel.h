#ifndef SUPPORT_CHANNEL_H_
#define SUPPORT_CHANNEL_H_

// The storage product's request channel, addressed by "vrmo://" URLs. One
// request is one HTTPS POST to the host and port of the URL (443 when it names
// none), to its path or to "/vrmo.php" when it has none:
//
//   - TLS 1.2 or later; the server is always verified, chain and name: against
//     host + ".pem" in the plugin directory if there is one, else "ca.pem" in
//     the key directory if there is one, else the system's authorities;
//   - the login and password travel as HTTP Basic credentials;
//   - the headers "X-Quorvex-Request-Kind" and "X-Quorvex-Parameter" say what
//     is asked, the body is the request text;
//   - the reply's header "X-Quorvex-Status" is its status, its body its text.

/// One logical connection; made by WSInit, released by WSShutdown.
struct WSHandle;

/// What the server answered.
struct WSReply {
  int status = 0;        ///< 0 when the server carried the request out
  char* text = nullptr;  ///< zero-terminated, from malloc, owned by the caller; null when empty
};

/// Prepares requests to `url` (a "vrmo://" URL) as `login` with `password`;
/// `keydir` is the host's key directory, empty when there is none. All texts
/// are zero-terminated and copied. `flags` must be 0. Nothing is sent yet.
/// Returns null when the URL names no host, the login holds a ":" (which Basic
/// credentials cannot express) or memory is short. Throws std::bad_alloc.
WSHandle* WSInit(const char* url, const char* login, const char* password, const char* keydir,
                 int flags);

/// Sends `text` as the value of `parameter` in a request of kind `kind` and
/// waits for the reply, 120 seconds at most. `flags` must be 0.
/// Returns 0 when the request was delivered and answered; `*reply` is then
/// filled. Non-zero when there was no connection, no trust, no HTTP status 200
/// or no status header; `*reply` is then untouched.
int WSRequestExt(WSHandle* handle, int kind, WSReply* reply, const char* parameter,
                 const char* text, int flags);

/// Releases `handle` and wipes the password it held; null is ignored.
void WSShutdown(WSHandle* handle);

#endif  // SUPPORT_CHANNEL_H_
