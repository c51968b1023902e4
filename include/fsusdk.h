/* Public calls of the FSU board-support SDK (docs/api.md describes each in full).
 *
 * Resources are named "Local/Uart/N", "Local/AI/N", "Local/DI/N", "Local/DO/N", "Local/Bat/N"
 * and "Local/Led/..."; calls return 0 for success and -1 for failure unless noted.
 * Text outputs are bounded by the size given; a null buffer or a size below 1 fails.
 */
#ifndef FSUSDK_H
#define FSUSDK_H

/* The SDK's version: ReadSDKVersion gives FSUSDK_EDITION "-" FSUSDK_VERSION ("SE-1.0.9").
 * FSUSDK_VERSION_NUMBER is major * 10000 + minor * 100 + patch, for #if comparisons. */
#define FSUSDK_EDITION "SE"
#define FSUSDK_VERSION "1.0.9"
#define FSUSDK_VERSION_MAJOR 1
#define FSUSDK_VERSION_MINOR 0
#define FSUSDK_VERSION_PATCH 9
#define FSUSDK_VERSION_NUMBER (FSUSDK_VERSION_MAJOR * 10000 + FSUSDK_VERSION_MINOR * 100 + FSUSDK_VERSION_PATCH)

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Lifecycle, version, upgrade, hardware information ---- */

/* Starts the SDK and all its threads (blocks about 3 s); -1 if it has already run in this process. */
int InitializeSDK(void);
/* Marks the end of use in the SDK log; stops nothing. */
int UninitializeSDK(void);
/* Writes the SDK version ("SE-1.0.9") into buf of size bytes (at least 9). */
int ReadSDKVersion(char *buf, int size);
/* Hands an upgrade archive (a path containing ".gz") to the system upgrade tool. */
int UpdateSDK(const char *path);
/* Copies the hardware information JSON text (63 bytes with its terminator) into buf. */
int ReadHardwareInformation(void *buf, int size);

/* ---- Resources ---- */

/* Writes the JSON array of the resources present on this unit into buf (1024 bytes hold any unit). */
int ReadFSUResource(char *buf, int size);
/* Writes the alias of a resource (its name) into alias. */
int ReadResourceAlias(const char *name, char *alias, int size);
/* Writes the state of a resource (always 0) into state. */
int GetResourceState(const char *name, int *state);

/* ---- Points: analogue and digital inputs, relay outputs, batteries, LEDs ---- */

/* Reads analogue input "Local/AI/1" to "Local/AI/16": type 0 its voltage in volts (0-5), any
 * other type its current in mA (4-20, below 4 reads 0). */
int GetAIValue(const char *name, int type, float *value);
/* The same reading as text ("%f") in text, which must hold 32 bytes. */
int GetAIValue_String(const char *name, int type, char *text);
/* Reads digital input "Local/DI/1" to "Local/DI/24": 1 contact closed, 0 open. */
int GetDIValue(const char *name, int *value);
/* Switches relay output "Local/DO/1" to "Local/DO/8": 0 off, 1 on; the relay follows within about 1 s. */
int SetDOValue(const char *name, int value);
/* Battery readings are not provided: always -1, value untouched. */
int GetBatValue(const char *name, float *value);
/* Switches an LED (0 off, other on) and takes the LEDs over from the SDK; always returns -1. */
int SetLEDValue(const char *name, int value);

/* ---- Software watchdog ---- */

/* Arms (enable 1) or disarms (any other value) the watchdog with a feed interval in
 * milliseconds (whole seconds count; below 1000 leaves only the 60 s grace). */
int SoftDogEnable(int enable, unsigned int interval_ms);
/* Changes the feed interval (counts as a feed). */
int SoftDogFeedInterval(unsigned int interval_ms);
/* Feeds the watchdog: the device reboots when it goes unfed for the interval plus 60 s. */
int SoftDogFeed(void);

/* ---- Serial ports ("Local/Uart/1" to "Local/Uart/16") ---- */

/* Sets the line parameters: baud rate (300 to 115200), data bits (5-8), stop bits (1, 2),
 * parity (0 none, 1 odd, 2 even). */
int SetUartParam(const char *name, int iBaudRate, int iDataSize, int iStopBit, int iParity);
/* Reads back the line parameters last set. */
int GetUartParam(const char *name, int *iBaudRate, int *iDataSize, int *iStopBit, int *iParity);
/* Sends len bytes of buf out of the port. */
int WriteUart(const char *name, const char *buf, int len);
/* Takes up to len received bytes into buf; when none are there, waits timeout ms (at least 1)
 * and looks once more. Returns the count (0 when nothing came), -1 for a bad name or buffer. */
int ReadUart(const char *name, char *buf, int len, int timeout);

/* ---- Wireless dial and system ---- */

