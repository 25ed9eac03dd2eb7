#include <gtest/gtest.h>

#include <QCoreApplication>
#include <thread>
#include <unistd.h>

#include "app/SingleInstance.h"
#include "support/TestKit.h"

using namespace vt;

TEST(SingleInstance, ASecondLaunchAsksTheFirstToComeForward) {
  const std::string name = "vantory-test-" + std::to_string(::getpid());
  EXPECT_FALSE(SingleInstance::activateRunningInstance(name)) << "nobody runs yet";
  int activations = 0;
  {
    SingleInstance first(name, [&] { ++activations; });
    // The second launch connects from another thread of control in real life;
    // here the event loop must run for the first to read the request.
    bool answered = false;
    std::thread second([&] { answered = SingleInstance::activateRunningInstance(name); });
    ASSERT_TRUE(test::spinUntil([&] { return activations == 1; }, 5000));
    second.join();
    EXPECT_TRUE(answered);
  }
  // A socket left behind by a crashed instance does not block the next one.
  SingleInstance again(name, [&] { ++activations; });
  std::thread third([&] { SingleInstance::activateRunningInstance(name); });
  ASSERT_TRUE(test::spinUntil([&] { return activations == 2; }, 5000));
  third.join();
}
