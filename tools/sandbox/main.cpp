// qvl-sandbox: runs the local service until interrupted. See --help.

#include <signal.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <string>
#include <string_view>

#include "sandbox/Sandbox.h"

namespace {

constexpr const char* kUsage = R"(usage: qvl-sandbox [options]
  --port N            listen on 127.0.0.1:N (0, the default: a free port, printed)
  --state-dir DIR     records, certificates, pin.txt and sandbox.json
                      (default: $XDG_STATE_HOME/qvl-sandbox or ~/.local/state/qvl-sandbox)
  --seed FILE         seed for a new or reset state (default: the seed.json shipped)
  --api-key KEY       the X-Api-Key requests must carry (default: sandbox-api-key)
  --reset             restore the seed, dropping views, redemptions and endpoints
  --failure-rate R    answer this share (0..1) of /v8 requests with 503
  --offline-for S     refuse connections for S seconds right after start
  --max-body BYTES    answer longer request bodies with 413 (default: 1048576)

/_sandbox/* needs "Authorization: Bearer <control_token>", the control_token of
sandbox.json (new on every start).
)";

std::string defaultStateDirectory() {
  if (const char* state = std::getenv("XDG_STATE_HOME"); state && *state) {
    return std::string(state) + "/qvl-sandbox";
  }
  const char* home = std::getenv("HOME");
  return std::string(home ? home : ".") + "/.local/state/qvl-sandbox";
}

std::string defaultSeed() {
  for (const char* candidate : {QVL_SANDBOX_INSTALLED_SEED, QVL_SANDBOX_SOURCE_SEED}) {
    if (std::filesystem::exists(candidate)) return candidate;
  }
  return QVL_SANDBOX_INSTALLED_SEED;
}

[[noreturn]] void usageError(const std::string& message) {
  std::cerr << "qvl-sandbox: " << message << "\n" << kUsage;
  std::exit(2);
}

}  // namespace

int main(int argc, char** argv) {
  qvl::sandbox::Options options;
  options.stateDirectory = defaultStateDirectory();
  options.seedFile = defaultSeed();
  for (int i = 1; i < argc; ++i) {
    const std::string_view flag = argv[i];
    auto value = [&]() -> std::string {
      if (i + 1 >= argc) usageError(std::string(flag) + " needs a value");
      return argv[++i];
    };
    try {
      if (flag == "--help" || flag == "-h") {
        std::cout << kUsage;
        return 0;
      } else if (flag == "--port") {
        options.port = std::stoi(value());
      } else if (flag == "--state-dir") {
        options.stateDirectory = value();
      } else if (flag == "--seed") {
        options.seedFile = value();
      } else if (flag == "--api-key") {
        options.apiKey = value();
      } else if (flag == "--reset") {
        options.reset = true;
      } else if (flag == "--failure-rate") {
        options.failureRate = std::stod(value());
      } else if (flag == "--max-body") {
        const long long bytes = std::stoll(value());
        if (bytes <= 0) usageError("--max-body must be positive");
        options.maxBody = static_cast<size_t>(bytes);
      } else if (flag == "--offline-for") {
        options.offlineFor =
            std::chrono::milliseconds(static_cast<long>(std::stod(value()) * 1000));
      } else {
        usageError("unknown option " + std::string(flag));
      }
    } catch (const std::logic_error&) {
      usageError("bad value for " + std::string(flag));
    }
  }
  if (options.port < 0 || options.port > 65535) usageError("--port must be 0..65535");
  if (options.failureRate < 0 || options.failureRate > 1) usageError("--failure-rate must be 0..1");

  // Every thread inherits the blocked signals; the main thread waits for them below.
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);

  try {
    qvl::sandbox::Sandbox sandbox(options);
    const auto info = sandbox.info();
    const std::string dir = options.stateDirectory;
    std::cout << "qvl-sandbox listening on " << info["url"].get<std::string>()
              << " (also api.localhost and play.localhost)\n"
              << "  port:      " << sandbox.port() << "\n"
              << "  API key:   " << sandbox.apiKey() << "\n"
              << "  token:     " << sandbox.token() << "\n"
              << "  pin:       " << sandbox.pin() << "  (" << dir << "/pin.txt)\n"
              << "  CA file:   " << sandbox.caFile() << "\n"
              << "  settings:  " << dir << "/sandbox.json\n"
              << "  requests:  curl --cacert " << sandbox.caFile()
              << " -H \"Authorization: Bearer $CONTROL_TOKEN\" " << sandbox.url()
              << "/_sandbox/requests  (control_token in sandbox.json)\n"
              << std::flush;
    int received = 0;
    sigwait(&signals, &received);
    std::cout << "qvl-sandbox: stopping\n";
  } catch (const std::exception& error) {
    std::cerr << "qvl-sandbox: " << error.what() << "\n";
    return 1;
  }
  return 0;
}
