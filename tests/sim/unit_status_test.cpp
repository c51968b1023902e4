#include "sim/unit_status.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

namespace fsu::sim {
namespace {

TEST(UnitStatus, LinesSplitIntoNamesAndFieldsLookUpByNameAndRenderAsOneValidObjectWhateverTheBytes) {
  const std::string text =
      "board up pid=4242 root=/tmp/unit\n"
      "relay 2 for=Local/DO/2 on=environment-board output=2 state=on\n"
      "led run gpio=1 value=1 state=dark\n"
      "modem row=10 model=EC20 state=ready signal=24 net=4G\n"
      "link ppp0 state=up address=10.64.12.34 dials=1\n"
      "receiver port=7 heard=$PCAS04,3*1A|$PCAS00*01 gps=1:46,2:41\n"
      "error at=57 \"uart 13 loopback\": no port 13 (ports are 1 to 12)\n"
      "relay 2 state=off\n"  // a name shows once: the first line holds
      "\n   \nx=1 odd\n"       // blank lines and a line with no name are skipped
      "uart 3 bytes=\x01\"\\\xff\xfe tail\n";
  const UnitStatus status = parse_unit_status(text);
  EXPECT_EQ(unit_status_value(status, "relay 2"), "on");
  EXPECT_EQ(unit_status_value(status, "led run.value"), "1");
  EXPECT_EQ(unit_status_value(status, "modem.signal"), "24");
  EXPECT_EQ(unit_status_value(status, "link ppp0.address"), "10.64.12.34");
  EXPECT_EQ(unit_status_value(status, "board up.pid"), "4242");
  EXPECT_EQ(unit_status_value(status, "relay 9"), std::nullopt);
  EXPECT_EQ(unit_status_value(status, "modem.nothing"), std::nullopt);
  EXPECT_EQ(unit_status_value(status, "modem"), "ready");

  const auto object = nlohmann::json::parse(unit_status_json(status));
  EXPECT_EQ(object["relay 2"]["state"], "on");
  EXPECT_EQ(object["receiver"]["heard"], "$PCAS04,3*1A|$PCAS00*01");
  EXPECT_EQ(object["errors"][0]["line"], "uart 13 loopback");
  EXPECT_EQ(object["errors"][0]["at"], "57");
  EXPECT_EQ(object["errors"][0]["why"], "no port 13 (ports are 1 to 12)");
  EXPECT_EQ(object["uart 3"]["bytes"], "\x01\"\\\xef\xbf\xbd\xef\xbf\xbd");
  EXPECT_FALSE(object.contains("x=1 odd"));

  std::string bytes;  // any bytes at all still give a valid object
  for (int i = 0; i < 4096; ++i) bytes += static_cast<char>((i * 7919) % 256);
  EXPECT_TRUE(nlohmann::json::accept(unit_status_json(parse_unit_status(bytes))));
  EXPECT_EQ(nlohmann::json::parse(unit_status_json({})), nlohmann::json::parse(R"({"errors": []})"));
}

}  // namespace
}  // namespace fsu::sim
