#include "console/console_texts.h"

#include <atomic>
#include <cstdlib>
#include <cstring>

namespace fsu::console {

const ConsoleText kConsoleTexts[] = {
    {"配合网页模式(主动关闭白盒软件,如需开启重启设备)\r\n该模式下，q默认开启串口回环测试(9600,N,8,1,0)，"
     "AODO 监听控制模式，\r\n1分钟检测一次PPP0，如没有则调用一次PPP0拨号\r\n 流水灯闪烁模式",
     "Web page mode (the resident software is stopped; restart the device to bring it back)\r\nIn this mode the "
     "serial loopback test runs (9600,N,8,1,0), "
     "AODO listens for output requests,\r\nPPP0 is checked once a minute and dialled when missing\r\n LEDs chase"},
    {"\t1.RTC硬件时钟获取", "\t1.Read the hardware RTC"},
    {"\t2.资源获取", "\t2.Resources"},
    {"\t3.串口回环(9600,n,8,1)", "\t3.Serial echo (9600,n,8,1)"},
    {"\t4.设备PPP0拨号", "\t4.Dial PPP0"},
    {"\t5.DO控制测试", "\t5.DO control test"},
    {"\t6.AIDI采集信息", "\t6.AI/DI readings"},
    {"\t7.第一路12V断电", "\t7.12V output 1 off"},
    {"\t8.第一路12V上电", "\t8.12V output 1 on"},
    {"\t9.第二路12V断电", "\t9.12V output 2 off"},
    {"\t10.第二路12V上电", "\t10.12V output 2 on"},
    {"\t11.获取一次AIDI数据", "\t11.AI/DI report once"},
    {"\t12.获取GPS信息", "\t12.Positioning report"},
    {"\t13.固定发送串口1测试指令", "\t13.Send the test command to a serial port"},
    {"\t14.监听串口信息到/tmp/comlog.log", "\t14.Log a serial port to /tmp/comlog.log"},
    {"\t15.串口出厂回环检测(9600,8,1,0)奇/偶数串口循环发送10字节数据,收到回环数据异常会打印，同步网页串口统计",
     "\t15.Factory serial loopback test (9600,8,1,0): odd/even ports send 10 bytes in turn, bad loopback data is "
     "printed, counters shared with the web page"},
    {"\t16.获取无线模组信息(PPP0 IP, CIMI IMEI 信号强度等)", "\t16.Modem information (PPP0 IP, CIMI, IMEI, signal, ...)"},
    {"\t17.打开SDK日志", "\t17.SDK log on"},
    {"\t18.关闭SDK日志", "\t18.SDK log off"},
    {"\t21.GPS+北斗定位", "\t21.GPS+BeiDou positioning"},
    {"\t22.GPS 定位", "\t22.GPS positioning"},
    {"\t23.北斗 定位", "\t23.BeiDou positioning"},
    {"\t98.获取模块静态动态信息", "\t98.Modem static and dynamic information"},
    {"\t99.设置GPS类型", "\t99.Set the positioning mode"},
    {"\r\n请输入GPS类型:1-GPS,2-北斗 3-GPS+北斗", "\r\nPositioning mode: 1-GPS, 2-BeiDou, 3-GPS+BeiDou"},
    {"设置类型：%d\r\n", "Mode set: %d\r\n"},
    {"间隔一秒获取获取硬件时钟\r", "Reading the hardware clock once a second\r"},
    {"主板第一路12V断电", "Main board 12V output 1 off"},
    {"主板第一路12V上电", "Main board 12V output 1 on"},
    {"主板第2路12V断电", "Main board 12V output 2 off"},
    {"主板第2路12V上电", "Main board 12V output 2 on"},
    {"AIDI 数据信息:%s", "AI/DI report:%s"},
    {"\r\n请输入要测试的串口号:", "\r\nSerial port to test:"},
    {"串口%d 发送测试指令:~10012D92E002FFFCFA\r", "Port %d sends the test command:~10012D92E002FFFCFA\r"},
    {"串口%d 返回数据(%d):%s\r\n", "Port %d replied (%d):%s\r\n"},
    {"\r\n请输入要记录日志的串口号:", "\r\nSerial port to log:"},
    {"开始记录串口%d 的日志,本地最多记录1000条\r\n", "Logging port %d, at most 1000 records kept\r\n"},
    {"设置为 GPS+北斗模式\r", "Set to GPS+BeiDou\r"},
    {"设置为 GPS模式\r", "Set to GPS\r"},
    {"设置为 北斗模式\r", "Set to BeiDou\r"},
    {"模块静态信息:%s\r\n", "Modem static information:%s\r\n"},
    {"模块动态信息:%s\r\n", "Modem dynamic information:%s\r\n"},
    {"输入测试项: ", "Test item: "},
    {"指令执行结果:%s", "Command output:%s"},
    {"如打印的时间不是连续的，可认为RTC时钟异常\r", "If the times printed do not follow each other, the RTC is faulty\r"},
    {"串口数量:%d\r\n", "Serial ports:%d\r\n"},
    {"AI数量:%d\r\n", "AI:%d\r\n"},
    {"DI数量:%d\r\n", "DI:%d\r\n"},
    {"DO数量:%d\r\n", "DO:%d\r\n"},
    {"收到串口%d的数据,数据长度：%d,数据内容(ASCII):%s\r\n", "Data from port %d, length: %d, content (ASCII):%s\r\n"},
    {"按CTRL+C退出\r", "CTRL+C leaves\r"},
    {"收到串口数据原样送出;COM——MAX=%d\r\n", "Serial data is sent back as received; COM MAX=%d\r\n"},
    {"PPP0拨号成功\r", "PPP0 dialled\r"},
    {"PPP0未拨号成功\r", "PPP0 not dialled\r"},
    {"无DO控制板\r", "No DO board\r"},
    {"AI %02d 电压型 采样值：%f V", "AI %02d voltage reading: %f V"},
    {"AI %02d 电压型 采样值失败==%s", "AI %02d voltage reading failed==%s"},
    {" | 电流型 采样值：%f ma\r\n", " | current reading: %f ma\r\n"},
    {" | 电流型 采样值失败==%s\r\n", " | current reading failed==%s\r\n"},
    {"DI%d 采样失败==%s\r\n", "DI%d reading failed==%s\r\n"},
    {"AIDI板未检测到\r", "No AI/DI board found\r"},
    {"按CTRL+C退出软件,退出后如需测试输入 benchkit 继续测试\r",
     "CTRL+C leaves the program; start benchkit again to go on testing\r"},
    {"串口资源 %s 收到数据异常:收到长度%d 的数据: %s", "Serial resource %s received bad data: %d bytes: %s"},
    {"\r\n串口%02d 发送/接收计数 :  %d/%d", "\r\nPort %02d sent/received :  %d/%d"},
    {"\r\n串口资源 %s 收到数据异常:收到长度%d 的数据: %s", "\r\nSerial resource %s received bad data: %d bytes: %s"},
    {"串口%02d 发送/接收计数 :  %d/%d\r\n", "Port %02d sent/received :  %d/%d\r\n"},
    {"SIM 卡状态: %s\r\n", "SIM card: %s\r\n"},
    {"正常", "ready"},
    {"还未检测到", "not found yet"},
    {"SIM 卡ISMI号: %s\r\n", "SIM IMSI: %s\r\n"},
    {"模块IMEI: %s\r\n", "Modem IMEI: %s\r\n"},
    {"模块信号强度:%s\r\n", "Modem signal:%s\r\n"},
    {"模块网络IP:%s\r\n", "Modem IP:%s\r\n"},
    {"\r\n经度=%.8lf,纬度=%.8lf,高度=%d\r\n", "\r\nlongitude=%.8lf,latitude=%.8lf,altitude=%d\r\n"},
};
const std::size_t kConsoleTextCount = sizeof kConsoleTexts / sizeof kConsoleTexts[0];

namespace {
std::atomic<bool> g_english{false};
}  // namespace

void use_english(bool english) { g_english.store(english); }

bool english_asked_by_environment() {
  const char* setting = std::getenv("FSU_LANG");
  return setting != nullptr && std::strcmp(setting, "en") == 0;
}

const char* tr(const char* chinese) {
  if (!g_english.load()) return chinese;
  for (const ConsoleText& text : kConsoleTexts) {
    if (std::strcmp(text.chinese, chinese) == 0) return text.english;
  }
  return chinese;
}

}  // namespace fsu::console
