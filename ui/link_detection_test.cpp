#include "ui/link_detection.h"

#include <gtest/gtest.h>

namespace kx {
namespace {

TEST(LinkDetectionTest, LinksAddressesAndEscapesTheRest) {
  EXPECT_EQ(HTMLWithDetectedLinks("See https://a.example/x?y=1&z=2. <b>\nok").toStdString(),
            "See <a href=\"https://a.example/x?y=1&amp;z=2\">https://a.example/x?y=1&amp;z=2</a>."
            " &lt;b&gt;<br>ok");
  EXPECT_EQ(HTMLWithDetectedLinks("(www.orvex.com), mail privacy@orvex.com!").toStdString(),
            "(<a href=\"https://www.orvex.com\">www.orvex.com</a>), mail "
            "<a href=\"mailto:privacy@orvex.com\">privacy@orvex.com</a>!");
  EXPECT_EQ(HTMLWithDetectedLinks("no links: http:// here").toStdString(),
            "no links: http:// here");
}

}  // namespace
}  // namespace kx
