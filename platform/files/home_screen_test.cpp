#include "platform/files/home_screen.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "platform/strings/localized_strings.h"
#include "tests/support/test_environment.h"

namespace kx {
namespace {

namespace fs = std::filesystem;

class HomeScreenTest : public testing::Test {
 protected:
  void SetUp() override {
    user_ = fs::path(test::TestRoot()) / "home/.local/share";
    system_ = fs::path(test::TestRoot()) / "system-data";
    setenv("XDG_DATA_DIRS", system_.c_str(), 1);
    SetLocalizationLocale("de_AT.UTF-8");
  }
  void TearDown() override {
    SetLocalizationLocale(std::nullopt);
    fs::remove_all(user_ / "applications");
    fs::remove_all(system_);
  }
  static void Write(const fs::path& dataDir, const std::string& id, const std::string& text) {
    fs::create_directories(dataDir / "applications");
    std::ofstream(dataDir / "applications" / (id + ".desktop")) << text;
  }
  fs::path user_, system_;
};

TEST_F(HomeScreenTest, ParsingKeepsOnlyTheDesktopEntryGroupAndResolvesEscapes) {
  auto entry = ParseDesktopEntry(
      "# comment\n[Desktop Entry]\nName = Mail\\sApp \nName=Second\nExec=mail\n"
      "[Desktop Action Compose]\nName=Compose\n");
  ASSERT_TRUE(entry);
  EXPECT_EQ(entry->at("Name"), "Mail App");
  EXPECT_EQ(entry->at("Exec"), "mail");
  EXPECT_EQ(entry->size(), 2u);
  EXPECT_FALSE(ParseDesktopEntry("Name=Orphan\n"));
  EXPECT_FALSE(ParseDesktopEntry("[Desktop Entry]\nName=Gone\nHidden=true\n"));
}

TEST_F(HomeScreenTest, LocalizedValuesFollowTheMatchingOrder) {
  const std::map<std::string, std::string, std::less<>> entry{
      {"Name", "Mail"}, {"Name[de]", "Post"}, {"Name[de_AT]", "Poscht"},
      {"Name[sr@latin]", "Pošta"}, {"Name[sr_RS@latin]", "Pošta RS"}};
  EXPECT_EQ(LocalizedDesktopValue(entry, "Name", "de_AT.UTF-8"), "Poscht");
  EXPECT_EQ(LocalizedDesktopValue(entry, "Name", "de_CH.UTF-8"), "Post");
  EXPECT_EQ(LocalizedDesktopValue(entry, "Name", "sr_RS.UTF-8@latin"), "Pošta RS");
  EXPECT_EQ(LocalizedDesktopValue(entry, "Name", "sr_ME@latin"), "Pošta");
  EXPECT_EQ(LocalizedDesktopValue(entry, "Name", "C"), "Mail");
}

TEST_F(HomeScreenTest, UserEntriesShadowSystemEntries) {
  Write(system_, "com.example.mail",
        "[Desktop Entry]\nName=System Mail\nName[de]=System-Post\nX-KX-Bundle-Path=/opt/mail\n");
  EXPECT_EQ(ApplicationLocalizedName("com.example.mail"), "System-Post");
  EXPECT_EQ(ApplicationBundlePath("com.example.mail"), "/opt/mail");

  Write(user_, "com.example.mail", "[Desktop Entry]\nName=My Mail\n");
  EXPECT_EQ(ApplicationLocalizedName("com.example.mail"), "My Mail");
  EXPECT_EQ(ApplicationBundlePath("com.example.mail"), std::nullopt);

  // A hidden user entry removes the application rather than revealing the
  // system one.
  Write(user_, "com.example.mail", "[Desktop Entry]\nName=My Mail\nHidden=true\n");
  EXPECT_EQ(ApplicationLocalizedName("com.example.mail"), std::nullopt);
}

TEST_F(HomeScreenTest, UnusableIdentifiersAndPathsFindNothing) {
  Write(system_, "rel", "[Desktop Entry]\nName=Rel\nX-KX-Bundle-Path=relative/dir\n");
  EXPECT_EQ(ApplicationBundlePath("rel"), std::nullopt);
  EXPECT_EQ(ApplicationLocalizedName("rel"), "Rel");
  EXPECT_EQ(ApplicationLocalizedName("../system-data/applications/rel"), std::nullopt);
  EXPECT_EQ(ApplicationLocalizedName("com.example.missing"), std::nullopt);
}

}  // namespace
}  // namespace kx
