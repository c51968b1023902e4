// The NMEA reader on batches as the receiver's reader thread hands them over, and its signal report.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>
#include <tuple>
#include <vector>

#include "fsusdk.h"
#include "gps/gps_record.h"
#include "gps/nmea_reader.h"
#include "gps/signal_report.h"

namespace fsu::gps {
namespace {

// "$", the body, its checksum and the line end.
std::string nmea(const std::string& body) {
  unsigned sum = 0;
  for (const char c : body) sum ^= static_cast<unsigned char>(c);
  char tail[8];
  std::snprintf(tail, sizeof tail, "*%02X\r\n", sum);
  return "$" + body + tail;
}

// Hands `text` over as one batch of `size` bytes, blanks in front.
int read_batch(std::string text, std::size_t size = 1025) {
  if (text.size() < size) text.insert(0, size - text.size(), ' ');
  return BSP_GPS_READ(text.data(), static_cast<int>(text.size()));
}

const std::string kGga = "$GPGGA,123519,4807.038,N,01131.000,E,1,08,0.9,545.4,M,46.9,M,,*47\r\n";
const std::string kSouth = "$GNRMC,081836,A,3351.000,S,15112.500,E,000.0,360.0,130998,011.3,E*7A\r\n";

struct NmeaReader : ::testing::Test {
  NmeaReader() { setenv("TZ", "UTC", 1); tzset(); reset_gps_reader_for_tests(); }
};

TEST_F(NmeaReader, ParsesOnlyBatchesAboveTheThresholdAndReadsPositionInSinglePrecision) {
  EXPECT_EQ(read_batch(kGga, 1024), -1);
  EXPECT_EQ(gps_fix().latitude, 0);
  double latitude = 1, longitude = 1;
  EXPECT_EQ(FsuGetPosition(&latitude, &longitude), FSU_ERR_NO_ANSWER);
  EXPECT_EQ(std::pair(latitude, longitude), std::pair(0.0, 0.0));
  EXPECT_EQ(read_batch(kGga, 1025), 0);
  const GpsFix fix = gps_fix();
  EXPECT_FLOAT_EQ(static_cast<float>(fix.latitude), 48.1173f);
  EXPECT_FLOAT_EQ(static_cast<float>(fix.longitude), 11.516667f);
  EXPECT_EQ(fix.longitude, static_cast<float>(fix.longitude));  // single precision, stored as a double
  EXPECT_FLOAT_EQ(fix.altitude, 592.3f);

  // Sentences that leave the position alone (checksum in lower case, "$" inside, no fix, cut short,
  // too long, a NUL); the GN talker's RMC in the south moves it, positive.
  // "$" to "*" at most 200 bytes: a body of 199 characters is the longest taken.
  const auto padded = [](std::size_t size) { return std::string("GPRMC,1,A,2230.000,S,1.0,E,").append(size - 27, ','); };
  for (const std::string& ignored :
       {std::string(kSouth).replace(kSouth.find("*7A"), 3, "*7a"), std::string(kSouth).insert(20, "$"),
        nmea("GPRMC,081836,V,3351.000,S,15112.500,E,,,130998,,"), nmea("GPGGA,123519,,N,01131.000,E,1,08"),
        kSouth.substr(0, kSouth.size() - 5), nmea(padded(200)), std::string("$GPRMC,1,A,33\0", 14) + "*1\r\n"}) {
    read_batch(ignored);
    EXPECT_FLOAT_EQ(static_cast<float>(gps_fix().latitude), 48.1173f) << ignored;
  }
  read_batch(nmea(padded(199)));
  EXPECT_FLOAT_EQ(static_cast<float>(gps_fix().latitude), 22.5f);
  read_batch(kGga.substr(0, kGga.size() - 2) + kSouth);  // glued to the sentence before it
  EXPECT_FLOAT_EQ(static_cast<float>(gps_fix().latitude), 33.85f);
  EXPECT_FLOAT_EQ(static_cast<float>(gps_fix().longitude), 151.20833f);
  // Our signed position: the hemispheres of the sentence that gave the fix, RMC or GGA.
  EXPECT_EQ(FsuGetPosition(&latitude, &longitude), FSU_OK);
  EXPECT_FLOAT_EQ(static_cast<float>(latitude), -33.85f);
  EXPECT_FLOAT_EQ(static_cast<float>(longitude), 151.20833f);
  read_batch(nmea("GPGGA,123519,4807.038,N,01131.000,W,1,08,0.9,545.4,M,46.9,M,,"));
  EXPECT_EQ(FsuGetPosition(&latitude, &longitude), FSU_OK);
  EXPECT_FLOAT_EQ(static_cast<float>(latitude), 48.1173f);
  EXPECT_FLOAT_EQ(static_cast<float>(longitude), -11.516667f);
  EXPECT_EQ(FsuGetPosition(nullptr, &longitude), FSU_ERR_FAILED);
  read_batch(kGga.substr(0, kGga.size() - 1) + "\r\n");  // a doubled carriage return still ends the line
  EXPECT_FLOAT_EQ(static_cast<float>(gps_fix().latitude), 48.1173f);
}

TEST_F(NmeaReader, ZdaGivesUtcPlusEightHoursCorrectedByItsZone) {
  const std::time_t utc = 1794817630;  // 2026-11-16 08:27:10 UTC
  // Zone minutes that end at "*" read as 0.
  const std::pair<std::string, std::time_t> rows[] = {{"00,00", utc + 28800}, {"08,00", utc}, {"-05,30", utc + 46800},
                                                      {"-05,30,", utc + 48600}, {"23,00", utc - 54000}, {"01,00", utc + 25200}};
  for (const auto& [zone, expected] : rows) {
    read_batch(nmea("GPZDA,082710.00,16,11,2026," + zone));
    EXPECT_EQ(gps_fix().gps_time, expected) << zone;
  }
  // A receiver without time yet, or a date that is no date, leaves the last time.
  for (const char* bad : {"GPZDA,,,,,,", "GPZDA,082710.00,31,13,2026,00,00", "GPZDA,087710.00,16,11,2026,00,00", "GPZDA,082710.00,16,11,2026,24,00", "GPZDA,082762.00,16,11,2026,00,00"}) {
    read_batch(nmea(bad));
    EXPECT_EQ(gps_fix().gps_time, utc + 25200) << bad;
  }
  // The same day and hour a month earlier, and a leap second.
  read_batch(nmea("GPZDA,082710.00,16,11,2026,00,00")), read_batch(nmea("GPZDA,082760.00,16,10,2026,00,00"));
  EXPECT_EQ(gps_fix().gps_time, utc + 28800 - 31 * 86400 + 50);
}

TEST_F(NmeaReader, GsvGroupsFillTheSlotsWhenCompleteGsaCountsSatellitesUsedAndOversizedFieldsStayInTheRecord) {
  const std::string group[] = {nmea("GPGSV,3,1,10,01,40,083,46,02,17,308,41,12,07,344,39,14,22,228,45"),
                               nmea("GPGSV,3,2,10,15,44,050,38,17,10,100,,19,,200,30,24,60,010,42"),
                               nmea("GPGSV,3,3,10,25,05,300,33,32,55,123,,,10,100,36")};  // a block without its id is no satellite
  for (const std::string& message : group) {
    EXPECT_EQ(Read_GPS_dB_Flag(), 0);
    EXPECT_EQ(gps_info().gps_sat_id[0], 0);  // a group shows only once it is complete
    read_batch(message);
  }
  EXPECT_EQ(Read_GPS_dB_Flag(), 1);
  EXPECT_EQ(Read_GPS_dB_Flag(), 0);
  const GpsInfo info = gps_info();
  EXPECT_EQ(std::vector<int>(info.gps_sat_id, info.gps_sat_id + 11), (std::vector<int>{1, 2, 12, 14, 15, 17, 19, 24, 25, 32, 0}));
  EXPECT_EQ(std::vector<int>(info.gps_cn0, info.gps_cn0 + 11), (std::vector<int>{46, 41, 39, 45, 38, 0, 0, 42, 33, 0, 0}));

  // Message number 10 stores nothing; its group counts as complete only against a total of 0.
  read_batch(nmea("GPGSV,10,10,12,05,40,083,46"));
  EXPECT_EQ(Read_GPS_dB_Flag(), 0);
  read_batch(nmea("GPGSV,,10,12,05,40,083,46"));
  EXPECT_EQ(Read_GPS_dB_Flag(), 1);
  EXPECT_EQ(gps_info().gps_sat_id[36], 0);

  // A new group clears its own constellation only; the report lists both.
  read_batch(nmea("GPGSV,1,1,02,03,40,083,38,17,10,100,25") + nmea("BDGSV,1,1,01,06,40,083,41"));
  Read_GPS_dB_Flag();
  EXPECT_STREQ(SET_GPS_BD_dB(), "GPS,卫星标识=3,17,,CN0=38,25,\r\n;BD,卫星标识=6,,CN0=41,");
  EXPECT_EQ(Read_GPS_dB_Flag(), 1);  // a report built on request is there for the next request too

  // Satellites used, counted by talker: GN counts for neither.
  read_batch(nmea("GPGSA,A,3,04,05,,09,12,,,24,,,,,2.5,1.3,2.1") + nmea("BDGSA,A,3,01,02,03,04,05,06,07,08,09,10,11,12,2.5,1.3,2.1,4") +
             nmea("GNGSA,A,3,01,02,03,,,,,,,,,,2.5,1.3,2.1"));
  EXPECT_EQ(std::pair(gps_fix().gps_used, gps_fix().bd_used), std::pair(5.0f, 12.0f));

  // Oversized fields and GSV blocks stay within the record.
  const std::string digits(40, '9');
  read_batch(nmea("GPGGA,1," + digits + ",N," + digits + ",E,1,08,0.9,-" + digits + ",M,,") + nmea("GPGSV,0,0," + digits + ",") +
             nmea("BDGSV,9,9,99,1,2,3,4,5,6,7,8,9,1,2,3,4,5,6,7,8,9,1,2,3,4,5,6,7,8,9" + std::string(100, ',')));
  const GpsInfo cut = gps_info();
  // Message 9's first block in slot 32; the blocks behind it fit slots 33 to 80.
  EXPECT_EQ(std::tuple(cut.bd_sat_id[32], cut.bd_cn0[32], cut.latitude, cut.altitude, cut.gps_in_view),
            std::tuple(1, 4, double{99 + 1e8f / 60}, -1e8f, 1e8f));
}

TEST(ReadAStr, TakesTheTextBetweenTwoCountedNeedles) {
  const std::string zda = "$GPZDA,0827,16,11*6B", long_field = "$A," + std::string(150, 'x') + ",";
  for (const auto& [text, n, m, a, b, expected] :
       {std::tuple{zda, 2, 3, ",", ",", std::string("16")}, {zda, 3, 1, ",", "*", "11"}, {zda, 3, 4, ",", ",", ""},
        {"aaa", 2, 3, "aa", "a", ""}, {"abcabc", 1, 2, "bc", "bc", "a"}, {long_field, 1, 2, ",", ",", std::string(99, 'x')}}) {
    EXPECT_EQ(Read_A_Str(text.c_str(), n, m, a, b), expected) << text << n << m;
  }
  const std::uint8_t body[] = "GPZDA,082710.00,16,11,2026,00,00";
  EXPECT_TRUE(Read_Str_Num("aaaa", "aa") == 3 && Read_Str_Num("aaaa", "") == 0 && Check_sum(body, sizeof body - 1) == 0x6B);
}

}  // namespace
}  // namespace fsu::gps
