#include "platform/message/peer_identity.h"

#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "platform/message/message_fd.h"

namespace kx {
namespace {

TEST(PeerIdentityTest, ComesFromTheKernel) {
  int sv[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, sv), 0);
  ScopedFd a(sv[0]), b(sv[1]);
  std::optional<PeerIdentity> identity = ReadPeerIdentity(a.get());
  ASSERT_TRUE(identity);
  EXPECT_EQ(identity->pid, getpid());
  EXPECT_EQ(identity->uid, getuid());
  EXPECT_EQ(identity->gid, getgid());
  EXPECT_EQ(identity->executableName, "platform_message_tests");
  // Without a meaningful label the executable names the peer.
  if (!identity->securityLabel || !BundleIdentifierFromSecurityLabel(*identity->securityLabel)) {
    EXPECT_EQ(PeerBundleIdentifier(*identity), "platform_message_tests");
  }

  int notSocket[2];
  ASSERT_EQ(pipe2(notSocket, O_CLOEXEC), 0);
  ScopedFd r(notSocket[0]), w(notSocket[1]);
  EXPECT_EQ(ReadPeerIdentity(r.get()), std::nullopt);
}

TEST(PeerIdentityTest, LabelsNameTheirDomainOrNothing) {
  EXPECT_EQ(BundleIdentifierFromSecurityLabel("com.orvex.homedeck (enforce)"),
            "com.orvex.homedeck");
  EXPECT_EQ(BundleIdentifierFromSecurityLabel("/usr/bin/kx-search (complain)\n"), "kx-search");
  EXPECT_EQ(BundleIdentifierFromSecurityLabel("system_u:system_r:kxsearchd_t:s0"), "kxsearchd_t");
  EXPECT_EQ(BundleIdentifierFromSecurityLabel("unconfined"), std::nullopt);
  EXPECT_EQ(
      BundleIdentifierFromSecurityLabel("unconfined_u:unconfined_r:unconfined_t:s0-s0:c0.c1023"),
      std::nullopt);
  EXPECT_EQ(BundleIdentifierFromSecurityLabel(std::string_view("\0", 1)), std::nullopt);
  EXPECT_EQ(BundleIdentifierFromSecurityLabel("broken:label"), std::nullopt);

  PeerIdentity labelled;
  labelled.securityLabel = "com.orvex.app (enforce)";
  labelled.executableName = "app-binary";
  EXPECT_EQ(PeerBundleIdentifier(labelled), "com.orvex.app");
  labelled.securityLabel = "unconfined";
  EXPECT_EQ(PeerBundleIdentifier(labelled), "app-binary");
  labelled.executableName.clear();
  EXPECT_EQ(PeerBundleIdentifier(labelled), std::nullopt);
}

}  // namespace
}  // namespace kx
