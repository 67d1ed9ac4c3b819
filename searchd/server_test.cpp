#include "searchd/server.h"

#include <gtest/gtest.h>

#include <thread>

#include "ipc/dpq_testing.h"
#include "kx/KXSearchResult.h"
#include "kx/WireReader.h"
#include "kx/main_loop.h"
#include "searchd/icon_theme.h"
#include "searchd/indexer.h"
#include "tests/support/test_environment.h"

namespace kx::searchd {
namespace {

using test::Client;
using test::Named;

constexpr auto kPause = std::chrono::milliseconds(300);

// The server in this process over the sample data, with a pause between
// batches so that a query can be closed while it still has one to send.
class ServerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    indexPath_ = test::TestRoot() + "/server.db";
    writer_ = std::make_unique<Index>(indexPath_, false);
    // Not the documents: indexing them writes identifiers into the files.
    SourceLocations locations = SourceLocations::UnderRoot(KX_EXAMPLES_DATA);
    locations.documents.clear();
    Indexer(*writer_, MakeSources(locations)).update();
    ServerOptions options;
    options.serviceName = "server-test";
    options.indexPath = indexPath_;
    options.feedbackPath = test::TestRoot() + "/feedback.jsonl";
    options.batchPause = kPause;
    server_ = std::make_unique<SearchServer>(options, *writer_, writerMutex_);
    SetExtraIconDirectories({std::string(KX_EXAMPLES_DATA) + "/icons"});
    server_->setDomainOrder({19, 5, 2, 4});
    server_->start();
    // Listener events arrive on the main queue.
    loop_ = std::thread([] { main_loop::run(); });
  }
  void TearDown() override {
    main_loop::stop();
    loop_.join();
    server_.reset();
  }

  static std::vector<std::shared_ptr<KXDPQMessage>> For(Client& client, uint32_t qid) {
    std::vector<std::shared_ptr<KXDPQMessage>> out;
    for (auto& m : client.messages->items())
      if (const Number* n = m->info()["QID"].number(); n && n->uint32Value() == qid) out.push_back(m);
    return out;
  }
  static Value Open(uint32_t qid, const std::string& text) {
    return MakeDictionary({{"QID", Number::UInt32(qid)}, {"QS", text},
                           {"DA", Array{Number::Int32(2), Number::Int32(4), Number::Int32(5), Number::Int32(19)}}});
  }

  std::string indexPath_;
  std::mutex writerMutex_;
  std::unique_ptr<Index> writer_;
  std::unique_ptr<SearchServer> server_;
  std::thread loop_;
};

TEST_F(ServerTest, ClosedQuerySendsNothingMoreWhileAnOpenOneCompletes) {
  Client client("server-test");
  // Query 8 runs to its end: several batches, then "SearchComplete".
  ASSERT_TRUE(client.request(Named("OpenQuery", Open(8, "e"))));
  // Query 7 is closed as soon as its first batch is in.
  ASSERT_TRUE(client.request(Named("OpenQuery", Open(7, "e"))));
  for (auto deadline = std::chrono::steady_clock::now() + test::kTimeout;
       For(client, 7).empty() && std::chrono::steady_clock::now() < deadline;)
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  ASSERT_TRUE(client.request(Named("CloseQuery", MakeDictionary({{"QID", Number::Int32(7)}}))));
  const size_t atClose = For(client, 7).size();
  EXPECT_EQ(atClose, 1u);

  for (auto deadline = std::chrono::steady_clock::now() + test::kTimeout;
       std::chrono::steady_clock::now() < deadline;) {
    auto eight = For(client, 8);
    if (!eight.empty() && eight.back()->name() == "SearchComplete") break;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  std::this_thread::sleep_for(2 * kPause);
  EXPECT_EQ(For(client, 7).size(), atClose);
  const auto eight = For(client, 8);
  ASSERT_GE(eight.size(), 3u);
  for (size_t i = 0; i + 1 < eight.size(); ++i) EXPECT_EQ(eight[i]->name(), "SearchResults");
  EXPECT_EQ(eight.back()->name(), "SearchComplete");
  const std::string* fbq = eight.back()->info()["FBQ"].string();
  ASSERT_NE(fbq, nullptr);
  EXPECT_NE(eight.back()->info()["WFBQ"].string(), nullptr);
  EXPECT_EQ(server_->runningQueryCount(), 0u);
}

TEST_F(ServerTest, SmallRequestsGetTheirDocumentedAnswers) {
  Client client("server-test");
  auto fte = client.request(Named("RequestFTE"));
  ASSERT_TRUE(fte && *fte);
  EXPECT_NE((*fte)->info()["FTE"].string(), nullptr);
  auto vanparam = client.request(Named("RequestVantleParameters"));
  ASSERT_TRUE(vanparam && *vanparam);
  EXPECT_NE((*vanparam)->info()["VANPARAM"].dictionary(), nullptr);

  // An application's icon, rendered from the sample theme's SVG.
  auto image = client.request(Named("GetResultImage",
      MakeDictionary({{"IDI", "org.kxsample.Files"}, {"D", Number::Int32(4)},
                      {"ImageWidth", Number::Float(32)}, {"ImageHeight", Number::Float(32)}})));
  ASSERT_TRUE(image && *image);
  const Value::Bytes* png = (*image)->info()["UA"].data();
  ASSERT_NE(png, nullptr);
  ASSERT_GT(png->size(), 24u);
  EXPECT_EQ(std::string(png->begin() + 1, png->begin() + 4), "PNG");
  EXPECT_EQ((*png)[19], 32);  // IHDR width, low byte
  auto unknown = client.request(Named("GetResultImage", MakeDictionary({{"IDI", "no.such.app"}})));
  ASSERT_TRUE(unknown && *unknown);
  EXPECT_EQ((*unknown)->info()["UA"].data(), nullptr);

  // A card: the whole result for its URL.
  const std::string url = FileUrl(std::string(KX_EXAMPLES_DATA) + "/notes/garden.md");
  auto card = client.request(Named("RequestCardData", MakeDictionary({{"URL", url}})));
  ASSERT_TRUE(card && *card);
  const Value::Bytes* coded = (*card)->info()["R"].data();
  ASSERT_NE(coded, nullptr);
  KXSearchResult result;
  WireReader reader(*coded);
  ASSERT_TRUE(result.readFrom(reader));
  EXPECT_EQ(result.title(), "Garden");
  EXPECT_EQ(result.url(), url);
}

}  // namespace
}  // namespace kx::searchd
