#pragma once
/// @file
/// Every platform facility the library reaches, in one place.

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "quorvel/Export.h"
#include "quorvel/platform/Json.h"
#include "quorvel/platform/Log.h"

namespace qvl {

class Application;
class BluetoothCentral;
class Clock;
class Executor;
class HttpTransport;
class LocationService;
class MainQueue;
class NotificationCenter;
class PinValidator;
struct HttpSessionConfiguration;

/// The library's environment: what the platform supplies and what the host configures.
///
/// Every library call runs under a context (qvl::Context, quorvel/managers/Context.h) and reads
/// that context's environment. The process has one standard context, which the shared…()
/// accessors and a host thread outside any context use; a host configures it once, before
/// its first use of the library:
///
///     qvl::Env env;
///     env.bundleInfo = {{"QuorvelSDK", {{"ApiKey", "..."}}}};
///     env.storeDirectory = "/var/lib/myapp/quorvel";
///     qvl::Env::configure(std::move(env));
///
/// Other contexts (a test's, a second account's) are built from an Env of their own and live
/// beside the standard one; nothing replaces an environment while the library runs.
///
/// A member left empty (null pointer, empty text) means the standard choice noted beside
/// it, resolved when used.
struct QVL_EXPORT Env {
  /// "now" and delayed work. Standard: SystemClock.
  std::shared_ptr<Clock> clock;
  /// Runs the serial queues of requests. Standard: threadPoolExecutor().
  std::shared_ptr<Executor> executor;
  /// The host's main thread. Standard: one process-wide MainQueue the host runs.
  std::shared_ptr<MainQueue> mainQueue;
  /// Sends HTTP requests. Empty: libcurl (makeCurlTransport()), made once per process.
  std::shared_ptr<HttpTransport> transport;
  /// Template of every HTTP session the library makes (time-outs, limits); the client adds
  /// its headers. Empty: HttpSessionConfiguration's defaults.
  std::shared_ptr<const HttpSessionConfiguration> httpSessionConfiguration;
  /// Broadcast notifications. Standard: one process-wide centre.
  std::shared_ptr<NotificationCenter> notificationCenter;
  /// Lifecycle, background tasks, icon badge. Standard: one process-wide StandardApplication.
  std::shared_ptr<Application> application;
  /// Decides server-trust challenges of pinned hosts. Empty: one validator per context.
  std::shared_ptr<PinValidator> pinValidator;
  /// Region monitoring and ranging. Empty: the backend proximityBackend names, chosen on
  /// first use, once per context. A simulated world (quorvel/testing) is set here.
  std::shared_ptr<LocationService> locationService;
  /// The Bluetooth radio's state. Empty: the same backend as locationService's.
  std::shared_ptr<BluetoothCentral> bluetoothCentral;
  /// The backends behind the standard locationService and bluetoothCentral.
  enum class ProximityBackend {
    automatic,  ///< The device backend when there is a system bus, else none; see below.
    device,     ///< Always the device backend; what it lacks is logged as an error.
  };
  /// Which backend the standard services use; read on their first use, once per context.
  /// automatic: the device backend whenever the system bus is there. It follows org.bluez,
  /// so a BlueZ started later is used and one that stops reads Unsupported; a warning says
  /// when org.bluez is missing at the start. With no system bus, or built without the
  /// device backend: a warning with the reason, Bluetooth Unsupported and location
  /// authorization Restricted. device: an error line names each missing piece (system
  /// bus, org.bluez, GeoClue) and the state shows it: Bluetooth Unsupported, location
  /// authorization Restricted; never a simulated world.
  ProximityBackend proximityBackend = ProximityBackend::automatic;
  /// Where log lines go, one line per call, from any thread. Empty: standard error.
  LogSink logSink;
  /// The least important level logged; lines below it are dropped before they are built
  /// into a line. Standard: info.
  LogLevel logLevel = LogLevel::info;
  /// The store file's directory. Empty: resolvedStoreDirectory()'s standard choice.
  std::string storeDirectory;
  /// What opening a store file (the library's and any Store::open()) does with a file it cannot
  /// take as its own: corrupt, not a store file (another program's database, or tables,
  /// triggers or views the store never makes) or written at a newer schema version. Off (the
  /// default): the open fails with a StoreError naming the file and the cause, and the file
  /// is left unchanged. On: the file is renamed "<name>.corrupt-<UTC time>" (then "-2", "-3",
  /// ... never replacing a file), its -wal and -shm alongside, owner-only; a warning names both
  /// paths and the reason, and a new empty store opens in its place. Nothing is deleted.
  bool moveUnreadableStoreAside = false;
  /// The user-defaults file. Empty: UserDefaults::defaultStandardPath().
  std::string userDefaultsPath;
  /// The host application's information dictionary (identity, version, the "QuorvelSDK"
  /// settings). A value that is not an object reads as empty.
  Json bundleInfo = Json::object();
  /// The service's API domain; an optional ":port" is kept in URLs and left out of the
  /// pinned domain. Empty: "quorvel.io".
  std::string apiDomain;
  /// SubjectPublicKeyInfo pins (base64 SHA-256) of the service's certificates. Empty: the
  /// four built-in pins for the default domain; a custom apiDomain has none, and requests
  /// to it fail (see allowUnpinnedApiDomain).
  std::vector<std::string> publicKeyHashes;
  /// PEM file of trust anchors for every HTTPS connection instead of the system's CA
  /// bundle. Empty: the system's.
  std::string trustAnchorsFile;

