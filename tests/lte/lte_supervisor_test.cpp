// Supervisor passes against the simulated modem, run in this process on a board of its own.
#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "fsusdk.h"
#include "lte/lte_supervisor.h"
#include "lte/modem_queries.h"
#include "lte/ntu.h"
#include "support/sdk_log.h"
#include "tests/sim/board_fixture.h"

namespace fsu::lte {
namespace {

struct Supervisor : ::testing::Test {
  Supervisor() { support::SDK_LOG_PAR_INIT(); set_lte_waits({0, 200}); }
  long commands() { return sim::modem_count(unit.box, "commands"); }
  sim::RunningBoard unit{{"modem dial-delay 0", "modem boot-delay 0"}};
};

TEST_F(Supervisor, EvenPassesFindTheModemAndQueryOddPassesOnlyServeRequests) {
  data_init();
  lte_pass(0);
  EXPECT_EQ(NTU.mode_id.load(), 10);  // what it saved and set is seen in the modem's e2e test
  const std::string calls = unit.box.calls();
  const long heard = commands();
  lte_pass(1);
  EXPECT_TRUE(unit.box.calls() == calls && commands() == heard) << unit.box.calls();
  lte_pass(2);  // the same modem: no uci again
  EXPECT_EQ(unit.box.calls().find("uci", calls.size()), std::string::npos);
}

TEST_F(Supervisor, SavedIdentitiesShowUntilTheModemAnswersAndAnUnregisteredModemIsNotDialled) {
  unit.box.write("/tmp/Globalp.ini", "cimi=460029999999999\nimei=860000000000001\ncsq=\n");
  data_init();
  EXPECT_STREQ(ntu_texts().cimi, "460029999999999");
  // The SIM was swapped while the application was stopped: the first cycle asks the modem.
  ASSERT_TRUE(unit.control({"modem registered no"}).empty());
  NTU.pppdstart.store(1);
  EXPECT_EQ(FsuModemState(), FSU_MODEM_ABSENT);
  lte_pass(0);
  EXPECT_EQ(FsuModemState(), FSU_MODEM_ON_USB);
  EXPECT_EQ(unit.box.read("/tmp/Globalp.ini"), "cimi=460001234567890\nimei=866123456789012\ncsq=-61\n");
  EXPECT_NE(unit.box.read("/tmp/sdklog.log").find("LTE SYS NO CSQ!"), std::string::npos);
  EXPECT_EQ(unit.box.calls().find("lte.sh"), std::string::npos);
  EXPECT_EQ(read_sysinfo(ntu_texts().atdev), -1);  // the registration query's own answer: not registered
}

TEST_F(Supervisor, IdentitiesAreTheModemsOwnWellFormedAnswersAndAreAskedAgainForAnotherModem) {
  // /tmp is anyone's: saved values that are no identity are not taken back, and asked again.
  unit.box.write("/tmp/Globalp.ini", "cimi=+CPIN: READY\nimei=0X313BC14F93A14\ncsq=\n");
  data_init();
  EXPECT_STREQ(ntu_texts().cimi, "");
  // A late reply and unsolicited lines wait on the closed port: they answer no later command.
  ASSERT_TRUE(unit.control({"modem urc +CSQ: 24,99", "modem urc OK", "modem urc RDY"}).empty());
  lte_pass(0);
  EXPECT_EQ(FsuModemState(), FSU_MODEM_REGISTERED);
  EXPECT_EQ(unit.box.read("/tmp/Globalp.ini"), "cimi=460001234567890\nimei=866123456789012\ncsq=-61\n");
  // Another modem, or one plugged back, may carry another SIM.
  ASSERT_TRUE(unit.control({"modem imsi 460017777777777", "modem row 11"}).empty());
  lte_pass(2);
  EXPECT_STREQ(ntu_texts().cimi, "460017777777777");
  ASSERT_TRUE(unit.control({"modem unplug"}).empty());
  lte_pass(4);
  EXPECT_EQ(FsuModemState(), FSU_MODEM_ABSENT);
  ASSERT_TRUE(unit.control({"modem imei 866000000000009", "modem plug"}).empty());
  lte_pass(6);
  EXPECT_EQ(FsuModemState(), FSU_MODEM_REGISTERED);
  EXPECT_STREQ(ntu_texts().imei, "866000000000009");
}

TEST_F(Supervisor, AfterNoiseWithXoffAnEndlessLineACutReplyOrTooManyReportsTheNextCycleReachesTheModem) {
  data_init();
  ASSERT_TRUE(unit.control({"modem garbage"}).empty());  // binary noise, 0x13 among it, before a reply
  lte_pass(0);
  ASSERT_TRUE(unit.control({"modem flood", "modem stream on"}).empty());  // 8 KiB without a line end, then noise
  lte_pass(2);
  ASSERT_TRUE(unit.control({"modem stream off", "modem signal 31"}).empty());
  lte_pass(4);
  EXPECT_STREQ(ntu_texts().csq, "-54");  // the probe and the signal query reached the modem
  // The probe (ATE0) waits for two lines besides its OK: unsolicited reports within that are
  // read past, a third one or a reply cut in half fails the probe until the next cycle.
  for (const auto& [fault, probe] : {std::pair{"modem interleave 2", 0}, {"modem interleave 3", 1}, {"modem cut", 1}}) {
    ASSERT_TRUE(unit.control({fault, "modem signal 20"}).empty());
    ntu_set_text(NtuText::csq, "");
    lte_pass(6);
    EXPECT_EQ(atecount.load(), probe) << fault;
    EXPECT_STREQ(ntu_texts().csq, probe == 0 ? "-69" : "") << fault;
    lte_pass(8);
    EXPECT_STREQ(ntu_texts().csq, "-69") << fault;
  }
  // A modem fallen silent holds the signal query for its three one-second waits, no longer.
  ASSERT_TRUE(unit.control({"modem silent on"}).empty());
  const double start = platform::monotonic_seconds();
  EXPECT_EQ(readcsq(ntu_texts().atdev), -1);
  EXPECT_LT(platform::monotonic_seconds() - start, 4.5);
}

TEST_F(Supervisor, SharedPortRowsQueryOnlyWhileTheLinkIsDownAndAPulledModemIsOfflineAtOnce) {
  for (const char* row : {"18", "3", "11", "12", "13"}) {  // every row whose AT port is its data port ("ttyS6" and "/dev/ttyS6" on 3)
    data_init();
    ASSERT_TRUE(unit.control({std::string("modem row ") + row, "modem dial-delay 1"}).empty());
    NTU.pppdstart.store(1);
    lte_pass(0);
    // Nothing is written on the port from the dial on, while the link comes up and while it is up.
    ASSERT_TRUE(unit.control({"modem signal 24"}).empty());  // sim/state is rewritten at once
    const long heard = commands();
    int pass = 1;
    ASSERT_TRUE(sim::poll_until(5, [&] { return lte_pass(pass++), sim::state_line(unit.box, "link ppp0 ").find("state=up") != std::string::npos; }));
    for (const int last = pass + 6; pass < last;) lte_pass(pass++);
    EXPECT_STREQ(ntu_texts().lteip, "10.64.12.34");
    EXPECT_TRUE(ntu_online());
    EXPECT_EQ(FsuModemState(), FSU_MODEM_ONLINE);
    EXPECT_EQ(commands(), heard) << row;
    EXPECT_TRUE(sim::state_shows(unit.box, "link ppp0 ", "at_on_link=0")) << row;
    ASSERT_TRUE(unit.control({"modem link-drop", "modem dial-delay 0"}).empty());
    lte_pass(pass + (pass % 2));
    EXPECT_TRUE(sim::poll_until(2, [&] { return commands() > heard; })) << row;  // sim/state follows within 0.1 s
  }
  ASSERT_TRUE(unit.control({"modem dial"}).empty());
  lte_pass(8);
  ASSERT_TRUE(ntu_online());
  ASSERT_TRUE(unit.control({"modem unplug"}).empty());
  lte_pass(10);
  EXPECT_FALSE(ntu_online());
  EXPECT_STREQ(ntu_texts().lteip, "");
}

TEST_F(Supervisor, TheGenerationIsWhatTheModemSaysInItsLongerShapes) {
  // Row 17 answers the IMSI behind "+CIMI: "; with no link yet, its query alone marks the card.
  data_init();
  ASSERT_TRUE(unit.control({"modem row 17"}).empty());
  lte_pass(0);
  EXPECT_STREQ(ntu_texts().cimi, "460001234567890");
  EXPECT_EQ(std::pair(NTU.CardStat.load(), ntu_online()), std::pair(1, false));
  for (const char* row : {"10", "18"}) {  // ^SYSINFO with a blank and seven fields; +CREG and +COPS for the dial
    data_init();
    EXPECT_STREQ(ntu_texts().nettype, "0");  // nothing said yet
    ASSERT_TRUE(unit.control({std::string("modem row ") + row, "modem net 3"}).empty());  // +COPS: 0,2,"46000",6
    NTU.pppdstart.store(1);
    lte_pass(0);
    EXPECT_STREQ(ntu_texts().nettype, "3") << row;
    EXPECT_NE(unit.box.calls().find("lte.sh"), std::string::npos) << row;
  }
}

TEST_F(Supervisor, EachModelsIdentitiesAreReadInItsOwnShapesAndNoneWithoutASim) {
  // Row 9 answers the IMEI in hexadecimal, row 17 comes up without echo and prefixes +CIMI:,
  // row 18 knows no ^SYSINFO; on row 10 every shape of the +CGSN answer seen in the field.
  std::vector<std::vector<std::string>> models = {{"modem row 9"}, {"modem row 17"}, {"modem row 18"}};
  for (const char* shape : {"colon", "colon-space", "quoted", "quoted-space", "hex"})
    models.push_back({"modem row 10", std::string("modem imei-reply ") + shape});
  for (const std::vector<std::string>& lines : models) {
    data_init();
    ntu_set_text(NtuText::imei, "");
    ASSERT_TRUE(unit.control(lines).empty());
    lte_pass(0);
    EXPECT_STREQ(ntu_texts().cimi, "460001234567890") << lines.back();
    EXPECT_STREQ(ntu_texts().imei, "866123456789012") << lines.back();
    if (lines.back() == "modem row 18") {
      EXPECT_EQ(readEC800_info(ntu_texts().atdev), 1);  // registered: dial
    }
  }
  unit.box.write("/tmp/Globalp.ini", "");
  data_init();
  ASSERT_TRUE(unit.control({"modem sim absent"}).empty());  // +CME ERROR: 10 to AT+CIMI
  lte_pass(0);
  EXPECT_STREQ(ntu_texts().cimi, "");
  EXPECT_STREQ(ntu_texts().imei, "866123456789012");
}

TEST_F(Supervisor, ADialPostedWithAHardRestartIsServedOnceTheModemIsBackAndAHangUpStopsPppd) {
  data_init();
  ASSERT_TRUE(unit.control({"modem boot-delay 2"}).empty());
  lte_pass(0);
  NTU.pppdstart.store(1);
  NTU.softreboot.store(1);  // dropped: the hard restart restarts the modem anyway
  NTU.hardreboot.store(1);
  int pass = 1;  // passes without their 1 s sleep: the modem takes 2 s to come back
  EXPECT_TRUE(sim::poll_until(10, [&] { return lte_pass(pass++), NTU.pppdstart.load() == 0; }));
  EXPECT_NE(unit.box.calls().find("lte.sh"), std::string::npos) << unit.box.calls();
  EXPECT_TRUE(sim::state_shows(unit.box, "modem ", "power_cycles=1"));
  EXPECT_TRUE(sim::state_shows(unit.box, "link ppp0 ", "state=up"));  // dialled after the power came back
  EXPECT_EQ(unit.box.read("/tmp/sdklog.log").find("无线模块软重启"), std::string::npos);
  NTU.pppdend.store(1);
  lte_pass(pass);
  EXPECT_NE(unit.box.calls().find("killall pppd"), std::string::npos) << unit.box.calls();
  EXPECT_TRUE(sim::state_shows(unit.box, "link ppp0 ", "state=down"));
}

TEST_F(Supervisor, SixteenFailedProbesOnRowSixteenBeforeTheFirstPowerCycle) {
  data_init();
  NTU.mode_id.store(16);
  ntu_set_text(NtuText::atdev, "/dev/ttyUSB9");  // no such port: every probe fails at once
  for (int probe = 1; probe <= 16; ++probe) {
    unit.box.write("/sys/class/gpio/gpio12/value", "x\n");
    readatdata();
    EXPECT_EQ(unit.box.read("/sys/class/gpio/gpio12/value"), probe < 16 ? "x\n" : "1\n") << probe;
  }
  ntu_set_text(NtuText::atdev, "/dev/ttyUSB3");  // the modem answers again: the count starts over
  ASSERT_TRUE(sim::poll_until(5, [&] {
    const std::string modem = sim::state_line(unit.box, "modem ");
    return modem.find("state=ready") != std::string::npos && modem.find("power_cycles=1") != std::string::npos;
  }));
  readatdata();
  EXPECT_EQ(atecount.load(), 0);
}

}  // namespace
}  // namespace fsu::lte
