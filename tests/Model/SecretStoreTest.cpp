#include "VerdoDriver/Model/SecretTask.h"
#include "VerdoDriver/Model/SettingsStore.h"
#include "tests/Support/MainLoop.h"
#include "tests/Support/NoThreads.h"
#include "tests/Support/TempDir.h"

#include <QSettings>
#include <algorithm>
#include <latch>
#include <memory>
#include <vector>

#include <gtest/gtest.h>

namespace verdo::test {

using std::chrono::milliseconds;

TEST(SecretWork, OvertakesOrOutlivesTheApp) {
  SerialQueue queue("serial");
  std::vector<int> done;  // used by one thread at a time, if the queue is one
  std::latch both(1), first(1);
  queue.post([&] { first.wait(); });
  for (int i = 0; i < 100; ++i) queue.post([&, i] { done.push_back(i); });
  queue.post([&] { both.count_down(); });
  first.count_down();
  both.wait();
  ASSERT_EQ(done.size(), 100);
  EXPECT_TRUE(std::ranges::is_sorted(done));
  {
    const NoThreads shortage;
    EXPECT_THROW(SerialQueue("none").post([] {}), std::system_error);
    bool answered = false;
    const auto work = [] { return SecretStore::Result<void>(); };
    askSecretStore(work, [&](const auto& result) {
      answered = !result && result.error().kind == SecretError::Kind::unavailable;
    });
    EXPECT_FALSE(answered) << "inside the call";
    EXPECT_TRUE(spinUntil([&] { return answered; }));
  }
  std::latch begun(1), last(1);
  queue.post([&] {
    begun.count_down();
    last.wait();
  });
  queue.post([&] { done.clear(); });
  begun.wait();
  EXPECT_FALSE(queue.close(milliseconds(10))) << "did not wait, or waited for ever";
  last.count_down();
  EXPECT_TRUE(queue.close(milliseconds(10'000)));
  const auto dropped = std::make_shared<std::latch>(1);
  queue.post([dropped] { dropped->wait(); });
  EXPECT_EQ(dropped.use_count(), 1) << "went on after its end";
  dropped->count_down();
  EXPECT_EQ(done.size(), 100);
}

TEST(SecretPlace, IsForgottenOrMisread) {
  const TempDir directory;
  const auto open = [&] {
    return SettingsStore(std::make_unique<QSettings>(QString::fromStdString(directory / "settings"),
                                                     QSettings::IniFormat));
  };
  EXPECT_EQ(open().secretPlace(), std::nullopt);
  const SecretPlace places[] = {{SecretPlace::Kind::secretService, "keepassxc"},
                                {SecretPlace::Kind::secretService, ""},
                                {SecretPlace::Kind::keychain, ""},
                                {SecretPlace::Kind::files, ""}};
  for (const auto& place : places) {
    open().setSecretPlace(place);
    EXPECT_EQ(open().secretPlace(), place) << toText(place);
  }
  EXPECT_EQ(secretPlaceOf("elsewhere:x"), std::nullopt);
}

}  // namespace verdo::test
