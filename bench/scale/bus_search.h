// The D-Bus anchor of the transport: the daemon's own index answered through
// a method call, Search(s text) -> a(ussss) (domain, identifier, title,
// subtitle, url per result), on a private dbus-daemon. The peer runs the
// index rules exactly as kx-searchd does, so both sides return the same
// results and differ only by the way they travel.
#pragma once

#include <systemd/sd-bus.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kx::bench {

inline constexpr const char* kSearchBusName = "com.orvex.bench.Search";

// Serves Search on the bus at `address` over the index at `indexPath` until
// the bus goes away. The exit status of the peer process.
int ServeBusSearch(const std::string& address, const std::string& indexPath,
                   const std::vector<uint32_t>& domains, size_t limit);

// One call; the number of results decoded, nullopt on an error.
std::optional<size_t> CallBusSearch(sd_bus* bus, const std::string& text);

}  // namespace kx::bench
