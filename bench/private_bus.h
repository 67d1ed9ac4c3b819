// A private dbus-daemon for the benchmarks that compare our transport with a
// D-Bus method call: started with a configuration of its own under taskset,
// and a client connection to it.
#pragma once

#include <fcntl.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <optional>
#include <string>

#include "platform/process/child_process.h"

namespace kx::bench {

inline sd_bus* ConnectBus(const std::string& address) {
  sd_bus* bus = nullptr;
  int r = sd_bus_new(&bus);
  if (r >= 0) r = sd_bus_set_address(bus, address.c_str());
  if (r >= 0) r = sd_bus_set_bus_client(bus, 1);
  if (r >= 0) r = sd_bus_start(bus);
  if (r >= 0) return bus;
  std::fprintf(stderr, "cannot connect to %s: %s\n", address.c_str(), std::strerror(-r));
  sd_bus_unref(bus);
  return nullptr;
}

// Starts a private bus with a configuration of its own, under taskset, and
// returns its address as dbus-daemon prints it once it listens.
inline std::optional<std::string> StartBus(const std::string& root, const std::string& cpus,
                                    std::optional<kx::ChildProcess>* daemon) {
#if defined(KX_DBUS_DAEMON) && defined(KX_TASKSET)
  const std::string config = root + "/bus.conf";
  std::ofstream(config) << "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\"\n"
                           " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
                           "<busconfig>\n"
                           "  <type>session</type>\n"
                           "  <listen>unix:path=" << root << "/bus</listen>\n"
                           "  <auth>EXTERNAL</auth>\n"
                           "  <policy context=\"default\">\n"
                           "    <allow send_destination=\"*\" eavesdrop=\"true\"/>\n"
                           "    <allow eavesdrop=\"true\"/>\n"
                           "    <allow own=\"*\"/>\n"
                           "  </policy>\n"
                           "</busconfig>\n";
  int fds[2];
  if (pipe(fds) != 0) return std::nullopt;
  fcntl(fds[0], F_SETFD, FD_CLOEXEC);
  // The write end is inherited on purpose: dbus-daemon prints its address
  // there once it listens.
  *daemon = kx::ChildProcess::Spawn(
      KX_TASKSET, {"-c", cpus, KX_DBUS_DAEMON, "--config-file=" + config, "--nofork",
                   "--print-address=" + std::to_string(fds[1])});
  close(fds[1]);
  std::string address;
  char c;
  while (read(fds[0], &c, 1) == 1 && c != '\n') address += c;
  close(fds[0]);
  if (!*daemon || address.empty()) return std::nullopt;
  return address;
#else
  (void)root;
  (void)cpus;
  (void)daemon;
  std::fprintf(stderr, "dbus-daemon or taskset missing at build time: no D-Bus contender\n");
  return std::nullopt;
#endif
}

}  // namespace kx::bench
