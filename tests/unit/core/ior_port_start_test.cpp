// When a router that starts opens its IOR port.
#include <dlfcn.h>
#include <pthread.h>
#include <sys/socket.h>

#include <chrono>
#include <functional>
#include <semaphore>
#include <string>

#include "lone_router.h"

namespace {

// Runs on the IOR port's thread, before it listens.
std::function<void()> onIorPortListens;

bool IsIorPortThread() {
  char name[16] = "";
  pthread_getname_np(pthread_self(), name, sizeof name);
  return std::string(name) == "IOR_Sender";
}

}  // namespace

// In place of the system's, for all of this program.
int listen(int socket, int backlog) noexcept {
  if (onIorPortListens && IsIorPortThread()) onIorPortListens();
  static const auto systems = reinterpret_cast<int (*)(int, int)>(dlsym(RTLD_NEXT, "listen"));
  return systems(socket, backlog);
}

namespace MessageRouter {
namespace {

// Whoever reads that it waits for messages may come at once.
TEST_F(CertifiedRouter, DoesNotWaitForMessagesBeforeItsIorPortListens) {
  std::binary_semaphore runs(0);
  bool held = false;
  bool ranBefore = false;
  onIorPortListens = [&] {
    held = true;
    ranBefore = runs.try_acquire_for(std::chrono::milliseconds(500));
  };
  Router::Surroundings surroundings;
  surroundings.sleep = [&](unsigned) {
    runs.release();
    Router::instance().Shutdown();
  };
  Router::instance().SetSurroundings(surroundings);
  EXPECT_EQ(RunRouter(), 0);
  onIorPortListens = nullptr;
  EXPECT_TRUE(held);
  EXPECT_FALSE(ranBefore);
}

}  // namespace
}  // namespace MessageRouter
