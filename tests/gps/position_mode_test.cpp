// The positioning mode on a sandbox: uci options through the stand-in tool, $PCAS commands on a
// pseudo-terminal standing in for the receiver's UART, the record cleared after every update.
#include <gtest/gtest.h>

#include <string>
#include <tuple>

#include "fsusdk.h"
#include "gps/gps_record.h"
#include "gps/nmea_reader.h"
#include "gps/position_mode.h"
#include "serial/uart_driver.h"
#include "support/config_reader.h"
#include "support/sdk_log.h"
#include "tests/sim/board_fixture.h"

namespace fsu::gps {
namespace {

const std::string kGga = "$GPGGA,123519,4807.038,N,01131.000,E,1,08,0.9,545.4,M,46.9,M,,*47\r\n";
const std::string kBoth = "$PCAS04,3*1A\r\n$PCAS00*01\r\n";
const std::string kGpsOnly = "$PCAS04,1*18\r\n$PCAS00*01\r\n";

int read_batch(std::string text) {
  text.insert(0, 1025 - text.size(), ' ');
  return BSP_GPS_READ(text.data(), static_cast<int>(text.size()));
}

std::string option(const char* name) { return support::sdkuci_get_flash((std::string("uci get dtm.sys.") + name).c_str()); }

// A sandbox whose receiver UART is a pseudo-terminal, with the update's waits only counted.
long waited = 0;
struct Unit {
  explicit Unit(const std::string& dtm) {
    reset_gps_reader_for_tests();
    box.write("/etc/config/dtm", "config dtm 'sys'\n" + dtm);
    serial::BSP_ComCreate(6);
    set_mode_update_wait([](long seconds) { waited += seconds; });
    support::SDK_LOG_PAR_INIT();
  }
  ~Unit() { serial::BSP_ComDestroy(6); }
  test::TestSandbox box;
  sim::FakeUart receiver{box.path("/dev/ttymxc7")};
};

TEST(PositionMode, FirstStartAppliesTheFactoryDefaultOnceAndCommandsBothSystems) {
  Unit unit("\toption pcas '0'\n");
  GPS_DEFAULT_SET();
  GPS_DEFAULT_SET();
  EXPECT_EQ(unit.box.read("/etc/kq_bd_gps_default"), "1\n");
  EXPECT_EQ(unit.box.calls(), "uci set dtm.sys.pcas=2\nuci commit\n");

  char report[1024];
  EXPECT_EQ(BSP_GET_GPS_dB_INFO(report), -1);  // no GSV group has come yet
  read_batch(kGga);
  EXPECT_EQ(GPS_MODE_UPDATE(), 256);  // rm finds no /tmp/gps_* files
  EXPECT_EQ(unit.receiver.drain(), kBoth);
  EXPECT_EQ(waited, 3);
  EXPECT_EQ(Read_PositionMode(), 2);
  EXPECT_NE(unit.box.read("/tmp/sdklog.log").find("gps_pcas=0,PositionMode=2"), std::string::npos);
  // The record is cleared and the next batch only clears it again; the one after is read.
  EXPECT_EQ(gps_fix().latitude, 0);
  EXPECT_EQ(read_batch(kGga), 0);
  EXPECT_EQ(gps_fix().latitude, 0);
  read_batch(kGga);
  EXPECT_NE(gps_fix().latitude, 0);
}

TEST(PositionMode, SettersCompareWithThePcasOptionAndCommandByPcasSdk) {
  const std::string pcas2 = "\toption pcas '2'\n", sdk1 = pcas2 + "\toption pcas_sdk '1'\n";
  // Each row: the call, the dtm file, then the wire, pcas, pcas_sdk, PositionMode, Read_PositionMode.
  for (const auto& [set, mode, dtm, expected] : {std::tuple{&GPS_SET_PCAS, 1, pcas2, kGpsOnly + "|1|1|1|1"},
                                                 {GPS_SET_PCAS, 2, sdk1, kGpsOnly + "|2|1|1|1"},
                                                 {BSP_SET_GPS_PCAS, 0, pcas2, kBoth + "|0|0|0|0"},
                                                 {SetPositionMode, 3, sdk1, kBoth + "|3|3|3|3"},
                                                 {SDK_GPS_SET_PCAS, 0, pcas2, "|99999|99999|99999|0"},
                                                 {SetPositionMode, 0, pcas2, "|99999|99999|99999|0"}}) {
    Unit unit(dtm);
    read_batch(kGga);
    EXPECT_NE(set(mode), -1);
    const std::string where = dtm + " mode " + std::to_string(mode);
    EXPECT_EQ(unit.receiver.drain() + "|" + option("pcas") + "|" + option("pcas_sdk") + "|" + std::to_string(PositionMode.load()) +
                  "|" + std::to_string(Read_PositionMode()), expected) << where;
    EXPECT_EQ(gps_fix().latitude, 0) << where;
    // Nothing is written when the option already holds the mode.
    EXPECT_EQ(unit.box.calls().find("uci commit") == std::string::npos, mode == 2) << where;
  }
}

}  // namespace
}  // namespace fsu::gps
