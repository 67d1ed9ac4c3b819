#include "platform/services/activity.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace kx {
namespace {

class RecordingActivities : public Activities {
 public:
  uint64_t begin(std::string_view name, uint64_t parent) override {
    events.push_back("begin " + std::string(name) + " parent " + std::to_string(parent));
    return ++last;
  }
  void end(uint64_t activity) override { events.push_back("end " + std::to_string(activity)); }
  std::vector<std::string> events;
  uint64_t last = 100;
};

TEST(ActivityTest, ScopesNestOnAThreadAndEndWithTheServiceThatBeganThem) {
  auto recording = std::make_shared<RecordingActivities>();
  Activities::SetShared(recording);
  {
    ActivityScope outer("query");
    EXPECT_EQ(ActivityScope::Current(), 101u);
    {
      ActivityScope inner("send");
      EXPECT_EQ(inner.id(), 102u);
      // Replacing the service mid-scope must not strand open activities.
      Activities::SetShared(nullptr);
    }
    EXPECT_EQ(ActivityScope::Current(), 101u);
  }
  EXPECT_EQ(ActivityScope::Current(), 0u);
  EXPECT_EQ(recording->events, (std::vector<std::string>{"begin query parent 0",
                                                         "begin send parent 101", "end 102",
                                                         "end 101"}));
  // The default service hands out distinct non-zero ids.
  ActivityScope a("a"), b("b");
  EXPECT_NE(a.id(), 0u);
  EXPECT_NE(a.id(), b.id());
}

}  // namespace
}  // namespace kx