/* Logs the start of dial use; param is not consulted. */
int DialInit(void *param);
/* Logs the end of dial use (the link stays up); param is not consulted. */
int DialTerminate(void *param);
/* Asks the LTE supervisor to bring the data link up; both texts are only logged (may be null). */
int DialDial(const char *param1, const char *param2);
/* 0 when the data link has an address (6 characters or more), else -1. */
int DialIsOnline(void);
/* The modem's static JSON text (carrier, model, IMEI, IMSI) into buf of size bytes. */
int DialGetStaticInfo(char *buf, int size);
/* The modem's dynamic JSON text (SIM, network type, signal, address, position) into buf. */
int DialGetDynamicInfo(char *buf, int size);
/* Asks for a soft restart of the modem. */
int DialSoftReboot(void);
/* Cuts the modem's power (12 V output 0 for 3 s, then GPIO 12): blocks about 3 s. */
int DialHardReboot(void);
/* Sets the system and hardware clock from a text such as "2023-12-27 23:09:56". */
int SetRtc(const char *time);
/* Creates or replaces the FTP account user with password and home folder path. */
int SetFtp(const char *user, const char *password, const char *path);
/* Removes the FTP account user; always returns -1. */
int DelFtp(const char *user);
/* No extension types are supported: always -2; param is not consulted. */
int GetSupportedExtendType(void *param);
/* Extensions cannot be added: always -1; param is not consulted. */
int AddExtend(void *param);

/* ---- Positioning ---- */

/* Writes the position report (longitude, latitude, altitude, satellites used and in view of GPS
 * and BeiDou) into buf, which must hold 256 bytes. */
int BSP_GET_GPS_INFO(char *buf);
/* Writes the satellite signal report into buf (1024 bytes); -1 with empty text while no GSV
 * group has completed since the last report. */
int BSP_GET_GPS_dB_INFO(char *buf);
/* Sets the receiver mode of the web page and console: 0 GPS and BeiDou, 1 GPS, 2 BeiDou. */
int BSP_SET_GPS_PCAS(int mode);
/* Sets the positioning mode: 1 GPS, 2 BeiDou, 3 both, 0 switches positioning off. */
int SetPositionMode(int mode);

/* ---- Web reports (the answers of the device's web pages, also printed by the console) ---- */

/* The input report: every analogue input's voltage and current and the digital inputs, into buf
 * of at least 2048 bytes (a warning about the environment board when it has no inputs). */
int BSP_GET_AIDI_RT_INFO(char *buf);
/* The SIM report: ";;" and the state of the SIM card and its network, into buf of at least
 * 1024 bytes. */
int BSP_GET_SIM_INFO(char *buf);
/* Logs the traffic of "Local/Uart/<port>" in hex to /tmp/comlog.log for `limit` writes;
 * port 0 switches the log off. */
int BSP_SET_UART_LOG(int port, int limit);
/* Sets the line of "Local/Uart/<port>", sends cmd_len bytes of cmd, waits wait_sec seconds
 * (10 for anything above 9) and reads what came back into reply (at most reply_size bytes).
 * Returns the number of bytes read: 0 for none, -1 for a port that is not a UART 1 to 16 or a
 * null reply. */
int BSP_UART_SEND_CMD(int port, int wait_sec, int baud, int data_bits, int stop_bits, int parity,
                      const char *cmd, int cmd_len, char *reply, int reply_size);

/* ---- Our additions: results in words, board answer ages, modem state, signed position ----
 * Not calls of the device's SDK; the calls above keep their behaviour (docs/api.md, "Our
 * additions"). */

/* Results of the calls, and the error numbers of the serial driver's "ErrNo:0x..." lines. */
#define FSU_OK 0
#define FSU_ERR_FAILED (-1)
#define FSU_ERR_UNSUPPORTED (-2)
#define FSU_ERR_NO_ANSWER (-3)
#define FSU_ERR_COM_PARAM 0x01020001
#define FSU_ERR_COM_IO 0x01020002
#define FSU_ERR_COM_DEVICE 0x01020004
/* A short English text for a result or driver error number, as strerror gives one for errno;
 * never null, "unknown result" for a number the SDK does not give. */
const char *FsuErrorText(int code);

/* The boards whose answers carry the points: extension boards 1 and 2, the environment board. */
#define FSU_BOARD_EXTENSION_1 1
#define FSU_BOARD_EXTENSION_2 2
#define FSU_BOARD_ENVIRONMENT 3
/* Seconds since the board last answered into *seconds: 0, or FSU_ERR_NO_ANSWER (seconds -1)
 * while it has not answered since the SDK started; -1 for another board or a null pointer. */
int FsuBoardAnswerAge(int board, double *seconds);

/* The modem's state as one value, each including the ones before it. */
#define FSU_MODEM_ABSENT 0     /* no known modem on USB */
#define FSU_MODEM_ON_USB 1     /* found on USB, not registered with a network */
#define FSU_MODEM_REGISTERED 2 /* registered (home or roaming), no data link */
#define FSU_MODEM_ONLINE 3     /* the data link has an address */
int FsuModemState(void);

/* The last fix in signed degrees: latitude north positive, south negative; longitude east
 * positive, west negative. 0, or FSU_ERR_NO_ANSWER (both 0) while there is no fix; -1 for a
 * null pointer. */
int FsuGetPosition(double *latitude, double *longitude);

#ifdef __cplusplus
}
#endif

#endif /* FSUSDK_H */
