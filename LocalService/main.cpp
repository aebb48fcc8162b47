#include "LocalService/LocalService.h"

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <string>

#include <CLI/CLI.hpp>
#include <pthread.h>

namespace {

constexpr int kUsageError = 2;

/// Not an option: every user of the machine can read the command lines of all programs.
constexpr const char* kControlTokenVariable = "VERDO_CONTROL_TOKEN";

int serve(const verdo::local::LocalServiceOptions& options) {
  // Blocked before the first thread exists, so that sigwait below is the only taker.
  sigset_t ends;
  sigemptyset(&ends);
  sigaddset(&ends, SIGINT);
  sigaddset(&ends, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &ends, nullptr);
  verdo::local::LocalService service(options);
  try {
    service.start();
  } catch (const std::exception& error) {
    std::cerr << "verdo-local-service: " << error.what() << "\n";
    return EXIT_FAILURE;
  }
  std::cout << "listening on " << service.url() << "\ntoken " << service.token() << "\ncontrol "
            << service.controlToken() << "\nprovider " << service.providerUrl() << "\n"
            << std::flush;
  int signal = 0;
  sigwait(&ends, &signal);
  service.stop();
  return EXIT_SUCCESS;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app("Stand-in on loopback of the Verdo web service, for demos, tests and benchmarks.");
  app.footer(std::string(kControlTokenVariable) +
             " in the environment is the token of the control interface (default: a random one).");
  verdo::local::LocalServiceOptions options;
  options.port = 8765;
  if (const char* token = std::getenv(kControlTokenVariable)) options.controlToken = token;
  double lease = 60;
  app.add_option("--port", options.port, "port on 127.0.0.1; 0 picks a free one")
      ->capture_default_str();
  app.add_option("--token", options.token, "driver token (default: a random one)");
  app.add_option("--provider-key", options.providerKey, "key that the LLM provider accepts")
      ->capture_default_str();
  auto* certificate = app.add_option("--cert", options.certificate, "certificate chain, PEM")
                          ->check(CLI::ExistingFile);
  auto* key =
      app.add_option("--key", options.privateKey, "its private key, PEM")->check(CLI::ExistingFile);
  certificate->needs(key);
  key->needs(certificate);
  app.add_option("--lease", lease, "seconds until the job of a silent driver is offered again")
      ->check(CLI::Range(0.001, 86'400.0))
      ->capture_default_str();
  app.add_option("--files", options.filesDirectory, "also hand out this folder under /files/")
      ->check(CLI::ExistingDirectory);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? EXIT_SUCCESS : kUsageError;
  }
  options.lease = std::chrono::milliseconds(static_cast<std::int64_t>(lease * 1000));
  try {
    return serve(options);
  } catch (const std::exception& error) {
    std::cerr << "verdo-local-service: " << error.what() << "\n";
    return EXIT_FAILURE;
  }
}
