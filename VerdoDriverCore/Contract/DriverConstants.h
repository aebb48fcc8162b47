#pragma once

#include <string>

/// Fixed values that the front ends, the core and their messages share.
namespace verdo::DriverConstants {

// Environment and env-file keys.
inline constexpr const char* tokenEnv = "VERDO_DRIVER_TOKEN";
inline constexpr const char* serverEnv = "VERDO_SERVER_URL";
inline constexpr const char* llmKeyEnv = "VERDO_LLM_API_KEY";
inline constexpr const char* llmBaseEnv = "VERDO_LLM_BASE_URL";
/// The app's alone: the headless front end has an option that replaces the system's roots.
inline constexpr const char* extraCaCertEnv = "VERDO_EXTRA_CA_CERT";

inline constexpr const char* defaultServer = "http://127.0.0.1:8765";
inline constexpr const char* defaultExecutor = "ego-browser nodejs";
/// What takes its place where only our own executor is installed.
inline constexpr const char* fallbackExecutor = "verdo-browser nodejs";
/// The provider's documented API origin.
inline constexpr const char* llmDefaultBase = "https://api.deepseek.com";

/// The most lanes that the app offers.
inline constexpr int maxJobsCeiling = 4;

inline constexpr const char* outOfDateHint =
    "driver out of date — re-run the install command from the Browser driver card";
inline constexpr const char* tokenRevokedMessage =
    "driver token revoked — issue a new one in the UI (Browser driver card)";
inline constexpr const char* noLLMKeyMessage =
    "no LLM key on this driver — re-run the install command with VERDO_LLM_API_KEY";

/// "~/.config/verdo/driver.env" in the user's home directory.
std::string envFile();

/// The path with a leading "~" replaced by the user's home directory: HOME, else the account's.
std::string expandTilde(const std::string& path);

/// The last four characters of a secret, "" for an empty one: all that may ever be shown of it.
std::string lastFour(const std::string& secret);

}  // namespace verdo::DriverConstants
