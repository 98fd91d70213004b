#include "transport/NameRegistry.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "fixtures/TempDir.h"

namespace kestrin::transport {
namespace {

class NameRegistryTest : public ::testing::Test {
protected:
  testing::TempDir dir;
  NameRegistry registry{(dir.path() / "names").string()};
};

TEST_F(NameRegistryTest, ANameBelongsToOneHolderAtATime) {
  auto first = registry.registerName("Kestrin - studio-4.local.",
                                     {{"address", "10.0.0.4"}, {"port", 49152}});
  ASSERT_TRUE(first.ok()) << first.message();
  EXPECT_FALSE(registry.registerName("Kestrin - studio-4.local.", {}).ok());

  auto holder = registry.lookup("Kestrin - studio-4.local.");
  ASSERT_TRUE(holder);
  EXPECT_EQ(NameRegistry::describeHolder(*holder),
            "pid " + std::to_string(::getpid()) + " at 10.0.0.4:49152");

  first->reset();
  EXPECT_FALSE(registry.lookup("Kestrin - studio-4.local."));
  EXPECT_TRUE(registry.registerName("Kestrin - studio-4.local.", {}).ok());
}

TEST_F(NameRegistryTest, ANameHeldByADeadProcessIsFreeAgain) {
  int ready[2];
  ASSERT_EQ(::pipe(ready), 0);
  pid_t child = ::fork();
  if (child == 0) {
    auto held = registry.registerName("QVKestrinCallback", {{"path", "/run/x.sock"}});
    char ok = held.ok() ? '1' : '0';
    if (::write(ready[1], &ok, 1) != 1) {
      ::_exit(1);
    }
    ::pause();
    ::_exit(0);
  }
  char ok = 0;
  ASSERT_EQ(::read(ready[0], &ok, 1), 1);
  ASSERT_EQ(ok, '1');
  auto taken = registry.registerName("QVKestrinCallback", {});
  EXPECT_FALSE(taken.ok());
  auto holder = registry.lookup("QVKestrinCallback");
  ASSERT_TRUE(holder);
  EXPECT_EQ(*holder->find("pid"), plist::Value(static_cast<std::int64_t>(child)));

  ::kill(child, SIGKILL);
  ::waitpid(child, nullptr, 0);
  EXPECT_FALSE(registry.lookup("QVKestrinCallback"));
  EXPECT_TRUE(registry.registerName("QVKestrinCallback", {}).ok());
  ::close(ready[0]);
  ::close(ready[1]);
}

TEST_F(NameRegistryTest, AnyNameTextMapsToItsOwnEntry) {
  std::vector<std::string> names = {
      "a/b", "a%2Fb", "Ünïcödé - host.", std::string(300, 'x'), std::string(299, 'x') + "y", ".."};
  std::vector<std::unique_ptr<NameRegistry::Registration>> held;
  for (const std::string& name : names) {
    auto registration = registry.registerName(name, {});
    ASSERT_TRUE(registration.ok()) << name << ": " << registration.message();
    held.push_back(std::move(*registration));
  }
  for (const std::string& name : names) {
    auto holder = registry.lookup(name);
    ASSERT_TRUE(holder) << name;
    EXPECT_EQ(*holder->find("name"), plist::Value(name));
  }
}

} // namespace
} // namespace kestrin::transport