  // ---- Transport security ------------------------------------------------------------
  //
  // The API domain and its subdomains are pinned from the first request on: a connection
  // whose verified chain holds none of the pins fails before any request byte is sent.
  // Other hosts get certificate-authority validation only.
  //
  // What the process environment can change. libcurl honours the proxy variables
  // http_proxy (lower case only), https_proxy/HTTPS_PROXY, ALL_PROXY/all_proxy and
  // NO_PROXY/no_proxy, and the library keeps honouring them, so hosts behind a proxy work.
  // For an https URL libcurl asks the proxy for a tunnel (CONNECT host:port) and does the
  // TLS handshake with the server through it, end to end: the proxy learns the host and
  // port and can block or delay the connection, but the chain it would have to present
  // passes only if it holds a pinned key, so it can neither read nor change a request to
  // the API domain. A proxy reached over TLS itself (an https:// proxy URL) is not
  // supported: its certificate is checked against the server's name and fails. Which
  // certificate authorities default validation trusts can follow SSL_CERT_FILE and
  // SSL_CERT_DIR (OpenSSL's defaults, used when libcurl has no CA bundle built in) unless
  // trustAnchorsFile is set; an added authority cannot pass pinning. OPENSSL_CONF can
  // change OpenSSL's settings (protocol versions, ciphers, providers); the resolver's
  // files and variables (/etc/hosts, HOSTALIASES, ...) can change the address connected
  // to, which pinning also covers. SSLKEYLOGFILE is ignored: TLS keys go only to
  // tlsKeyLogFile (libcurl may still create the file it names, empty, when it starts).

  /// For development against a custom apiDomain that has no publicKeyHashes yet: requests
  /// to it then go out with certificate-authority validation only, and the service client
  /// logs a warning for every session it makes. Off (the default), every request to such a
  /// domain fails with a transport error that names the missing pins. Never set it in a
  /// release: without pins, any certificate authority can impersonate the service.
  bool allowUnpinnedApiDomain = false;
  /// File to which the TLS session keys of every HTTPS connection are appended (NSS key-log
  /// format, for reading captured traffic while debugging). Created with mode 0600 (an
  /// existing file is set to 0600); a symbolic link is refused. Empty (the default): keys
  /// are written nowhere.
  std::string tlsKeyLogFile;

  /// This environment with its empty platform members (clock, executor, mainQueue,
  /// notificationCenter, application) filled with the standard facilities, as a context on
  /// it would have them. Thread-safe.
  Env completed() const;

  /// storeDirectory, or when empty $XDG_DATA_HOME/quorvel, else $HOME/.local/share/quorvel,
  /// else "quorvel" (relative to the working directory).
  std::string resolvedStoreDirectory() const;

  /// The standard folder of per-user settings: $XDG_CONFIG_HOME when it is absolute, else
  /// the home directory's ".config".
  static std::string standardConfigDirectory();

  /// The environment of the context in force on the calling thread (the standard context's
  /// outside any). Members of the platform itself (clock, executor, mainQueue,
  /// notificationCenter, application) are filled with their standard facilities; the others
  /// stay as configured, and an empty one means its standard choice, made where it is used.
  /// Thread-safe; the first call outside any context fixes the standard context.
  static std::shared_ptr<const Env> current();

  /// Configures the standard context. Call it before the first use of the library, from
  /// any thread; a later call before that use replaces the earlier one. Null pointers are
  /// filled with the standard facilities.
  /// @throws std::logic_error once the standard context is in use: a configuration after
  /// that would leave work already running on the old one, so it is a programming error.
  static void configure(Env env);
};

/// `work`, made to run in the context in force on the calling thread now (see qvl::Context),
/// on whichever thread later runs it; `work` itself when no context is bound here. The
/// library's queues do this for every task; hosts and tests need it for threads of their own.
/// The context stays alive until the work has run; with `weakly` (for timers that may never
/// fire) only while something else keeps it, and the work then runs in no context.
QVL_EXPORT std::function<void()> inCurrentContext(std::function<void()> work, bool weakly = false);

}  // namespace qvl
