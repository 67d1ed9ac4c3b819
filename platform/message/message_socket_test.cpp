#include "platform/message/message_socket.h"

#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <thread>

#include "platform/process/process_info.h"

namespace kx {
namespace {

TEST(MessageSocketTest, ServiceNamesMustNameOneFileInTheServiceDirectory) {
  EXPECT_EQ(ServiceSocketPath("com.orvex.searchd"), ServiceDirectory() + "/com.orvex.searchd");
  for (std::string_view bad : {"", ".", "..", "a/b", "../escape"})
    EXPECT_EQ(ServiceSocketPath(bad), std::nullopt) << bad;
  EXPECT_EQ(ServiceSocketPath(std::string_view("a\0b", 3)), std::nullopt);
  EXPECT_EQ(ServiceSocketPath(std::string(sizeof(sockaddr_un::sun_path), 'x')), std::nullopt);
  struct stat st;
  ASSERT_EQ(stat(ServiceDirectory().c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0700u);
}

TEST(MessageSocketTest, ListenerReplacesStaleSocketsButNeverLiveOnesOrOtherFiles) {
  std::string error;
  std::optional<ServiceListener> first = ListenOnService("svc", &error);
  ASSERT_TRUE(first) << error;
  EXPECT_FALSE(ListenOnService("svc", &error));
  EXPECT_EQ(error, "service is already running");

  int connectError = -1;
  ScopedFd client = ConnectToService("svc", &connectError);
  ASSERT_TRUE(client);
  EXPECT_EQ(connectError, 0);
  EXPECT_FALSE(fcntl(client.get(), F_GETFL) & O_NONBLOCK);

  // A listener that died without cleaning up leaves a stale file behind.
  first->fd.reset();
  std::optional<ServiceListener> second = ListenOnService("svc", &error);
  ASSERT_TRUE(second) << error;
  // Only the file a listener created is removed on its behalf.
  RemoveServiceSocketFile(*first);
  EXPECT_TRUE(ServiceSocketPath("svc") && access(ServiceSocketPath("svc")->c_str(), F_OK) == 0);
  RemoveServiceSocketFile(*second);
  EXPECT_NE(access(ServiceSocketPath("svc")->c_str(), F_OK), 0);
  EXPECT_FALSE(ConnectToService("svc", &connectError));
  EXPECT_EQ(connectError, ENOENT);

  std::ofstream(*ServiceSocketPath("file")) << "not a socket";
  EXPECT_FALSE(ListenOnService("file", &error));
  EXPECT_EQ(error, "service path exists and is not a socket");
}

TEST(MessageSocketTest, ServiceFileAppearsOnlyOnceItAcceptsConnections) {
  // Clients wait for the file and connect at once; a file that showed up
  // between bind and listen would refuse them as if the service had gone.
  const std::string path = *ServiceSocketPath("race");
  auto files = [] {
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(ServiceDirectory()))
      names.insert(entry.path().filename().string());
    return names;
  };
  const std::set<std::string> before = files();
  for (int round = 0; round < 200; ++round) {
    int connectError = -1;
    std::thread client([&] {
      while (access(path.c_str(), F_OK) != 0) std::this_thread::yield();
      ScopedFd fd = ConnectToService("race", &connectError);
    });
    std::string error;
    std::optional<ServiceListener> listener = ListenOnService("race", &error);
    client.join();
    ASSERT_TRUE(listener) << error;
    ASSERT_EQ(connectError, 0) << "round " << round;
    RemoveServiceSocketFile(*listener);
  }
  // Listening leaves no file behind but the service's own.
  EXPECT_EQ(files(), before);
}

TEST(MessageSocketTest, ActivationSocketsBelongToTheNamedProcessAndService) {
  // Descriptor 3 is never touched here: each case is refused before that.
  const std::string self = std::to_string(getpid());
  setenv("LISTEN_FDS", "1", 1);
  setenv("LISTEN_PID", std::to_string(getpid() + 1).c_str(), 1);
  EXPECT_FALSE(TakeActivationSocket("svc"));
  setenv("LISTEN_PID", self.c_str(), 1);
  setenv("LISTEN_FDNAMES", "other", 1);
  EXPECT_FALSE(TakeActivationSocket("svc"));
  setenv("LISTEN_FDS", "0", 1);
  setenv("LISTEN_FDNAMES", "svc", 1);
  EXPECT_FALSE(TakeActivationSocket("svc"));
  for (const char* name : {"LISTEN_FDS", "LISTEN_PID", "LISTEN_FDNAMES"}) unsetenv(name);
}

}  // namespace
}  // namespace kx
