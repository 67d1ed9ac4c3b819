#include "bench/scale/bus_search.h"

#include <cstdio>
#include <cstring>
#include <set>

#include "searchd/index.h"

namespace kx::bench {
namespace {

constexpr const char* kPath = "/com/orvex/bench/Search";
constexpr const char* kInterface = "com.orvex.bench.Search";

struct Peer {
  kx::searchd::Index index;
  std::set<uint32_t> domains;
  size_t limit;
};

int OnSearch(sd_bus_message* m, void* userdata, sd_bus_error*) {
  auto* peer = static_cast<Peer*>(userdata);
  const char* text = nullptr;
  int r = sd_bus_message_read(m, "s", &text);
  if (r < 0) return r;
  kx::searchd::SearchRequest request;
  request.limit = peer->limit;
  const auto hits = peer->index.searchDomains(kx::searchd::PlanQuery(text), peer->domains, request);
  sd_bus_message* reply = nullptr;
  r = sd_bus_message_new_method_return(m, &reply);
  if (r >= 0) r = sd_bus_message_open_container(reply, 'a', "(ussss)");
  for (const auto& [domain, items] : hits)
    for (const kx::searchd::IndexedItem& hit : items)
      if (r >= 0)
        r = sd_bus_message_append(reply, "(ussss)", domain, hit.item.identifier.c_str(), hit.item.title.c_str(),
                                  hit.item.subtitle.c_str(), hit.item.url.c_str());
  if (r >= 0) r = sd_bus_message_close_container(reply);
  if (r >= 0) r = sd_bus_send(nullptr, reply, nullptr);
  sd_bus_message_unref(reply);
  return r;
}

const sd_bus_vtable kVtable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("Search", "s", "a(ussss)", OnSearch, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END,
};

}  // namespace

int ServeBusSearch(const std::string& address, const std::string& indexPath,
                   const std::vector<uint32_t>& domains, size_t limit) {
  Peer peer{kx::searchd::Index(indexPath, /*readOnly=*/true), {domains.begin(), domains.end()}, limit};
  sd_bus* bus = nullptr;
  int r = sd_bus_new(&bus);
  if (r >= 0) r = sd_bus_set_address(bus, address.c_str());
  if (r >= 0) r = sd_bus_set_bus_client(bus, 1);
  if (r >= 0) r = sd_bus_start(bus);
  if (r >= 0) r = sd_bus_add_object_vtable(bus, nullptr, kPath, kInterface, kVtable, &peer);
  if (r >= 0) r = sd_bus_request_name(bus, kSearchBusName, 0);
  while (r >= 0) {
    r = sd_bus_process(bus, nullptr);
    if (r == 0) r = sd_bus_wait(bus, UINT64_MAX);
  }
  sd_bus_flush_close_unref(bus);
  // The bus going away is the normal end.
  if (r != -ECONNRESET && r != -ENOTCONN) std::fprintf(stderr, "bus search peer: %s\n", std::strerror(-r));
  return 0;
}

std::optional<size_t> CallBusSearch(sd_bus* bus, const std::string& text) {
  sd_bus_error error = SD_BUS_ERROR_NULL;
  sd_bus_message* reply = nullptr;
  int r = sd_bus_call_method(bus, kSearchBusName, kPath, kInterface, "Search", &error, &reply, "s", text.c_str());
  size_t count = 0;
  if (r >= 0) r = sd_bus_message_enter_container(reply, 'a', "(ussss)");
  while (r >= 0) {
    uint32_t domain;
    const char *identifier, *title, *subtitle, *url;
    r = sd_bus_message_read(reply, "(ussss)", &domain, &identifier, &title, &subtitle, &url);
    if (r <= 0) break;
    ++count;
  }
  sd_bus_message_unref(reply);
  sd_bus_error_free(&error);
  if (r < 0) return std::nullopt;
  return count;
}

}  // namespace kx::bench
