#include "VerdoDriver/Platform/macOS/KeychainStore.h"
#include "tests/Platform/macOS/FakeSystem.h"

namespace verdo::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class KeychainStoreTest : public FakeSystem {
 protected:
  KeychainStore store{"com.example.app"};
};

TEST_F(KeychainStoreTest, AsksForAnotherItemThanItStores) {
  ASSERT_TRUE(store.write("sécret-9f2c", SecretAccount::driverToken));
  const auto read = store.read(SecretAccount::driverToken);
  ASSERT_TRUE(read);
  EXPECT_EQ(*read, "sécret-9f2c");
  ASSERT_TRUE(store.write("", SecretAccount::llmKey)) << "in place of none";
  ASSERT_TRUE(store.write("other", SecretAccount::driverToken)) << "in place of another";
  ASSERT_TRUE(store.remove(SecretAccount::driverToken));
  ASSERT_TRUE(store.remove(SecretAccount::driverToken)) << "of none";
  EXPECT_EQ(store.state(SecretAccount::llmKey), SecretState::absent);
  EXPECT_EQ(store.place(), (SecretPlace{SecretPlace::Kind::keychain, ""}));

  const std::string token =
      "kSecAttrAccount=driver-token kSecAttrService=com.example.app "
      "kSecClass=kSecClassGenericPassword";
  const auto calls = fake::calls();
  ASSERT_GE(calls.size(), 3U);
  EXPECT_EQ(calls[0], "SecItemDelete {" + token + "}");
  EXPECT_EQ(calls[1],
            "SecItemAdd {kSecAttrAccessible=kSecAttrAccessibleAfterFirstUnlockThisDeviceOnly "
            "kSecAttrAccount=driver-token kSecAttrLabel=Verdo Driver driver-token "
            "kSecAttrService=com.example.app kSecAttrSynchronizable=false "
            "kSecClass=kSecClassGenericPassword kSecValueData=<sécret-9f2c>}");
  EXPECT_EQ(calls[2], "SecItemCopyMatching silently {" + token +
                          " kSecMatchLimit=kSecMatchLimitOne kSecReturnData=true}");
  EXPECT_THAT(log.lines(),
              ElementsAre("verdo.keychain [KeychainStore] stored driver-token (····9f2c)",
                          "verdo.keychain [KeychainStore] stored llm-key ((none))",
                          "verdo.keychain [KeychainStore] removed driver-token",
                          "verdo.keychain [KeychainStore] stored driver-token (····ther)",
                          "verdo.keychain [KeychainStore] removed driver-token"));
}

TEST_F(KeychainStoreTest, TakesAFailureForAnEmptyStore) {
  using Kind = SecretError::Kind;
  const std::tuple<OSStatus, std::string, Kind, std::string> table[] = {
      {errSecInteractionNotAllowed, "No interaction.", Kind::locked,
       "Keychain: No interaction. (-25308)"},
      {errSecAuthFailed, "", Kind::locked, "Keychain: OSStatus -25293 (-25293)"},
      {errSecUserCanceled, "Cancelled.", Kind::locked, "Keychain: Cancelled. (-128)"},
      {errSecNotAvailable, "Nö.", Kind::unavailable, "Keychain: Nö. (-25291)"},
      {-50, "Parameters.", Kind::failed, "Keychain: Parameters. (-50)"},
  };
  const auto expect = [](const SecretError& error, const auto& row) {
    const auto& [status, message, kind, description] = row;
    EXPECT_EQ(error.status, status);
    EXPECT_EQ(error.kind, kind) << status;
    EXPECT_EQ(error.description, description);
  };
  std::vector<std::string> lines;
  for (const auto& row : table) {
    const auto status = std::to_string(std::get<0>(row));
    fake::setErrorMessage(std::get<1>(row));
    for (const auto* const function : {"SecItemCopyMatching", "SecItemDelete", "SecItemAdd"}) {
      fake::setStatus(function, std::get<0>(row));
    }
    expect(store.read(SecretAccount::driverToken).error(), row);
    expect(store.remove(SecretAccount::llmKey).error(), row);
    expect(store.write("secret", SecretAccount::llmKey).error(), row);
    expect(store.unlock().error(), row);
    fake::setStatus("SecItemDelete", 0);
    expect(store.write("secret", SecretAccount::llmKey).error(), row);
    for (const auto* const what : {"read driver-token", "delete llm-key", "delete llm-key",
                                   "read driver-token", "write llm-key"}) {
      lines.push_back(std::string("verdo.keychain [KeychainStore] ") + what + " failed: " + status);
    }
  }
  EXPECT_EQ(log.lines(), lines);
  EXPECT_THAT(fake::keychain(), IsEmpty());
}

TEST_F(KeychainStoreTest, GivesBytesThatAreNoTextForASecret) {
  fake::keychain()[{"com.example.app", "driver-token"}] = "\xff\xfe";
  EXPECT_EQ(*store.read(SecretAccount::driverToken), std::nullopt);
  fake::keychain()[{"com.example.app", "driver-token"}] = "fine";
  fake::setReadsGiveText(true);
  EXPECT_EQ(*store.read(SecretAccount::driverToken), std::nullopt);
  fake::setReadsGiveText(false);
  EXPECT_EQ(*store.read(SecretAccount::driverToken), "fine");
}

TEST_F(KeychainStoreTest, AsksTheUserUnbidden) {
  ASSERT_TRUE(store.read(SecretAccount::llmKey));
  EXPECT_TRUE(fake::mayKeychainAsk()) << "other parts of the program go without for ever";
  ASSERT_TRUE(store.unlock());
  ASSERT_TRUE(store.remove(SecretAccount::llmKey));
  std::vector<std::string> names;
  for (const auto& call : fake::calls()) names.push_back(call.substr(0, call.find(" {")));
  EXPECT_THAT(names, ElementsAre("SecItemCopyMatching silently", "SecItemCopyMatching",
                                 "SecItemCopyMatching", "SecItemDelete"));
}

}  // namespace
}  // namespace verdo::test
