#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>

int main(int argc, char** argv) {
  // As every process does that writes to sockets: a peer that is gone shows as EPIPE.
  std::signal(SIGPIPE, SIG_IGN);
  ::testing::InitGoogleTest(&argc, argv);
  if (std::getenv("GTEST_DEATH_TEST_STYLE") == nullptr) {  // set where a program cannot run itself
    ::testing::FLAGS_gtest_death_test_style = "threadsafe";
  }
  return RUN_ALL_TESTS();
}
