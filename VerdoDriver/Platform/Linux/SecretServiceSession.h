#pragma once

#include "VerdoDriver/Platform/Linux/SecretServiceBus.h"

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace verdo {

/// What one program that keeps secrets can be asked, each operation one call of the Secret Service
/// interface, with no policy. Secrets travel encrypted wherever the program can do that. Throws as
/// SecretServiceBus does, and is used by one thread at a time.
class SecretServiceSession {
 public:
  using TimePoint = SecretServiceBus::TimePoint;
  using Paths = std::vector<std::string>;
  using Attributes = std::map<std::string, std::string>;

  struct Item {
    std::string path;
    bool isLocked = false;
    std::uint64_t modified = 0;  ///< seconds since 1970, 0 where the program does not tell
  };
  /// Opens a session with the program that is `owner` on the bus, which must outlive it.
  SecretServiceSession(SecretServiceBus& bus, std::string owner, TimePoint deadline);
  ~SecretServiceSession();
  SecretServiceSession(const SecretServiceSession&) = delete;
  SecretServiceSession& operator=(const SecretServiceSession&) = delete;

  const std::string& owner() const { return owner_; }
  const std::string& program() const { return program_; }

  /// The collection that new secrets go to; empty when there is none.
  std::string defaultCollection(TimePoint deadline);
  Paths collections(TimePoint deadline);
  bool isLocked(const std::string& collection, TimePoint deadline);
  std::string labelOf(const std::string& collection, TimePoint deadline);
  /// The collection's items with these attributes. Only for one that is not locked: some programs
  /// ask the user to unlock it.
  std::vector<Item> search(const std::string& collection, const Attributes& attributes,
                           TimePoint deadline);
  /// The secret of an item; none when it is not UTF-8.
  std::optional<std::string> secretOf(const std::string& item, TimePoint deadline);

  /// Unlocks collections and items; the prompt, if one is needed.
  std::string unlock(const Paths& paths, TimePoint deadline);
  /// Makes an item, in place of one with the same attributes; the prompt, if one is needed.
  std::string create(const std::string& collection, const std::string& label,
                     const Attributes& attributes, const std::string& secret, TimePoint deadline);
  /// Deletes an item; the prompt, if one is needed.
  std::string remove(const std::string& item, TimePoint deadline);

 private:
  struct Crypto;

  GLibPtr<GVariant> call(const std::string& path, const char* interface, const char* method,
                         GVariant* arguments, const char* replyType, TimePoint deadline);
  GLibPtr<GVariant> property(const std::string& path, const char* interface, const char* name,
                             const char* type, TimePoint deadline);

  SecretServiceBus& bus_;
  const std::string owner_;
  const std::string program_;
  std::unique_ptr<Crypto> crypto_;
};

}  // namespace verdo
